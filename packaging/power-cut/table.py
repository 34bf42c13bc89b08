#!/usr/bin/env python3
"""The results of tries: a line for each in a file, and the table by phase and file system.

    packaging/power-cut/table.py FILE...    the table of what these files hold
"""

import collections
import sys
import threading

Result = collections.namedtuple("Result", "one seconds done found wrong")
COLUMNS = ("file system", "phase", "fault", "seed", "number", "moment", "flush", "how", "cold", "done", "found", "seconds", "wrong")


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
        wrong = " | ".join(result.wrong).replace("\t", " ").replace("\n", " / ")
        line = (one.file_system, one.phase, one.fault, str(one.seed), str(one.number), f"{one.moment:.4f}", str(one.flush), one.how,
                "cold" if one.cold else "stored", "done" if result.done else "cut", result.found, f"{result.seconds:.1f}", wrong)
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


def read(path):
    with open(path, encoding="utf-8") as file:
        lines = file.read().splitlines()
    return [dict(zip(COLUMNS, line.split("\t"))) for line in lines[1:]]


if __name__ == "__main__":
    print("\n".join(table([line for name in sys.argv[1:] for line in read(name)])))
