"""Runs the simulation's program and reads what it has written."""

import csv
import json
import subprocess
import tempfile
from pathlib import Path

PROJECT = Path(__file__).resolve().parents[3]
UNIT = PROJECT / "packaging/systemd/tolmdbud-update.timer"


class Failed(Exception):
    pass


def simulate(build, scenario, series=None, trace=None):
    """The result of a scenario (a dictionary), as the program tells it; series and trace: files that it writes besides."""
    program = Path(build) / "bin/fleet_simulate"
    if not program.exists():
        raise Failed(f"{program} is not there: cmake --build {build} --target fleet_simulate")
    with tempfile.TemporaryDirectory() as scratch:
        path = Path(scratch) / "scenario.json"
        path.write_text(json.dumps(scenario))
        command = [program, "--unit", UNIT, "--quiet", path]
        for option, file in (("--series", series), ("--trace", trace)):
            command += [option, file] if file else []
        done = subprocess.run(command, capture_output=True, text=True)
    if done.returncode != 0:
        raise Failed(done.stderr.strip())
    return json.loads(done.stdout)


def read_series(path):
    """The columns of a series by name, as lists of whole numbers."""
    with open(path, newline="") as file:
        rows = list(csv.reader(file, delimiter="\t"))
    return {name: [int(row[at]) for row in rows[1:]] for at, name in enumerate(rows[0])}
