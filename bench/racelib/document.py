"""docs/benchmarks.md, made of the results."""

from .results import CURVE_MBITS, OURS

PICTURES = "pictures"


def amount(size_bytes):
    """Bytes for people: three digits."""
    for unit, size in (("GB", 1e9), ("MB", 1e6), ("kB", 1e3)):
        if size_bytes >= size:
            number = size_bytes / size
            return f"{number:.2f} {unit}" if number < 10 else f"{number:.1f} {unit}" if number < 100 \
                else f"{number:.0f} {unit}"
    return f"{size_bytes:.0f} B"


def seconds(number):
    return f"{number:.2f} s" if number < 10 else f"{number:.1f} s" if number < 100 else f"{number:.0f} s"


def mebibytes(kib):
    return f"{kib / 1024:.1f} MiB" if kib < 100 * 1024 else f"{kib / 1024:.0f} MiB"


def times(ratio):
    return f"{ratio:.2f}" if ratio < 10 else f"{ratio:.1f}" if ratio < 100 else f"{ratio:.0f}"


def table(head, rows):
    lines = [head, ["---"] + ["---:"] * (len(head) - 1)] + rows
    return "\n".join("| " + " | ".join(line) + " |" for line in lines) + "\n"


def picture(name, text):
    return f"![{text}]({PICTURES}/{name}.svg)\n"


class Page:
    def __init__(self, results):
        self.results = results
        self.labels = [results.labels[key] for key in results.programs]

    def by_program(self, sets, quantity, show, phase="update", line=0, first="data"):
        """A row for each set, a column for each program; behind a figure, how many times tolmdbud's it is."""
        rows = []
        for one in self.results.having(sets, phase):
            found = {key: self.results.median(one, key, quantity, phase, line) for key in self.results.programs}
            rows.append([one["title"]] + [self.figure(found, key, show) for key in self.results.programs])
        return table([first, *self.labels], rows)

    def curve(self, sets):
        """A row for each speed of the line: all updates together, calculated."""
        rows = []
        for line in CURVE_MBITS:
            found = {key: self.results.total_modelled(sets, key, line) for key in self.results.programs}
            rows.append([f"{line:,} Mbit/s"] + [self.figure(found, key, seconds) for key in self.results.programs])
        return table(["speed of the line", *self.labels], rows)

    @staticmethod
    def figure(found, key, show):
        if found[key] is None:
            return "left out"
        if key == OURS or not found.get(OURS):
            return show(found[key])
        return f"{show(found[key])} ({times(found[key] / found[OURS])})"

    def measures(self):
        """What is compared in short: its name, and a function of a set and a program."""
        results = self.results
        found = [("bytes on the wire, update", lambda one, key: results.median(one, key, "wire_bytes")),
                 ("seconds, update on loopback", lambda one, key: results.median(one, key, "seconds"))]
        for line in results.about["lines_mbits"]:
            found.append((f"seconds, update at {line:,} Mbit/s",
                          lambda one, key, line=line: results.median(one, key, "seconds", "update", line)))
        return found + [
            ("largest resident set, update", lambda one, key: results.median(one, key, "peak_kib")),
            ("processor seconds, update", results.processor_seconds),
            ("bytes on the wire, first installation", lambda one, key: results.median(one, key, "wire_bytes", "install")),
            ("seconds, first installation on loopback",
             lambda one, key: results.median(one, key, "seconds", "install")),
            ("seconds, publishing the next version", lambda one, key: results.median(one, key, "seconds", "publish")),
            ("largest resident set, publishing", lambda one, key: results.median(one, key, "peak_kib", "publish")),
            ("bytes stored on the server", lambda one, key: results.median(one, key, "stored_bytes", "publish")),
        ]

    def in_short(self):
        results, others = self.results, [key for key in self.results.programs if key != OURS]
        rows, behind = [], []
        for name, function in self.measures():
            ratios = {key: results.ratio(results.real(), key, function) for key in others}
            rows.append([name] + [f"**{times(ratios[key])}**" if ratios[key] < 1 else times(ratios[key]) for key in others])
            worse = [f"{results.labels[key]} ({times(1 / ratios[key])})" for key in others if ratios[key] < 0.995]
            if worse:
                behind.append(f"- {name}: more than {', '.join(worse)}")
        text = ("How many times as much as tolmdbud each other program takes, as the geometric mean over the "
                f"{len(results.real())} real sets. Above 1 tolmdbud is better, below 1 (bold) the other one is.\n\n" +
                table(["measure", *(results.labels[key] for key in others)], rows))
        if behind:
            text += ("\nWhere tolmdbud takes more than others, and in brackets how many times as much:\n\n" +
                     "\n".join(behind) + "\n")
        return text

    def conditions(self):
        about = self.results.about
        machine = about["machine"]
        programs = ", ".join(f"{name} {number}" for name, number in about["versions"].items())
        others = about["others_share"]
        busy = "How busy others kept it was not noted" if others is None else \
            f"Other work took {others:.0%} of the processors' time meanwhile"
        if others is None or others >= 0.05:
            busy += ", so **times are rough**"
        return (f"Measured on {about['date']} on {machine['kind']} with {machine['processors']} processors "
                f"({machine['architecture']}), {machine['memory_gib']} GiB of memory, {machine['file_system']}, "
                f"{machine['system']}, with {programs}. {busy}. "
                f"The command:\n\n    {about['command']}\n")

    def copies(self):
        return COPIES + (SETTLED if self.results.about.get("copies_settle") else NOT_SETTLED)

    def command(self, only=""):
        base = self.results.about["command"]
        return f"`{base} --only '{only}'`" if only and "--only" not in base else f"`{base}`"

    def data(self):
        rows = []
        for one in self.results.sets:
            old, new = one["versions"][0], one["versions"][-1]
            rows.append([one["title"], f"{new['files']:,}", amount(old["bytes"]),
                         amount(new["bytes"]), str(self.results.rounds(one))])
        return table(["data", "files", "old version", "new version", "rounds"], rows)

    def lines(self):
        results, parts = self.results, []
        parts.append("On loopback:\n\n" + self.by_program(results.real(), "seconds", seconds))
        for line in results.about["lines_mbits"]:
            parts.append(f"At {line:,} Mbit/s, really run:\n\n" +
                         self.by_program(results.real(), "seconds", seconds, line=line))
        parts.append(f"The {len(results.steps())} updates from one version to the next together, calculated:\n\n" +
                     self.curve(results.steps()))
        deviations = [part for _, _, part in results.deviations()]
        if deviations:
            middle = sorted(deviations)[len(deviations) // 2]
            parts.append("What is calculated is the time that the bytes take at that speed, and the seconds on loopback. "
                         f"The {len(deviations)} runs that were really made on slower lines took between "
                         f"{min(deviations):+.0%} and {max(deviations):+.0%} of what is calculated for them, {middle:+.0%} "
                         "in the middle. Programs that work while they download do better than calculated.\n")
        return "\n".join(parts)

    def growth(self, group, what):
        sets, parts = self.results.group(group), []
        for name, quantity, show, phase in (
                ("Seconds of the update on loopback", "seconds", seconds, "update"),
                ("Largest resident set of the update", "peak_kib", mebibytes, "update"),
                ("Bytes on the wire", "wire_bytes", amount, "update"),
                ("Requests", "requests", lambda number: f"{number:,.0f}", "update"),
                ("Seconds of publishing the second version", "seconds", seconds, "publish"),
                ("Largest resident set of publishing", "peak_kib", mebibytes, "publish")):
            parts.append(f"{name}:\n\n" + self.by_program(sets, quantity, show, phase))
        return "\n".join(parts)

    def left_out(self):
        titles = {one["name"]: one["title"] for one in self.results.sets}
        return [f"{self.results.labels[key]} of {titles[name]}" for name, key in sorted(self.results.left_out)]

    @staticmethod
    def releases(found):
        counts = sorted({number for number, _, _ in found})
        commands = list(dict.fromkeys(command for _, command, _ in found))
        known = {(number, command): value for number, command, value in found}
        rows = [[command] + [seconds(known[number, command]) if (number, command) in known else "not run"
                             for number in counts] for command in commands]
        return table(["command"] + [f"{number:,} releases" for number in counts], rows)


INTRODUCTION = """# Benchmarks

What an update with tolmdbud costs, beside other programs that bring directories up to date: OSTree, casync, zsync, and
plain archives of everything. Anybody can run the same race; this page and its pictures are made of what it has written down
(`bench/race-results.json`) by `bench/race report`, so change neither by hand.
"""

COPIES = """Each round updates a copy of the device. tolmdbud remembers when each installed file was last changed, and before an
update it looks only into files that were changed since; of a copied device all were, of a real one none.
"""
SETTLED = "Copies therefore ran `tolmdbud fix` before, unmeasured, after which the record of files was right again.\n"
NOT_SETTLED = "In these figures **tolmdbud digested all installed files anew** before each update.\n"

METHOD = """## What was raced

Each program publishes the first version and a device installs it; after each later version that is published, devices that
have an older one update, also those that missed one. The files that it has then are compared with what was published
(SQLite files by their content); a wrong one ends the race. Programs take turns: the first round of all, then the second.
Figures are medians over the rounds. First installations, and publishing, were done once for each version.

- **tolmdbud**: `tolmdbpub release`, and `tolmdbud update` as installed, in a root directory of its own. It verifies signatures of the
  description and of every package; the others were set to verify none. It downloads by wget.
- **ostree, static deltas**: `ostree commit`, `ostree static-delta generate` from every older version, `ostree pull
  --require-static-deltas`, `ostree checkout`. The version of ostree that was raced downloads both the delta and the objects
  that it makes of it. **ostree, delta file** is the road that downloads nothing but the delta: `static-delta generate --inline
  --min-fallback-size=0` (large objects in it, too), wget, `static-delta apply-offline`. **ostree, objects** is a pull without
  deltas. All three otherwise with what ostree chooses by default, and with checkouts by hard links, which copy nothing.
- **casync**: `casync make`, `casync extract` with a store over HTTP and the old files as seed.
- **zsync**: `zsyncmake -z` of a tar archive, `zsync` with the old archive as input, tar. The device keeps the archive beside the
  files, so it needs twice the room.
- **full packages**: tar and `zstd -19` (`-12` above 100 MiB), wget, tar.

**Bytes on the wire** are counted by the server: requests, and answers with their headers; not what TCP and IP add. One
server serves all, over HTTP/1.1 without encryption, and sends at the speed of the line over all connections together; there
is no delay of packets. **Seconds** are from the start of the program to its end, the server's time on the same machine
included. **Largest resident set** is that of the largest one process of the program (as wait4 reports it): programs that run
beside each other are not added, and pages of files that it has mapped are in it. Files that were read before are in the
page cache. tolmdbud and ostree wait until what they have written is on the disk, the others do not.
"""

NOT_SAID = """## What this does not say

- One machine, with publisher, server and device on it. A device with a slower processor or flash gets other ratios between
  bytes and time, and lines with long delays punish programs with many requests.
- The real data are three packages of one distribution, with two years between their versions. Databases that are released
  every day change less between two versions.
- The generated files hold random bytes, which nothing compresses; they show how costs grow, not what data cost.
- The others do more than is asked of them here, and less: OSTree keeps many trees and shares their files, casync can seed from
  block devices, zsync needs no state on the device but a file. None of them was asked to verify signatures, to repair, or to
  keep readers apart from installations.
- Only one version of each program was raced, the one that Debian ships.
"""


def text(results):
    if OURS not in results.programs:
        raise ValueError(f"these results are without {OURS}, to which everything is compared")
    page = Page(results)
    parts = [INTRODUCTION, page.conditions()]
    if results.real():
        parts += ["## In short\n", page.in_short()]
    parts += [METHOD, page.copies(), "The data:\n", page.data(),
              "Figures in brackets say how many times tolmdbud's figure one is.\n"]
    if results.left_out:
        parts.append(f"Left out, because publishing took longer than {results.about['patience_seconds']} s: " +
                     "; ".join(page.left_out()) + ".\n")
    if results.real():
        parts += real_parts(page)
    for group, title, name in (("size", "Growth with the size of a file", "size"),
                               ("count", "Growth with the number of files", "files")):
        if results.group(group):
            parts += [f"## {title}\n", picture(f"growth-{name}", GROWTH_TEXTS[group]), GROWTH[group],
                      f"Command: {page.command(f'^{name}-')}\n", page.growth(group, name)]
    if results.releases:
        parts += ["## A repository of many releases\n",
                  picture("releases", "Seconds of each command of tolmdbpub by the number of releases in the repository"),
                  "How long commands take when a repository of a database of 2 MB has many releases: check of all deltas, the same "
                  "with one job, and again with what it remembers; release of one more; prune of all but three; and the update "
                  "of a device from the first release to the newest, all deltas at once. Command:\n\n    build/release/bin/tolm-private-root --stage build/release/stage --bind \"$PWD\" "
                  "--bind-rw \"$PWD/bench\" -- \\\n      bench/releases build/release/bin --tsv "
                  "\"$PWD/bench/releases-results.tsv\"\n", page.releases(results.releases)]
        if results.releases_processors:
            parts += ["Seconds of processors, which say more when a machine is busy:\n",
                      page.releases(results.releases_processors)]
    parts.append(NOT_SAID)
    return "\n".join(parts)


GROWTH_TEXTS = {"size": "Seconds and peak memory of an update by the size of a file of which one per cent changed",
                "count": "Seconds and peak memory of an update by the number of files of which one per cent changed"}
GROWTH = {"size": "One file of random bytes, of which one per cent is changed, in runs of 1 KiB at random places.\n",
          "count": "Files of 250 bytes, of which every hundredth is changed, in 16 of its characters.\n"}


def real_parts(page):
    sets = page.results.real()
    command = f"Command: {page.command('data|geoip')}\n"
    return [
        "## Bytes on the wire\n",
        picture("bytes", "Bytes on the wire by program, added over the steps of real data"), command,
        page.by_program(sets, "wire_bytes", amount), "Requests:\n",
        page.by_program(sets, "requests", lambda number: f"{number:,.0f}"),
        "## Time by speed of the line\n",
        picture("time", "Total time of an update by the speed of the line, for each program"), command, page.lines(),
        "## Memory\n", picture("memory", "Largest resident set on the device during an update, for each program"), command,
        page.by_program(sets, "peak_kib", mebibytes),
        "## The first installation\n", command, "Bytes on the wire:\n",
        page.by_program(sets, "wire_bytes", amount, "install"), "Seconds on loopback:\n",
        page.by_program(sets, "seconds", seconds, "install"),
        "## The publisher's side\n", command, "Seconds to publish the newest version:\n",
        page.by_program(sets, "seconds", seconds, "publish"), "Largest resident set:\n",
        page.by_program(sets, "peak_kib", mebibytes, "publish"),
        "Stored on the server after the version was published: with tolmdbud and ostree all versions and the deltas to the "
        "newest one, with casync the chunks of all versions, with zsync and full packages the newest version alone:\n",
        page.by_program(sets, "stored_bytes", amount, "publish"),
    ]
