"""What a race has written down, and what is made of it: medians, sums, ratios, and what a slower line would take."""

import csv
import json
import math
import statistics
from pathlib import Path

OURS = "tolmdbud"
CURVE_MBITS = (1, 2, 5, 10, 20, 50, 100, 200, 500, 1000)


class Results:
    def __init__(self, path, releases_path):
        found = json.loads(Path(path).read_text())
        self.about, self.sets = found["about"], found["sets"]
        self.labels = dict(found["about"]["programs"])
        self.programs = list(self.labels)
        self.left_out = {(one["set"], one["program"]) for one in found["left_out"]}
        self._runs = {}
        for run in found["runs"]:
            key = run["set"], run["program"], run["phase"], run["line_mbits"]
            self._runs.setdefault(key, []).append(run)
        self.releases = read_releases(releases_path)
        self.releases_processors = read_releases(releases_path, "_processors")

    def median(self, one, program, quantity, phase="update", line=0):
        """The median over the rounds; None where there was no such run."""
        runs = self._runs.get((one["name"], program, phase, line))
        return statistics.median(run[quantity] for run in runs) if runs else None

    def processor_seconds(self, one, program):
        user, system = (self.median(one, program, f"{kind}_seconds") for kind in ("user", "system"))
        return None if user is None else max(0.01, user + system)  # It is told in hundredths.

    def rounds(self, one):
        return max(len(self._runs.get((one["name"], key, "update", 0), ())) for key in self.programs)

    def group(self, name):
        return sorted((one for one in self.sets if one["group"] == name), key=lambda one: one["measure"])

    def real(self):
        return [one for one in self.sets if one["group"] == "real"]

    def steps(self):
        """The real sets that lead from one version to the next and that every program has run: what can be added up."""
        return [one for one in self.real() if not one["missed"] and
                all((one["name"], key, "update", line) in self._runs
                    for key in self.programs for line in (0, *self.about["lines_mbits"]))]

    def having(self, sets, phase):
        """Those of the sets of which there are runs of a phase: what several updates share was done once."""
        return [one for one in sets if any((one["name"], key, phase, 0) in self._runs for key in self.programs)]

    def modelled(self, one, program, line, phase="update"):
        """Seconds on a line of that speed: the time that its bytes take, and what the program took on loopback."""
        wire = self.median(one, program, "wire_bytes", phase)
        return wire * 8 / (line * 1e6) + self.median(one, program, "seconds", phase)

    def total(self, sets, program, quantity, phase="update", line=0):
        return sum(self.median(one, program, quantity, phase, line) for one in sets)

    def total_modelled(self, sets, program, line):
        return sum(self.modelled(one, program, line) for one in sets)

    def deviations(self):
        """Of each run on a slower line, by which part it took longer than modelled: (line, program, part)."""
        return [(line, program, self.median(one, program, "seconds", "update", line) /
                 self.modelled(one, program, line) - 1)
                for one in self.real() for line in self.about["lines_mbits"] for program in self.programs
                if self.median(one, program, "seconds", "update", line) is not None]

    def ratio(self, sets, program, function):
        """The geometric mean of how many times as much as tolmdbud another program takes; function(set, program)."""
        pairs = [(function(one, program), function(one, OURS)) for one in sets]
        return math.exp(statistics.fmean(math.log(theirs / ours) for theirs, ours in pairs if theirs and ours))


# What the columns of bench/releases mean.
RELEASES_COLUMNS = {
    "check": "check", "jobs1": "check, one job", "again": "check again", "quick": "check --quick", "release": "release",
    "prune": "prune", "resign": "resign", "list": "list", "device": "a device's update",
}


def read_releases(path, suffix=""):
    """[(releases, command, seconds)] of what bench/releases has measured; empty where it has not. With the suffix of a kind of
    columns, what these say: "_processors" seconds of processors, without one seconds that went by."""
    if not Path(path).is_file():
        return []
    with open(path, newline="") as file:
        rows = list(csv.DictReader(file, delimiter="\t"))
    return [(int(row["releases"]), label, float(row[name + suffix]))
            for row in rows for name, label in RELEASES_COLUMNS.items() if name + suffix in row]
