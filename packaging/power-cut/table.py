#!/usr/bin/env python3
"""The results of tries: a line for each in a file, and the tables by file system.

    packaging/power-cut/table.py FILE...             the table by phase, of what these files hold
    packaging/power-cut/table.py --faults FILE...    the tables of disks that fail, by fault and phase, and by file system
"""

import collections
import sys
import threading

# disk: when a bad one failed: "under way", "after the end", "before" the operation began; said: the operation's last word.
Result = collections.namedtuple("Result", "one seconds done found wrong disk said")
COLUMNS = ("file system", "phase", "fault", "seed", "number", "moment", "flush", "how", "cold", "done", "found", "seconds", "wrong",
           "disk", "said")


class Results:
    """Written as they come, by several threads."""

    def __init__(self, path):
        self._path = path
        self._lock = threading.Lock()
        self._lines = []
        self.failed = 0
        with open(path, "a", encoding="utf-8") as file:
            if file.tell() == 0:
                file.write("\t".join(COLUMNS) + "\n")

    def add(self, result):
        one = result.one
        wrong, said = (text.replace("\t", " ").replace("\n", " / ") for text in (" | ".join(result.wrong), result.said))
        line = (one.file_system, one.phase, one.fault, str(one.seed), str(one.number), f"{one.moment:.4f}", str(one.flush), one.how,
                "cold" if one.cold else "stored", "done" if result.done else "cut", result.found, f"{result.seconds:.1f}", wrong,
                result.disk, said)
        with self._lock:
            self._lines.append(dict(zip(COLUMNS, line)))
            with open(self._path, "a", encoding="utf-8") as file:
                file.write("\t".join(line) + "\n")
            if result.wrong:
                self.failed += 1
                print("WRONG: " + " ".join(line), flush=True)

    def table(self):
        return table(self._lines)


def table(lines):
    """Lines of a table in Markdown: tries, and those after which something was wrong."""
    systems = sorted({line["file system"] for line in lines})
    for line in lines:
        line["what"] = line["phase"] if line["fault"] == "power" else f"{line['phase']}, {line['fault']}"
    phases = list(dict.fromkeys(line["what"] for line in lines))
    text = ["| phase | " + " | ".join(f"{system}: tries, cut before the end, wrong" for system in systems) + " |",
            "|---|" + "---|" * len(systems)]  # yapf: disable
    for phase in phases + ["all"]:
        cells = []
        for system in systems:
            those = [line for line in lines if line["file system"] == system and phase in (line["what"], "all")]
            before = sum(line["done"] == "cut" for line in those)
            cells.append(f"{len(those)}, {before}, {sum(bool(line['wrong']) for line in those)}")
        text.append(f"| {phase} | " + " | ".join(cells) + " |")
    return text


def faults(lines):
    """Tables in Markdown of tries with disks that fail, or that are cut while they are slow or forget."""
    kinds = list(dict.fromkeys(line["fault"] for line in lines))
    phases = list(dict.fromkeys(line["phase"] for line in lines))
    text = ["| phase | " + " | ".join(kinds) + " |", "|---|" + "---|" * len(kinds)]
    for phase in phases + ["all"]:
        cells = [_ends([line for line in lines if line["fault"] == kind and phase in (line["phase"], "all")]) for kind in kinds]
        text.append(f"| {phase} | " + " | ".join(cells) + " |")
    text += ["", "| file system | tries | the disk failed after the end | wrong |", "|---|---:|---:|---:|"]
    for system in sorted({line["file system"] for line in lines}) + ["all"]:
        those = [line for line in lines if system in (line["file system"], "all")]
        late = sum(line["disk"] == "after the end" for line in those)
        text.append(f"| {system} | {len(those)} | {late} | {sum(bool(line['wrong']) for line in those)} |")
    return text


def _ends(lines):
    """How many tries, and how many operations of them ended well although the disk failed before their end, or were wrong."""
    if not lines:
        return ""
    parts = [str(len(lines))]
    done = sum(line["done"] == "done" and line["disk"] in ("under way", "before") for line in lines)
    wrong = sum(bool(line["wrong"]) for line in lines)
    late = sum(line["disk"] == "after the end" for line in lines)
    parts += [f"{count} {what}" for count, what in ((done, "done"), (late, "late"), (wrong, "wrong")) if count]
    return ", ".join(parts)


def read(path):
    with open(path, encoding="utf-8") as file:
        lines = file.read().splitlines()
    return [dict(zip(COLUMNS, line.split("\t"))) for line in lines[1:]]


def main(arguments):
    is_of_faults = arguments[:1] == ["--faults"]
    lines = [line for name in arguments[is_of_faults:] for line in read(name)]
    print("\n".join((faults if is_of_faults else table)(lines)))


if __name__ == "__main__":
    main(sys.argv[1:])
