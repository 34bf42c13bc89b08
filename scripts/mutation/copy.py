"""A copy of the working tree that may be changed, its build and its tests."""

import collections
import fcntl
import glob
import json
import os
import shutil
import subprocess

from .places import ROOT, stop

BUILD_SECONDS = 1800
LIST_SECONDS = 120

Test = collections.namedtuple("Test", "number name program cost command")


def run(command, seconds, **more):
    """(exit status or None when it took too long, output)."""
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                               text=True, errors="replace", start_new_session=True, **more)
    try:
        output, _ = process.communicate(timeout=seconds)
        return process.returncode, output
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, 9)
        output, _ = process.communicate()
        return None, output


def same(one, other):
    with open(one, "rb") as left, open(other, "rb") as right:
        return left.read() == right.read()


class Copy:
    """What git knows, below build/NAME/tree. The build is where that of a working tree would be, and with the same
    settings, so that ccache knows what it has built there."""

    def __init__(self, name):
        self.work = os.path.join(ROOT, "build", name)
        self.tree = os.path.join(self.work, "tree")
        self.binaries = os.path.join(self.tree, "build", "release")
        self._lock = None

    def update(self):
        """What is the same as in the working tree stays untouched, so that it is not built again. Ends the program where another
        one uses the copy; while this object lives no other one can."""
        os.makedirs(self.tree, exist_ok=True)
        self._lock = open(os.path.join(self.work, "lock"), "w", encoding="utf-8")
        try:
            fcntl.flock(self._lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            stop(f"{self.work}: another run is at work there")
        names = subprocess.run(["git", "-C", ROOT, "ls-files", "-z", "--cached", "--others",
                                "--exclude-standard"], check=True, stdout=subprocess.PIPE).stdout
        wanted = {name.decode() for name in names.split(b"\0") if name}
        self._remove_all_but(wanted)
        for name in wanted:
            source, target = os.path.join(ROOT, name), os.path.join(self.tree, name)
            if os.path.exists(source) and not (os.path.exists(target) and same(source, target)):
                os.makedirs(os.path.dirname(target), exist_ok=True)
                shutil.copy(source, target)

    def _remove_all_but(self, wanted):
        build = os.path.dirname(self.binaries)
        for directory, directories, files in os.walk(self.tree):
            directories[:] = [name for name in directories if os.path.join(directory, name) != build]
            for file in files:
                path = os.path.join(directory, file)
                if os.path.relpath(path, self.tree) not in wanted:
                    os.remove(path)

    def configure(self, *options):
        cache = ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"] if shutil.which("ccache") else []
        subprocess.run(["cmake", "--preset", "release", "-DTOLM_BUILD_TESTS=ON", *options, *cache],
                       cwd=self.tree, check=True, stdout=subprocess.DEVNULL)

    def build(self, targets, *options):
        """(whether it succeeded, what was said)."""
        status, output = run(["ninja", "-C", self.binaries, *options, *targets], BUILD_SECONDS)
        return status == 0, output if status is not None else output + f"\nnot done in {BUILD_SECONDS} s"

    def targets_of(self, room):
        """Those that build the tests of a room, or with ROOM:PROGRAM a program's."""
        directory, _, program = room.partition(":")
        if not program:
            return ["tests-of-" + room]
        sources = glob.glob(os.path.join(self.tree, "tests", directory, program + "_*test.cpp"))
        return [directory + "_" + os.path.splitext(os.path.basename(source))[0] for source in sorted(sources)]

    def _program_of(self, test):
        """The test program that a test of CTest's is in, if it is in one."""
        return os.path.basename(next((part for part in reversed(test.get("command", []))
                                      if part.startswith(os.path.join(self.binaries, "tests"))), ""))

    def all_tests(self):
        status, output = run(["ctest", "--show-only=json-v1"], LIST_SECONDS, cwd=self.binaries)
        if status != 0:
            stop("ctest does not list its tests:\n" + output[-2000:])
        listed = json.loads(output[output.index("{"):])["tests"]
        return [Test(number, test["name"], self._program_of(test),
                     sum(one["value"] for one in test["properties"] if one["name"] == "COST"), test.get("command", []))
                for number, test in enumerate(listed, 1)]

    def suite(self, rooms, tests):
        """(targets that build them, tests) of the rooms."""
        return ([target for room in rooms for target in self.targets_of(room)],
                [test for room in rooms for test in tests_of(room, tests)])


def tests_of(room, tests):
    directory, _, program = room.partition(":")
    return [test for test in tests if test.name.startswith(directory + ".")
            and (not program or test.program.startswith(f"{directory}_{program}_"))]


def of_the_source(file):
    """Whether a test is in the program that is named like the source."""
    stem = os.path.splitext(os.path.basename(file))[0]
    return lambda test: stem in test.program


def of_its_subject(file):
    """Whether a test soon done is in a program with a word of the source's name in its own."""
    words = [word for word in os.path.splitext(os.path.basename(file))[0].split("_") if word != "test"]
    return lambda test: not test.cost and any(word in test.program for word in words)
