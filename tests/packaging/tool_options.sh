# Sourced by the tests that compare what the tools' --help shows with other lists of it.

# Every way to call a tool: "tolmdbud", "tolmdbud update", "tolmdbud volume show" and so on, one a line.
all_commands() {
  echo tolmdbudvcdiff
  for tool in tolmdbud tolmdbpub; do
    commands_below $tool
  done
}

commands_below() {  # COMMAND-LINE
  echo "$*"
  # A list of commands ends with the examples or with the end of the text.
  "$@" --help | sed -n '/^Subcommands:/,/^$/s/^  \([a-z][a-z-]*\)  *.*/\1/p' | while read -r command; do
    commands_below "$@" "$command"
  done
}

# The long options in the list of options; those in examples and sentences do not count.
help_options() {  # COMMAND-LINE
  "$@" --help | sed -nE 's/^ +(-[A-Za-z],( )?)?(--[a-z][a-z-]*).*/\3/p' | sort -u
}

PATH=$PATH:/usr/tolm/sbin
