#!/usr/bin/env python3
"""The part of packaging/power-cut-test that works with machines; that one calls it."""

import argparse
import ast
import collections
import concurrent.futures
import glob
import mmap
import os
import random
import re
import shutil
import sys
import threading
import time

sys.dont_write_bytecode = True
HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)

import judge  # noqa: E402
import table  # noqa: E402
import volatile  # noqa: E402
from image import Image  # noqa: E402
from machine import FORMATS, Machine, MachineError, check_disk, copy_disk, make_disk, remove  # noqa: E402

DISKS = ("state", "volume1", "volume2")
# How long the kernel may keep what it was not asked to write, in hundredths of a second; the first is its own default.
FLUSHES = (3000, 20, 100)
# The machine ends at the moment, also one whose disks lose what they were not told to keep, or are slow.
CUTS = ("power", "volatile", "slow")
# What a disk becomes at the moment, and what it becomes a little later.
BAD_DISKS = {
    "volume-writes": ("volume1", "no-writes"),
    "state-writes": ("state", "no-writes"),
    "volume-dead": ("volume1", "dead"),
    "state-dead": ("state", "dead"),
    "volume-returns": ("volume1", "dead", "good"),
}
FAULTS = CUTS + tuple(BAD_DISKS)
# One try in so many begins with a start of the machine from nothing, the others with one that was stored before it had seen
# the disks.
COLD_EVERY = 10
# The moments of cuts go on for so much longer than the operation.
LONGER = 1.1
# A disk that returns does so after such a share of the operation.
AWAY = 0.1
# Seconds. An operation that goes on for so long after a disk has failed hangs.
HANGS = 300

Try = collections.namedtuple("Try", "file_system phase fault seed number moment flush how cold")


# seconds: by the clock; work: seconds of a processor of this host.
Length = collections.namedtuple("Length", "seconds work")


# said: all of what the operation wrote; disk: when a bad one failed, "under way" or "after the end"; wrong: of the operation.
Run = collections.namedtuple("Run", "said disk wrong")


class Bench:
    """Where tries run: the image, what versions hold, the directories."""

    def __init__(self, arguments):
        self.image = Image(arguments.cache, arguments.work, arguments.build, arguments.world, HERE)
        self.work = arguments.work
        self.failures = arguments.failures
        self.world = arguments.world
        self.kept_world = os.path.join(self.failures, f"world-{int(time.time())}")
        self.keep = arguments.keep
        self.cold = arguments.cold
        self.expected = {}
        for path in glob.glob(os.path.join(arguments.world, "expected", "*")):
            with open(path, encoding="utf-8") as file:
                self.expected[os.path.basename(path)] = file.read().splitlines()
        with open(os.path.join(arguments.world, "block"), "rb") as file:
            self.block = file.read()
        self._started = None
        self._lock = threading.Lock()

    def directory(self, *names):
        path = os.path.join(self.work, *names)
        remove(path)
        os.makedirs(path)
        return path

    def started(self):
        """A machine that has started and has never looked at its disks, stored; made once."""
        with self._lock:
            if not self._started:
                directory = self.directory("started")
                disks = disks_in(directory)
                for disk in disks:
                    make_disk(disk, "ext4")
                with Machine(self.image, disks, directory) as machine:
                    machine.wait_until_ready()
                    machine.store(os.path.join(directory, "memory"))
                self._started = os.path.join(directory, "memory")
            return self._started


def disks_in(directory):
    return [os.path.join(directory, disk) for disk in DISKS]


def copy_disks(source, target):
    for one, other in zip(disks_in(source), disks_in(target)):
        copy_disk(one, other)


def start(bench, directory, cold):
    """A machine with the disks of the directory that has just been started."""
    if cold or bench.cold:
        machine = Machine(bench.image, disks_in(directory), directory)
        machine.wait_until_ready()
        return machine
    return Machine(bench.image, disks_in(directory), directory, bench.started())


def prepare(bench, file_system, phase):
    """A machine in the moment before the operation, in a directory of its own, and how long it lasts."""
    directory = bench.directory(f"{file_system}-{phase}")
    for disk in disks_in(directory):
        make_disk(disk, file_system)
    with start(bench, directory, False) as machine:
        machine.need(judge.PHASES[phase].start(file_system))
        machine.need(judge.PHASES[phase].prepare())
        machine.store(os.path.join(directory, "memory"))
    return directory, measure(bench, directory, judge.PHASES[phase])


def measure(bench, prepared, phase):
    """The length of an undisturbed run, which is looked at as those that are cut are in the end."""
    directory = bench.directory(os.path.basename(prepared) + "-measured")
    copy_disks(prepared, directory)
    with Machine(bench.image, disks_in(directory), directory, os.path.join(prepared, "memory")) as machine:
        machine.send(f"operate {phase.name}")
        machine.wait_for(rb"@begin\n")
        begin, spent = time.monotonic(), machine.spent()
        text, match = machine.wait_for(rb"\n@status (\d+)\n")
        length = Length(time.monotonic() - begin, machine.spent() - spent)
        if match.group(1) != b"0" or not re.search(phase.road, text):
            raise MachineError(f"{phase.name} is not what it should be: {text}")
        if phase.name in ("force", "signed"):
            machine.need(phase.serve())
            machine.need(phase.recover("person"))
        wrong = phase.outcome(phase.read(machine.need(phase.look())), bench.expected)
        if wrong:
            raise MachineError(f"{phase.name} is wrong without a cut: {wrong}\n{text}")
    remove(directory)
    return length


def moments(file_system, phase, fault, seed, count):
    """Tries at moments that are spread evenly, each at random within its part; as shares of the whole length."""
    chance = random.Random(f"{seed} {file_system} {phase} {fault}")
    longer = LONGER if fault in CUTS else 1
    for number in range(count):
        moment = (number + chance.random()) / count * longer
        yield Try(file_system, phase, fault, seed, number, moment, FLUSHES[chance.randrange(len(FLUSHES))],
                  "timer" if chance.random() < 0.5 else "person", chance.randrange(COLD_EVERY) == 0)


def cut(bench, prepared, length, one, directory):
    """Runs the operation until the moment, or to its end on a disk that fails at the moment."""
    copy_disks(prepared, directory)
    stored = os.path.join(prepared, "memory")
    with Machine(bench.image, disks_in(directory), directory, stored, one.fault == "volatile") as machine:
        machine.need(f"flush_soon {one.flush}")
        if one.fault in BAD_DISKS:
            return fail(machine, one, length)
        if one.fault == "slow":
            machine.need("become state slow && become volume1 slow")
        machine.send(f"operate {one.phase}")
        machine.wait_for(rb"@begin\n")
        if judge.PHASES[one.phase].waits:
            time.sleep(one.moment * length.seconds)
        else:
            work(machine, one.moment * length.work)
        machine.cut()
    if one.fault == "volatile":
        lose(prepared, directory, one)
    return Run(machine.received(), "", [])


def lose(prepared, directory, one):
    """Makes the disks what they are when they lose a part of what they have confirmed."""
    chance = random.Random(repr(tuple(one)))
    copy_disks(prepared, directory)
    for number, disk in enumerate(disks_in(directory)):
        log = os.path.join(directory, f"log{number}")
        volatile.replay(log, disk, chance)
        os.remove(log)


def work(machine, seconds):
    """Lets it use so much of a processor, unless it has ended what it does."""
    begin = machine.spent()
    while machine.spent() < begin + seconds and not machine.is_done():
        time.sleep(0.002)


def fail(machine, one, length):
    """As cut(), but a disk fails at the moment; the power goes when the operation has ended, however it does."""
    disk, first, *later = BAD_DISKS[one.fault]
    machine.need(f"load {disk} {first}")
    machine.send(f"fail_when_told {disk} {first} {' '.join(later)} & operate {one.phase}")
    begun, _ = machine.wait_for(rb"@begin\n")
    for share in (one.moment,) + (AWAY,) * len(later):
        work(machine, share * length.work)
        if not machine.is_done():
            machine.send("")
    wrong = []
    try:
        said = begun + machine.wait_for(rb"\n@status (\d+)\n", HANGS)[0]
    except MachineError:
        said = begun + waiting(machine)
        wrong = [f"it has not ended within {HANGS} s"]
    # The kernel may have more to write than the operation has waited for.
    time.sleep(1)
    machine.cut()
    is_under_way = f"@became {first}\n" in said
    if is_under_way and not wrong and "@done" not in said and not judge.reason(said):
        wrong = [f"it failed and did not say why: {said}"]
    return Run(said, "under way" if is_under_way else "after the end", wrong)


def waiting(machine):
    """All that it has said, and what its programs are at."""
    machine.send("")
    try:
        return machine.wait_for(rb"\n@told\n", HANGS)[0]
    except MachineError:
        return machine.received()


def run_unreadable(bench, results, file_system, seed):
    """Part of an installed file cannot be read any more."""
    prepared = bench.directory(f"{file_system}-unreadable")
    for disk in disks_in(prepared):
        make_disk(disk, file_system)
    phase = judge.PHASES["unreadable"]
    one = Try(file_system, phase.name, "unreadable", seed, 0, 0, FLUSHES[0], "person", False)
    begin = time.monotonic()
    with start(bench, prepared, False) as machine:
        machine.need(phase.start(file_system))
        machine.need(phase.prepare())
        machine.need(f"bad_sectors='{sectors_of(disks_in(prepared)[1], bench.block)}'")
        said = machine.run(f"operate {phase.name}")[1]
        wrong = [] if "@done" in said else [said]
        wrong += phase.outcome(phase.read(machine.need(phase.look())), bench.expected)
    found, more = check(bench, one, prepared, said)
    results.add(table.Result(one, time.monotonic() - begin, "@done" in said, found, wrong + more, "before", judge.last_words(said)))
    remove(prepared)


def sectors_of(disk, block):
    """Where these bytes of a file lie; also where they have lain before, in copies that are gone."""
    places = []
    with open(disk, "rb") as file, mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ) as whole:
        place = whole.find(block)
        while place >= 0:
            places.append(place)
            place = whole.find(block, place + 1)
    # Within a package they lie anywhere.
    aligned = [str(place // 512) for place in places if place % 4096 == 0]
    if not aligned:
        raise MachineError(f"the block of the file is not on {disk}")
    return " ".join(aligned)


def check(bench, one, directory, said):
    """What is found on the disks after the cut: the state in words, and what is wrong."""
    phase, wrong = judge.PHASES[one.phase], []
    with start(bench, directory, one.cold) as machine:
        machine.need(phase.start(one.file_system))
        status, text = machine.run(phase.serve())
        if status != 0:
            wrong.append(f"the start-up step ended with {status}: {text}")
        before = phase.read(machine.need(phase.look()))
        wrong += phase.claims(before, bench.expected, said)
        status, text = machine.run(phase.recover(one.how))
        if status != 0:
            wrong.append(f"the run ended with {status}: {text}")
        after = phase.read(machine.need(phase.look()))
        wrong += phase.outcome(after, bench.expected)
        if wrong:
            write(directory, "log", f"{text}\n{machine.run('cat /run/log')[1]}")
            write(directory, "looks", f"{before.sections}\n{after.sections}")
        machine.need(phase.stop())
    for disk in disks_in(directory):
        found = check_disk(disk, one.file_system)
        if found:
            wrong.append(f"the check of {os.path.basename(disk)}: {found}")
    return before.in_words(), wrong


def run_try(bench, prepared, length, one):
    """A line for the table of results."""
    directory = bench.directory(os.path.basename(prepared) + "-try")
    begin = time.monotonic()
    run = cut(bench, prepared, length, one, directory)
    as_cut = bench.directory(os.path.basename(prepared) + "-cut")
    copy_disks(directory, as_cut)
    write(as_cut, "said", run.said)
    write(as_cut, "try", repr(tuple(one)))
    try:
        found, wrong = check(bench, one, directory, run.said)
    except (MachineError, ValueError) as error:
        found, wrong = "nothing", [f"the machine: {error}"]
    wrong = run.wrong + wrong
    if wrong or bench.keep:
        keep(bench, one, as_cut, directory, wrong)
    return table.Result(one, time.monotonic() - begin, "@done" in run.said, found, wrong, run.disk, judge.last_words(run.said))


def keep(bench, one, as_cut, directory, wrong):
    """The disks as they were at the cut, from which --again goes on."""
    kept = os.path.join(bench.failures, f"{one.file_system}-{one.phase}-{one.fault}-{one.seed}-{one.number}")
    remove(kept)
    os.makedirs(kept)
    copy_disks(as_cut, kept)
    keep_world(bench, kept)
    for source, name in ((as_cut, "said"), (as_cut, "try"), (directory, "log"), (directory, "looks"), (directory, "console.log")):
        if os.path.exists(os.path.join(source, name)):
            shutil.copy(os.path.join(source, name), kept)
    write(kept, "wrong", "\n".join(wrong) + "\n")


def keep_world(bench, kept):
    """What was published, once for each call: a device believes nothing that was signed with other keys."""
    if not os.path.exists(bench.kept_world):
        shutil.copytree(bench.world, bench.kept_world, symlinks=True)
    os.symlink(os.path.join("..", os.path.basename(bench.kept_world)), os.path.join(kept, "world"))


def write(directory, name, text):
    with open(os.path.join(directory, name), "w", encoding="utf-8") as file:
        file.write(text)


def run_phase(bench, arguments, results, file_system, phase):
    if phase == "unreadable":
        run_unreadable(bench, results, file_system, arguments.seed)
        return
    prepared, length = prepare(bench, file_system, phase)
    print(f"{file_system} {phase}: lasts {length.seconds:.2f} s, {length.work:.2f} s of a processor", flush=True)
    for fault in arguments.fault or ["power"]:
        for one in moments(file_system, phase, fault, arguments.seed, arguments.cuts):
            if arguments.only is None or one.number == arguments.only:
                results.add(run_try(bench, prepared, length, one))
    for name in (prepared, prepared + "-try", prepared + "-cut"):
        remove(name)


def again(bench, directory):
    """Looks once more at disks that were kept."""
    with open(os.path.join(directory, "try"), encoding="utf-8") as file:
        one = Try(*ast.literal_eval(file.read()))
    with open(os.path.join(directory, "said"), encoding="utf-8") as file:
        said = file.read()
    copy = bench.directory("again")
    copy_disks(directory, copy)
    found, wrong = check(bench, one, copy, said)
    print(one, found, *wrong, sep="\n")
    for name in ("log", "looks"):
        if os.path.exists(os.path.join(copy, name)):
            shutil.copy(os.path.join(copy, name), directory)
    return 1 if wrong else 0


def parse():
    parser = argparse.ArgumentParser(prog="packaging/power-cut-test", description=__doc__)
    parser.add_argument("--cuts", type=int, default=28, help="for each phase and file system")
    parser.add_argument("--fs", choices=sorted(FORMATS), action="append", help="all three by default")
    parser.add_argument("--phase", choices=list(judge.PHASES), action="append", help="all of devices by default")
    parser.add_argument("--publisher", action="store_true", help="all of the publisher, in place of those of devices")
    parser.add_argument("--fault", choices=FAULTS, action="append", help="what happens at the moment; power by default")
    parser.add_argument("--seed", type=int, default=None, help="of the moments; a new one by default")
    parser.add_argument("--only", type=int, help="only the try of that number")
    parser.add_argument("--cold", action="store_true", help="start the machine from nothing in every try")
    parser.add_argument("--keep", action="store_true", help="keep the disks of every try, not of failures alone")
    parser.add_argument("--jobs", type=int, default=1, help="machines at the same time")
    parser.add_argument("--again", metavar="DIRECTORY", help="look once more at the disks of a failure")
    for name in ("cache", "build", "world", "work", "failures", "results"):
        parser.add_argument("--" + name, required=True, help=argparse.SUPPRESS)
    arguments = parser.parse_args()
    arguments.seed = random.randrange(10**6) if arguments.seed is None else arguments.seed
    return arguments


def phases_of(arguments):
    return arguments.phase or (judge.PUBLISHER_PHASES if arguments.publisher else judge.DEVICE_PHASES)


def main():
    arguments = parse()
    bench = Bench(arguments)
    if arguments.again:
        return again(bench, arguments.again)
    print(f"seed {arguments.seed}", flush=True)
    results = table.Results(arguments.results)
    bench.started()
    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        tasks = [pool.submit(run_phase, bench, arguments, results, file_system, phase)
                 for file_system in arguments.fs or ("ext4", "xfs", "btrfs")
                 for phase in phases_of(arguments)]  # yapf: disable
        broken = 0
        for task in concurrent.futures.as_completed(tasks):
            if task.exception():
                broken += 1
                print(f"cannot go on: {task.exception()!r}", file=sys.stderr, flush=True)
    print("\n".join(results.table()))
    return 1 if broken or results.failed else 0


if __name__ == "__main__":
    sys.exit(main())
