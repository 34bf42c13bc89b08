"""What the machine boots: Debian's kernel, and a root of this host's programs and ours, which it cannot change."""

import glob
import os
import re
import shutil
import subprocess

KERNEL_PACKAGE = "linux-image-cloud-amd64"
MODULES = ["virtio_pci", "virtio_blk", "squashfs", "overlay", "xfs", "btrfs", "dm-mod", "dm-flakey", "dm-delay"]
PROGRAMS = """
    bash busybox cat cp cmp cut date dd diff dmsetup find grep head join ln ls mkdir mount mv od openssl pgrep pkill printf
    rclone readlink rm rmdir sed seq setpriv setsid sha384sum sleep sort sqlite3 stat stty sync tail timeout touch tr truncate
    umount uniq wc wget xargs xdelta3
""".split()
# What busybox does for us where this host has a program of another name or none.
BUSYBOX = ["httpd", "ip", "losetup", "poweroff", "sh", "syslogd"]


class Image:
    """kernel, start and root: paths of the files that a machine is started with.

    start is a root in memory that does nothing but to go to the other one. The kernel is kept in
    cache, the rest is made anew in work.
    """

    def __init__(self, cache, work, build, world, here):
        self.kernel, modules = _kernel(cache)
        self.start = os.path.join(work, "start.cpio")
        self.root = os.path.join(work, "root.squashfs")
        tree = os.path.join(work, "root")
        shutil.rmtree(tree, ignore_errors=True)
        _make_root(tree, os.path.join(build, "stage"))
        _add_world(tree, world)
        shutil.copytree(here, os.path.join(tree, "power-cut"), ignore=shutil.ignore_patterns("__pycache__"))
        _pack_root(tree, self.root)
        shutil.rmtree(tree)
        _make_start(tree, modules, os.path.join(here, "start"))
        _pack_start(tree, self.start)
        shutil.rmtree(tree)


def _kernel(cache):
    """The kernel's file and the directory of its modules; fetched and unpacked once, never installed."""
    found = glob.glob(os.path.join(cache, "kernel/boot/vmlinuz-*"))
    if not found:
        unpacked = os.path.join(cache, "kernel.new")
        shutil.rmtree(unpacked, ignore_errors=True)
        os.makedirs(unpacked)
        depends = subprocess.run(["apt-cache", "depends", KERNEL_PACKAGE], check=True, text=True,
                                 stdout=subprocess.PIPE).stdout
        package = re.search(r"Depends: (linux-image-\S+)", depends).group(1)
        subprocess.run(["apt-get", "-q", "download", package], cwd=unpacked, check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        package_file, = glob.glob(os.path.join(unpacked, "*.deb"))
        subprocess.run(["dpkg-deb", "-x", package_file, unpacked], check=True)
        os.remove(package_file)
        os.rename(unpacked, os.path.join(cache, "kernel"))
        found = glob.glob(os.path.join(cache, "kernel/boot/vmlinuz-*"))
    version = os.path.basename(found[0])[len("vmlinuz-"):]
    if not os.path.exists(os.path.join(cache, "kernel/lib/modules", version, "modules.dep")):
        subprocess.run(["depmod", "-b", os.path.join(cache, "kernel"), version], check=True)
    return found[0], (os.path.join(cache, "kernel"), version)


def _make_root(tree, stage):
    for name in ("bin", "sbin", "lib", "lib64"):
        os.makedirs(os.path.join(tree, "usr", name))
        os.symlink("usr/" + name, os.path.join(tree, name))
    for name in "dev etc proc root run srv state sys tmp usr/tolm/etc var volume1 volume2".split():
        os.makedirs(os.path.join(tree, name))
    shutil.copytree(os.path.join(stage, "usr"), os.path.join(tree, "usr"), symlinks=True, dirs_exist_ok=True,
                    ignore=shutil.ignore_patterns("doc", "man", "include", "cmake", "systemd"))
    _write(tree, "etc/passwd", "root:x:0:0:root:/root:/bin/bash\nnobody:x:65534:65534:nobody:/:/bin/false\n")
    _write(tree, "etc/group", "root:x:0:\nnogroup:x:65534:\n")
    _write(tree, "etc/nsswitch.conf", "hosts: files\n")
    _write(tree, "etc/hosts", "127.0.0.1 localhost\n")
    _write(tree, "etc/machine-id", "5e1f0c3a9d8b4f7e8a6b1c2d3e4f5061\n")
    programs = [_program(name) for name in PROGRAMS]
    ours = [os.path.join(tree, "usr/bin/tolmdbud"), os.path.join(tree, "usr/bin/tolmdbpub"),
            os.path.join(tree, "usr/tolm/sbin/tolmdbudvcdiff"),
            os.path.join(tree, "usr/libexec/libtolmdbud/tolmdbud-replay")]
    for name, path in zip(PROGRAMS, programs):
        shutil.copy2(path, os.path.join(tree, "usr/bin", name))
    for name in BUSYBOX:
        os.symlink("busybox", os.path.join(tree, "usr/bin", name))
    for library in _libraries(programs + ours, os.path.join(stage, "usr/lib/x86_64-linux-gnu")):
        target = tree + os.path.realpath(os.path.dirname(library)) + "/" + os.path.basename(library)
        os.makedirs(os.path.dirname(target), exist_ok=True)
        if not os.path.exists(target):
            shutil.copy2(library, target)
    shutil.copytree("/etc/ssl", os.path.join(tree, "etc/ssl"), symlinks=True,
                    ignore=shutil.ignore_patterns("certs", "private"))


def _program(name):
    path = shutil.which(name, path="/usr/bin:/usr/sbin:/bin:/sbin")
    if not path:
        raise FileNotFoundError(f"{name} is not installed")
    return path


def _libraries(programs, ours):
    """All libraries that programs load, as this host resolves them; not those that the stage brings."""
    found = set()
    for program in programs:
        listed = subprocess.run(["ldd", program], check=False, text=True, stdout=subprocess.PIPE,
                                stderr=subprocess.DEVNULL, env={"LD_LIBRARY_PATH": ours}).stdout
        found.update(path for path in re.findall(r"(/\S+) \(0x", listed) if not path.startswith(ours))
    return sorted(found)


def _make_start(tree, modules, first_program):
    for name in ("bin", "dev", "proc", "sys", "new", "root"):
        os.makedirs(os.path.join(tree, name))
    shutil.copy2(_program("busybox"), os.path.join(tree, "bin"))
    os.symlink("busybox", os.path.join(tree, "bin/sh"))
    shutil.copy2(first_program, os.path.join(tree, "init"))
    _add_modules(tree, modules)


def _add_modules(tree, modules):
    """With a list of them in the order in which they can be loaded."""
    base, version = modules
    order = []
    for module in MODULES:
        shown = subprocess.run(["modprobe", "-S", version, "-d", base, "--show-depends", module], check=True, text=True,
                               stdout=subprocess.PIPE).stdout
        for path in re.findall(r"insmod (\S+)", shown):
            # That one needs a processor's instruction that not all have.
            if path not in order and "crc32c-intel" not in path:
                order.append(path)
    directory = os.path.join(tree, "modules")
    os.makedirs(directory)
    for path in order:
        shutil.copy2(path, directory)
    _write(tree, "modules/order", "".join(f"/modules/{os.path.basename(path)}\n" for path in order))


def _add_world(tree, world):
    shutil.copytree(os.path.join(world, "trees"), os.path.join(tree, "world/trees"), symlinks=True)
    shutil.copytree(os.path.join(world, "small"), os.path.join(tree, "world/small"), symlinks=True)
    shutil.copytree(os.path.join(world, "image/usr/tolm/etc/keyring"), os.path.join(tree, "world/keyring"))
    shutil.copytree(os.path.join(world, "image/usr/share"), os.path.join(tree, "usr/share"), dirs_exist_ok=True)


def _pack_root(tree, target):
    """Not compressed: an emulated processor would spend seconds on that."""
    subprocess.run(["mksquashfs", tree, target + ".new", "-quiet", "-no-progress", "-noappend", "-all-root",
                    "-noI", "-noD", "-noF", "-noX"], check=True, stdout=subprocess.DEVNULL)  # yapf: disable
    os.rename(target + ".new", target)


def _pack_start(tree, target):
    with open(target + ".new", "wb") as output:
        names = subprocess.run(["find", ".", "-print0"], cwd=tree, stdout=subprocess.PIPE, check=True).stdout
        subprocess.run(["cpio", "--quiet", "--null", "-o", "-H", "newc", "-R", "0:0"], cwd=tree, input=names,
                       stdout=output, check=True)
    os.rename(target + ".new", target)


def _write(tree, name, text):
    with open(os.path.join(tree, name), "w", encoding="utf-8") as file:
        file.write(text)
