"""Runs the race and writes down every round of it."""

import datetime
import hashlib
import json
import os
import platform
import re
import resource
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from . import programs as contestants

HERE = Path(__file__).resolve().parent
LOOPBACK = 0  # As a line's speed in Mbit/s: as fast as it goes.


class RaceError(Exception):
    """The race cannot go on; the text is for people."""


class TooLong(RaceError):
    """A program needs longer than anybody waits for it here."""


class Server:
    """server.py in a process of its own, so that it takes no time of the race's; ended with the block."""

    def __init__(self, root):
        self._process = subprocess.Popen([sys.executable, "-B", HERE / "server.py", root], text=True,
                                         stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.port = self._answer()["port"]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._process.stdin.close()
        self._process.terminate()
        self._process.wait()
        self._process.stdout.close()

    def order(self, text):
        self._process.stdin.write(text + "\n")
        self._process.stdin.flush()
        return self._answer()

    def _answer(self):
        answer = self._process.stdout.readline()
        if not answer:
            raise RaceError("the race's web server has ended")
        return json.loads(answer)


def clean_environment():
    """The same for all: no proxy, no language, no settings of the caller."""
    return {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/nonexistent", "LANG": "C.UTF-8", "TZ": "UTC"}


def run_to_the_end(command, patience_seconds):
    """Runs a command of the shell; returns its status and what it said. When the race is ended, so are all its processes."""
    with subprocess.Popen(["bash", "-c", command], env=clean_environment(), stdin=subprocess.DEVNULL, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True) as process:
        try:
            said, _ = process.communicate(timeout=patience_seconds)
        except subprocess.TimeoutExpired as error:
            raise TooLong(f"it still runs after {patience_seconds} s: {command}") from error
        finally:
            if process.poll() is None:
                os.killpg(process.pid, signal.SIGKILL)
                process.stdout.read()  # Until the last of them is gone.
        return process.returncode, said


class Stall:
    """One program's place in the race for one set."""

    def __init__(self, kind, room, server, set_name, patience_seconds):
        self._room = room / kind.key
        self.shop = self._room / "shop"
        shelf = room / "www" / set_name / kind.key
        for directory in (self.shop, shelf):
            directory.mkdir(parents=True)
        self.shelf = shelf
        self._server, self._patience_seconds = server, patience_seconds
        self.program = kind(self.shop, shelf, f"http://127.0.0.1:{server.port}/{set_name}/{kind.key}")
        if self.program.start():
            self._measured(self.program.start(), None)

    def publish(self, number, tree):
        return self._measured(self.program.publish(number, tree), None)

    def install(self, tree):
        """The first installation; the device is kept as version 1."""
        device = self._device(1)
        device.mkdir()
        cost = self._on_line(LOOPBACK, self.program.install(device), device)
        check_tree(self.program.label, tree, self.program.tree(device))
        return cost

    def update(self, old, new, speed_mbits, tree):
        """One update of a copy of the device that is kept as a version; the updated one is kept as the new version, too."""
        return self._update(self._copy(self._device(old)), new, speed_mbits, tree)

    def last_update(self, old, new, speed_mbits, tree):
        """The same with the kept device itself, which saves time and room."""
        return self._update(self._device(old), new, speed_mbits, tree)

    def _update(self, device, new, speed_mbits, tree):
        cost = self._on_line(speed_mbits, self.program.update(device), device)
        check_tree(self.program.label, tree, self.program.updated_tree(device))
        self._settle(device)
        if self._device(new).exists():
            shutil.rmtree(device)
        else:
            device.rename(self._device(new))
        return cost

    def _device(self, version):
        return self._room / f"device-{version}"

    def _copy(self, device):
        running = self._room / "running"
        subprocess.run(["cp", "-a", device, running], check=True)
        script = self.program.after_copy(running)
        if script:
            self._on_line(LOOPBACK, script, running)
        return running

    def _settle(self, device):
        """The updated files take the place of the old ones."""
        old, new = self.program.tree(device), self.program.updated_tree(device)
        if old != new:
            shutil.rmtree(old)
            new.rename(old)

    def stored_bytes(self):
        found = subprocess.run(["du", "-sb", f"{self.shelf}/"], check=True, capture_output=True, text=True)
        return int(found.stdout.split()[0])

    def remove(self):
        shutil.rmtree(self._room, ignore_errors=True)
        if self.shelf.is_symlink():
            self.shelf.unlink()
        else:
            shutil.rmtree(self.shelf)

    def _on_line(self, speed_mbits, script, device):
        self._server.order(f"rate {speed_mbits * 125000}")
        self._server.order("reset")
        cost = self._measured(script, device)
        counts = self._server.order("counts")
        cost["wire_bytes"] = counts["body"] + counts["head"] + counts["requested"]
        cost.update(body_bytes=counts["body"], requests=counts["requests"])
        return cost

    def _measured(self, script, device):
        """Runs a script and returns what it took; everything that others have written is on the disk before."""
        text, result = self._room / "script", self._room / "result"
        text.write_text(script)
        command = self.program.around(contestants.quoted(HERE / "measure.sh", result, text), device)
        subprocess.run(["sync", "-f", self._room], check=True)
        status, said = run_to_the_end(command, self._patience_seconds)
        fields = result.read_text().split() if result.is_file() else []
        result.unlink(missing_ok=True)
        if status != 0 or len(fields) != 5 or fields[0] != "0":
            raise RaceError(f"{self.program.label} failed:\n{script}\n{said}")
        return {"seconds": float(fields[1]), "user_seconds": float(fields[2]), "system_seconds": float(fields[3]),
                "peak_kib": int(fields[4])}


def digests(tree):
    found = {}
    for path in Path(tree).rglob("*"):
        if path.is_file():
            with open(path, "rb") as file:
                found[str(path.relative_to(tree))] = hashlib.file_digest(file, "sha256").digest()
    return found


def same_rows(one, other):
    """Whether two files are SQLite files with the same content; the order of tables and rows is none."""
    for path in (one, other):
        with open(path, "rb") as file:
            if file.read(16) != b"SQLite format 3\0":
                return False
    dumps = [subprocess.run(["sqlite3", "-readonly", path, ".dump"], check=True, capture_output=True).stdout
             for path in (one, other)]
    return sorted(dumps[0].split(b"\n")) == sorted(dumps[1].split(b"\n"))


def check_tree(label, expected, found):
    """Raises unless the trees have the same files, SQLite files by their content."""
    want, have = digests(expected), digests(found)
    if want.keys() != have.keys():
        raise RaceError(f"{label}: files are missing or too many: {sorted(want.keys() ^ have.keys())[:5]}")
    for name in want:
        if want[name] != have[name] and not same_rows(Path(expected, name), Path(found, name)):
            raise RaceError(f"{label}: {name} is not as it was published")


def tree_size(tree):
    files = [path.stat().st_size for path in Path(tree).rglob("*") if path.is_file()]
    return {"bytes": sum(files), "files": len(files)}


class Race:
    def __init__(self, kinds, rounds, lines, patience_seconds, scratch, tell):
        self._kinds, self._rounds, self._lines, self._tell = kinds, rounds, lines, tell
        self._patience_seconds, self._scratch = patience_seconds, scratch
        self.sets, self.runs, self.left_out = [], [], []
        self._gave_up = set()  # (group, program)

    def run(self, sets, after_each):
        """Races over each of the sets; calls after_each when one is done, so that what is known can be kept."""
        www = self._scratch / "www"
        www.mkdir()
        with Server(www) as server:
            for chosen in sets:
                self._run_set(chosen, server)
                after_each()

    def _run_set(self, chosen, server):
        trees_room = self._scratch / "trees"
        trees = chosen.make(trees_room)
        rounds = min(self._rounds, chosen.rounds)
        heats = [(LOOPBACK, number) for number in range(1, rounds + 1)]
        if chosen.group == "real":
            heats += [(speed, 1) for speed in self._lines]
        # Where there is one heat, nothing has to be paired, and one program after the other needs less room.
        still_in = [kind for kind in self._kinds if (chosen.group, kind.key) not in self._gave_up]
        self.left_out += [{"set": self._pair(chosen, trees, 1, 2), "program": kind.key}
                          for kind in self._kinds if kind not in still_in]
        for kinds in [still_in] if len(heats) > 1 else [[kind] for kind in still_in]:
            self._run_programs(chosen, kinds, trees, heats, server)
        shutil.rmtree(trees_room)

    def _run_programs(self, chosen, kinds, trees, heats, server):
        """Publishes version after version; after each, devices with every older one are updated."""
        stalls = [Stall(kind, self._scratch, server, chosen.name, self._patience_seconds) for kind in kinds]
        first = self._pair(chosen, trees, 1, 2)
        for stall in list(stalls):
            if self._publish(chosen, first, stalls, stall, 1, trees[0]):
                self._note(first, stall, "install", (LOOPBACK, 1), stall.install(trees[0]))
        for new in range(2, len(trees) + 1):
            pair = self._pair(chosen, trees, new - 1, new)
            for stall in list(stalls):
                self._publish(chosen, pair, stalls, stall, new, trees[new - 1])
            for old in range(new - 1, 0, -1):
                pair = self._pair(chosen, trees, old, new)
                for heat in heats:
                    is_last = len(trees) == 2 and heat == heats[-1]
                    for stall in stalls:
                        update = stall.last_update if is_last else stall.update
                        self._note(pair, stall, "update", heat, update(old, new, heat[0], trees[new - 1]))
        for stall in stalls:
            stall.remove()

    def _publish(self, chosen, pair, stalls, stall, number, tree):
        """Whether it was published; a program that takes too long for it leaves the race for this set and larger ones."""
        try:
            cost = stall.publish(number, tree)
        except TooLong:
            self._tell(f"  {stall.program.label:24} is left out: publishing takes longer than {self._patience_seconds} s")
            self.left_out.append({"set": pair, "program": stall.program.key})
            if chosen.group != "real":
                self._gave_up.add((chosen.group, stall.program.key))
            stall.remove()
            stalls.remove(stall)
            return False
        self._note(pair, stall, "first" if number == 1 else "publish", (LOOPBACK, 1),
                   {**cost, "stored_bytes": stall.stored_bytes()})
        return True

    def _pair(self, chosen, trees, old, new):
        """The name of an update between two versions of a set, which is noted when it is new."""
        name, title = chosen.name, chosen.title
        if chosen.group == "real":
            name += f"-{chosen.labels[old - 1]}-{chosen.labels[new - 1]}"
            title += ", " + " → ".join(chosen.labels[number - 1] for number in (old, new))
            if new - old > 1:
                title += f" ({new - old - 1} missed)"
        if name not in (one["name"] for one in self.sets):
            self.sets.append({"name": name, "title": title, "group": chosen.group, "measure": chosen.measure,
                              "missed": new - old - 1, "versions": [tree_size(trees[at - 1]) for at in (old, new)]})
            self._tell(title)
        return name

    def _note(self, pair, stall, phase, heat, cost):
        self.runs.append({"set": pair, "program": stall.program.key, "phase": phase, "line_mbits": heat[0],
                          "round": heat[1], **cost})
        wire = f"{cost['wire_bytes']:>13,} bytes" if "wire_bytes" in cost else " " * 19
        line = f"{heat[0]} Mbit/s" if heat[0] else "loopback"
        self._tell(f"  {stall.program.label:24} {phase:8} {line:11} {wire} {cost['seconds']:8.2f} s "
                   f"{cost['peak_kib'] / 1024:7.1f} MiB")


def first_line(*command):
    found = subprocess.run(command, capture_output=True, text=True)
    return (found.stdout + found.stderr).strip()


def versions(kinds, build):
    """Which program is of which version, and from which commit of this project the tools were built."""
    asked = {"wget": ("wget", "--version"), "ostree": ("ostree", "--version"), "casync": ("casync", "--version"),
             "zsync": ("zsync", "-V"), "zstd": ("zstd", "--version"), "xdelta3": ("xdelta3", "-V")}
    needed = {command for kind in kinds for command in kind.needs}
    found = {}
    for name, command in asked.items():
        if name in needed:
            number = re.search(r"\d+(\.\d+)*", first_line(*command).replace("64-bit", ""))
            found[name] = number.group(0) if number else "unknown"
    if contestants.Ours in kinds:
        text = first_line(build / "stage/usr/bin/tolmdbpub", "--version")
        found["tolmdbud"] = re.search(r"\d+(\.\d+)*\S*", text).group(0)
    return dict(sorted(found.items()))


class Others:
    """How much of the processors' time others have taken since it was made: figures of a busy machine are worth less."""

    def __init__(self):
        self._begin = self._now()

    def share(self):
        elapsed, busy, own = (now - before for now, before in zip(self._now(), self._begin))
        return max(0.0, busy - own) / (elapsed * os.cpu_count())

    @staticmethod
    def _now():
        user, nice, system, _, _, irq, soft_irq = (int(word) for word in Path("/proc/stat").read_text().split()[1:8])
        busy = (user + nice + system + irq + soft_irq) / os.sysconf("SC_CLK_TCK")
        own = sum(usage.ru_utime + usage.ru_stime for usage in map(
            resource.getrusage, (resource.RUSAGE_SELF, resource.RUSAGE_CHILDREN)))
        return time.monotonic(), busy, own


def machine(scratch):
    """The machine in general words: enough to judge figures, nothing that names it."""
    processor = Path("/proc/cpuinfo").read_text()
    memory = int(re.search(r"MemTotal:\s+(\d+)", Path("/proc/meminfo").read_text()).group(1)) / (1 << 20)
    kind = "a virtual machine" if re.search(r"^flags.*\bhypervisor\b", processor, re.M) else "a machine"
    system = re.search(r'^PRETTY_NAME="(.*)"', Path("/etc/os-release").read_text(), re.M).group(1)
    volume = first_line("findmnt", "-n", "-o", "FSTYPE", "--target", str(scratch))
    return {"kind": kind, "processors": os.cpu_count(), "architecture": platform.machine(), "memory_gib": round(memory),
            "system": system, "file_system": volume}


def write_results(path, about, race):
    """One line for each set and each run, so that differences between two files can be read."""
    lines = [f' "about": {json.dumps(about, ensure_ascii=False)},', ' "sets": [',
             ",\n".join("  " + json.dumps(one, ensure_ascii=False) for one in race.sets), " ],",
             f' "left_out": {json.dumps(race.left_out)},', ' "runs": [',
             ",\n".join("  " + json.dumps(one) for one in race.runs), " ]"]
    path.parent.mkdir(parents=True, exist_ok=True)
    text = "{\n" + "\n".join(lines) + "\n}\n"
    with tempfile.NamedTemporaryFile("w", dir=path.parent, prefix=path.name, delete=False) as file:
        file.write(text)
    os.chmod(file.name, 0o644)
    os.replace(file.name, path)


def check_machine(kinds, build):
    """Raises with what to install or to build."""
    if not (build / "bin/tolm-private-root").exists() or not (build / "stage/usr/bin/tolmdbpub").exists():
        raise RaceError(f"{build} holds no built programs; build them, or name another build by --build:\n"
                        "  cmake --preset release && cmake --build --preset release --target stage tolm-private-root")
    missing = {command: packages for kind in kinds for command, packages in zip(kind.needs, kind.packages * 2)
               if shutil.which(command) is None}
    if not Path("/usr/bin/time").exists():
        missing["/usr/bin/time"] = "time"
    if shutil.which("sqlite3") is None:
        missing["sqlite3"] = "sqlite3"
    if missing:
        raise RaceError(f"these programs are missing: {' '.join(missing)}\n"
                        f"  apt-get install {' '.join(sorted(set(missing.values())))}")


def today():
    return datetime.date.today().isoformat()
