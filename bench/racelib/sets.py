"""The data sets of the race: databases from Debian packages, and generated ones that grow."""

import dataclasses
import os
import random
import re
import shutil
import subprocess
from pathlib import Path

SUITES = ("bookworm", "trixie", "sid")
# Where the files of a package's database lie.
PACKAGES = {
    "proj-data": "usr/share/proj",
    "geoip-database": "usr/share/GeoIP",
    "ieee-data": "usr/share/ieee-data",
}
UNCHANGED = {("geoip-database", "bookworm")}  # The next suite has the same files, which is no race.
MIB = 1 << 20


@dataclasses.dataclass
class Set:
    name: str
    title: str
    labels: tuple  # One for each version.
    group: str  # "real", "size" or "count"
    measure: int  # Size in MiB, or number of files, of a generated set.
    make: object  # A function that makes the trees below a directory and returns them, oldest first.
    rounds: int  # At most so many.


def real_sets(names, suites, data):
    def maker(name, suites):
        return lambda directory: [copied(tree_of(data, suite, name), directory / suite) for suite in suites]
    found = []
    for name in names:
        changed = tuple(suite for suite in suites if (name, suite) not in UNCHANGED)
        found.append(Set(name, name, changed, "real", 0, maker(name, changed), 1000))
    return found


def size_sets(sizes_mib):
    def maker(size):
        return lambda directory: one_large_file(directory, size)
    return [Set(f"size-{size}", f"one file of {size:,} MiB", ("1", "2"), "size", size, maker(size), 3 if size <= 256 else 1)
            for size in sizes_mib]


def count_sets(counts):
    def maker(count):
        return lambda directory: many_small_files(directory, count)
    return [Set(f"files-{count}", f"{count:,} files of 250 bytes", ("1", "2"), "count", count, maker(count),
                3 if count <= 10000 else 1) for count in counts]


def given_set(text):
    """NAME=DIRECTORY,DIRECTORY...: trees that somebody has."""
    name, _, trees = text.partition("=")
    trees = [Path(tree).resolve() for tree in trees.split(",") if tree]
    if not re.fullmatch("[a-z][a-z0-9-]*", name) or len(trees) < 2:
        raise ValueError(f"--set {text}: NAME=DIRECTORY,DIRECTORY... with at least two versions is expected")
    for tree in trees:
        if not tree.is_dir():
            raise ValueError(f"--set {text}: {tree} is no directory")
    return Set(name, name, tuple(str(number + 1) for number in range(len(trees))), "real", 0,
               lambda directory: [copied(tree, directory / str(number)) for number, tree in enumerate(trees)], 1000)


def tree_of(data, suite, name):
    """Prepared: DATA/SUITE/x/PACKAGE, as dpkg-deb -x leaves it."""
    tree = data / suite / "x" / name / PACKAGES[name]
    if not tree.is_dir():
        raise FileNotFoundError(f"{tree} is missing; bench/race fetch brings it")
    return tree


def copied(source, target):
    """Only files and directories; what links lead to is copied, and those that lead nowhere are left out."""
    shutil.copytree(source, target, ignore_dangling_symlinks=True)
    return target


def fetch(data):
    """Downloads and unpacks every package of every suite that is not there yet."""
    for suite in SUITES:
        missing = [name for name in PACKAGES if not (data / suite / "x" / name).is_dir()]
        if missing:
            room = data / suite / "apt"
            try:
                fetch_packages(suite, missing, room)
                for name in missing:
                    unpack(next(room.glob(f"{name}_*.deb")), data / suite / "x" / name)
            finally:
                shutil.rmtree(room, ignore_errors=True)


def debian_mirror():
    """TOLM_DEBIAN_MIRROR; by default where this machine's apt has Debian from."""
    told = os.environ.get("TOLM_DEBIAN_MIRROR")
    if told:
        return told
    known = subprocess.run(["apt-get", "indextargets", "--format", "$(LABEL) $(REPO_URI)"], check=True,
                           capture_output=True, text=True).stdout
    for line in known.splitlines():
        label, _, uri = line.partition(" ")
        if label == "Debian":
            return uri
    raise ValueError("apt here has no Debian; say TOLM_DEBIAN_MIRROR=...")


def fetch_packages(suite, names, room):
    """By apt with sources of its own, so that nothing of the machine's is touched."""
    for part in ("lists/partial", "cache/archives/partial"):
        (room / part).mkdir(parents=True, exist_ok=True)
    (room / "sources.list").write_text(f"deb [trusted=yes] {debian_mirror()} {suite} main\n")
    (room / "status").write_text("")
    options = [f"-o=Dir::Etc::sourcelist={room}/sources.list", "-o=Dir::Etc::sourceparts=/dev/null",
               f"-o=Dir::State::lists={room}/lists", f"-o=Dir::State::status={room}/status",
               f"-o=Dir::Cache={room}/cache", "-o=APT::Sandbox::User=root", "-qq"]
    subprocess.run(["apt-get", *options, "update"], check=True)
    subprocess.run(["apt-get", *options, "download", *names], check=True, cwd=room)


def unpack(package, target):
    """What is cut short never stands under the right name."""
    half = target.with_name(target.name + ".half")
    shutil.rmtree(half, ignore_errors=True)
    half.mkdir(parents=True)
    subprocess.run(["dpkg-deb", "-x", package, half], check=True)
    half.rename(target)


def one_large_file(directory, size_mib):
    """Random bytes; then one per cent of them anew, in runs of 1 KiB at random places."""
    old, new = directory / "1", directory / "2"
    old.mkdir(parents=True)
    new.mkdir()
    source = random.Random(size_mib)
    with open(old / "data.bin", "wb") as file:
        for _ in range(size_mib):
            file.write(source.randbytes(MIB))
    shutil.copyfile(old / "data.bin", new / "data.bin")
    with open(new / "data.bin", "r+b") as file:
        for _ in range(size_mib * MIB // 100 // 1024):
            file.seek(source.randrange(size_mib * MIB - 1024))
            file.write(source.randbytes(1024))
    return [old, new]


def many_small_files(directory, count):
    """Lines of text, a thousand files in a directory; then 16 characters anew in every hundredth file."""
    old, new = directory / "1", directory / "2"
    source = random.Random(count)
    for number in range(count):
        folder = f"{number // 1000:03}"
        text = f"record {number:09}\n" + "".join(f"{source.getrandbits(112):028x}\n" for _ in range(8))[:233]
        for tree in (old, new):
            if number % 1000 == 0:
                os.makedirs(tree / folder)
            if tree is new and number % 100 == 50:
                text = text[:100] + f"{source.getrandbits(64):016x}" + text[116:]
            (tree / folder / f"{number:09}.txt").write_text(text)
    return [old, new]
