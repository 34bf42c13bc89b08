#!/bin/sh
# Every call of a tool in README.md and the documents, in blocks of code and in `code` in the text, names a command that
# exists and options that this command has.
set -eu
here=$(dirname "$0")
. "$here/tool_options.sh"
top=$(cd "$here/../.." && pwd)

# "tolmdbud update<TAB>--all" for every option, the short ones too, and "tolmdbud update<TAB>" for the command itself.
all_commands >/tmp/commands
# Commands are words of their own.
# shellcheck disable=SC2086
while read -r command; do
  printf '%s\t\n' "$command"
  { help_options $command; $command --help | sed -nE 's/^ +(-[A-Za-z]),.*/\1/p'; } | sort -u | sed "s/^/$command\t/"
done </tmp/commands >/tmp/taken

check() {  # DOCUMENT...
awk '
  function complain(what) {
    printf "%s: %s: %s\n", FILENAME, call, what > "/dev/stderr"
    failed = 1
  }

  # Whether the short options that are written together, as in -vv, are all there.
  function has_letters(option, i) {
    for (i = 2; i <= length(option); i++) {
      if (!((command "\t-" substr(option, i, 1)) in taken)) return 0
    }
    return option !~ /^--/
  }

  # A call as it stands on a line: "tolmdbud update --all >log".
  function check_call(text, words, count, i, option) {
    call = text
    gsub(/[][]/, " ", text)
    count = split(text, words, " ")
    command = words[1]
    sub(/.*\//, "", command)
    for (i = 2; i <= count && ((command " " words[i] "\t") in taken); i++) {
      command = command " " words[i]
    }
    calls++
    # A name in capitals stands for any command, and only options follow a tool that is asked for its help.
    if ((command in has_below) && i <= count && words[i] !~ /^(-|[A-Z]+$|\.\.\.$)/) {
      complain("there is no command \"" words[i] "\"")
    }
    for (; i <= count && words[i] != "--"; i++) {
      option = words[i]
      sub(/=.*/, "", option)
      if (option ~ /^-[-a-zA-Z]/ && !((command "\t" option) in taken) && !has_letters(option)) {
        complain("\"" command "\" has no option " option)
      }
    }
  }

  # The calls in a line of a shell, of a unit or of a table for cron: where a command begins.
  function check_line(line, parts, count, i, part) {
    if (line ~ /►/) return  # A drawing.
    sub(/^ *ExecStart=/, "", line)
    gsub(/\047[^\047]*\047/, "QUOTED", line)
    sub(/(^|[ \t])#.*/, "", line)
    gsub(/"/, " ", line)
    count = split(line, parts, /\$\(|[|&;(){}<>]|`/)
    for (i = 1; i <= count; i++) {
      part = parts[i]
      while (sub(/^ *([A-Za-z_]+=[^ ]* +|(sudo|exec|time|if|then|else|do|while|until|!) +)/, "", part)) {}
      if (part ~ /^ *([^ ]*\/)?(tolmdbud|tolmdbpub|tolmdbudvcdiff)( |$)/) check_call(part)
    }
  }

  # Calls that stand in the text, as `tolmdbud update NAME`.
  function check_text(text, parts, count, i) {
    count = split(text, parts, "`")
    for (i = 2; i <= count; i += 2) {
      if (parts[i] ~ /^(sudo )?(tolmdbud|tolmdbpub|tolmdbudvcdiff) /) check_line(parts[i])
    }
  }

  function end_of_text() {
    check_text(paragraph)
    paragraph = ""
  }

  FILENAME == "/tmp/taken" {
    taken[$0] = 1
    command = $0
    sub(/\t.*/, "", command)
    if (sub(/ [^ ]+$/, "", command)) has_below[command] = 1
    next
  }
  FNR == 1 { end_of_text(); fenced = 0 }
  /^ *```/ { end_of_text(); fenced = !fenced; next }
  fenced || /^    / {
    line = pending $0
    pending = ""
    if (sub(/\\$/, "", line)) { pending = line; next }
    check_line(line)
    next
  }
  /^ *$/ || /^\|/ { end_of_text(); check_text($0); next }
  { paragraph = paragraph " " $0 }
  END {
    end_of_text()
    print calls + 0, "calls of the tools"
    exit failed || calls == 0
  }
' /tmp/taken "$@"
}

# What is wrong is found, wherever it stands.
cat >/tmp/wrong.md <<'END'
Run `tolmdbud status --offlin` and `tolmdbpub set repo
--basurl x`, or `tolmdbud` and `tolmdbud COMMAND --help`.

    sudo tolmdbud updat vendors   # --no
    A=1 tolmdbud update vendors -qz && tolmdbud volume munted /x
    x="$(tolmdbud directory --jsn vendors)"

```
tolmdbpub release repo vendors dir \
  --folow-links >log
ExecStart=/usr/bin/tolmdbud fix --al
tolmdbud lock vendors --wait=3 -- ls --all
if ! tolmdbud verify -qv --package; then
```
| `tolmdbud verify --pakage` |
END
check /tmp/wrong.md >/tmp/said 2>/tmp/complaints && { echo "wrong calls are not found" >&2; exit 1; }
[ "$(wc -l </tmp/complaints)" -eq 9 ] || { echo "not the nine wrong calls are found:" >&2; cat /tmp/complaints >&2; exit 1; }

check "$top"/README.md "$top"/docs/*.md "$top"/docs/formats/*.md "$top"/packaging/server/*.md
