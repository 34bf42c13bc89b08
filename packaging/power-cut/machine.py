"""A virtual machine whose power can be cut."""

import json
import os
import re
import select
import shutil
import socket
import subprocess
import time

MEMORY_MIB = 384
# Seconds. A host that is busy with other things takes long; a machine that hangs takes longer.
PATIENCE = 900


class MachineError(Exception):
    """The machine does not do what it should, which is no finding about what runs in it."""


class Machine:
    """qemu with its own emulation of a processor; lines go to the machine's shell by its serial port.

    disks: images in the order of their names in the machine, /dev/vdb and so on. A write is in its
    image when the machine is told that it is done, so what the machine's kernel has not written yet
    is all that a cut loses. The kernel is told that the disks have a memory of their own, and says
    when that has to be written. With logs, what is asked of the disks is written down in
    directory/log0 and so on.
    """

    def __init__(self, image, disks, directory, incoming=None, logs=False):
        self._directory = directory
        self._monitor_path = os.path.join(directory, "monitor")
        self._received = b""
        arguments = [
            "nice", "-n", "10", "qemu-system-x86_64", "-nodefaults", "-no-user-config",
            "-display", "none", "-machine", "pc", "-accel", "tcg,thread=single", "-cpu", "max",
            "-smp", "1", "-m", str(MEMORY_MIB), "-no-reboot",
            "-kernel", image.kernel, "-initrd", image.start,
            # A busy host may give the emulated timer no turn while the kernel looks whether it ticks.
            "-append", "console=ttyS1 quiet loglevel=4 panic=-1 random.trust_cpu=on mitigations=off nokaslr "
            "no_timer_check",
            "-chardev", "stdio,id=control,signal=off", "-serial", "chardev:control",
            "-serial", "file:" + os.path.join(directory, "console.log"),
            "-qmp", f"unix:{self._monitor_path},server=on,wait=off",
        ]  # yapf: disable
        arguments += ["-drive", f"file={image.root},format=raw,if=none,id=root,read-only=on",
                      "-device", "virtio-blk-pci,drive=root"]
        for number, disk in enumerate(disks):
            image_node = f"image{number}" if logs else f"disk{number}"
            arguments += ["-blockdev", f"driver=file,node-name={image_node},filename={disk}"]
            if logs:
                log = os.path.join(directory, f"log{number}")
                open(log, "wb").close()
                arguments += ["-blockdev", f"driver=file,node-name=log{number},filename={log}", "-blockdev",
                              f"driver=blklogwrites,node-name=disk{number},file={image_node},log=log{number}"]
            arguments += ["-device", f"virtio-blk-pci,drive=disk{number},write-cache=on"]
        if incoming:
            arguments += ["-incoming", f"exec:cat {incoming}"]
        self._errors = open(os.path.join(directory, "qemu.log"), "ab")
        self._process = subprocess.Popen(arguments, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                         stderr=self._errors)
        if incoming:
            self._wait_until_it_goes_on()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.cut()

    def _wait_until_it_goes_on(self):
        """What is sent before is lost."""
        end = time.monotonic() + PATIENCE
        while time.monotonic() < end and self._process.poll() is None:
            if os.path.exists(self._monitor_path):
                try:
                    monitor = _Monitor(self._monitor_path)
                    running = monitor.ask("query-status")["status"] == "running"
                    monitor.close()
                    if running:
                        return
                except (ConnectionError, MachineError, ValueError):
                    pass
            time.sleep(0.05)
        self.cut()
        raise MachineError(f"the stored machine does not go on; see {self._directory}")

    def cut(self):
        """Ends it without notice."""
        if self._process.poll() is None:
            self._process.kill()
        self._process.wait()
        if self._process.stdin.closed:
            return
        self._received += self._process.stdout.read()
        self._process.stdin.close()
        self._process.stdout.close()
        self._errors.close()

    def send(self, line):
        self._process.stdin.write(line.encode() + b"\n")
        self._process.stdin.flush()

    def wait_for(self, pattern, seconds=PATIENCE):
        """What came up to and with the first match of the pattern, as text, and the match."""
        end = time.monotonic() + seconds
        while True:
            match = re.search(pattern, self._received)
            if match:
                text = self._received[:match.end()]
                self._received = self._received[match.end():]
                return text.decode(errors="replace"), match
            left = end - time.monotonic()
            if left <= 0 or not self._read(left):
                raise MachineError(f"no {pattern!r} within {seconds} s; the last that came was "
                                   f"{self._received[-2000:].decode(errors='replace')!r}; see {self._directory}")

    def _read(self, seconds):
        if not select.select([self._process.stdout], [], [], seconds)[0]:
            return False
        data = os.read(self._process.stdout.fileno(), 65536)
        self._received += data
        return bool(data)

    def spent(self):
        """Seconds of this host's processors that it has used: the same for the same work, however busy this host is."""
        with open(f"/proc/{self._process.pid}/stat", encoding="utf-8") as file:
            fields = file.read().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def is_done(self):
        """Whether the line that was sent last has ended."""
        self._read(0)
        return b"\n@status " in self._received

    def received(self):
        """What nobody has waited for yet."""
        return self._received.decode(errors="replace")

    def wait_until_ready(self):
        self.wait_for(rb"@ready\n", PATIENCE)

    def run(self, line, seconds=PATIENCE):
        """Its exit status and what it has written."""
        self.send(line)
        text, match = self.wait_for(rb"\n@status (\d+)\n", seconds)
        return int(match.group(1)), text[:-len(match.group(0))]

    def need(self, line, seconds=PATIENCE):
        status, text = self.run(line, seconds)
        if status != 0:
            raise MachineError(f"{line} ended with {status}: {text}")
        return text

    def store(self, path):
        """Ends it, with its memory and processor in a file with which another one goes on."""
        monitor = _Monitor(self._monitor_path)
        monitor.ask("migrate", uri=f"exec:cat > {path}")
        while True:
            state = monitor.ask("query-migrate").get("status")
            if state == "completed":
                break
            if state == "failed":
                raise MachineError("the machine's state could not be stored")
            time.sleep(0.05)
        monitor.close()
        self.cut()


class _Monitor:
    """qemu's own control of a machine."""

    def __init__(self, path):
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.connect(path)
        self._file = self._socket.makefile("rw")
        self._file.readline()
        self.ask("qmp_capabilities")

    def ask(self, command, **arguments):
        self._file.write(json.dumps({"execute": command, "arguments": arguments}) + "\n")
        self._file.flush()
        while True:
            answer = json.loads(self._file.readline())
            if "error" in answer:
                raise MachineError(f"{command}: {answer['error']}")
            if "return" in answer:
                return answer["return"]

    def close(self):
        self._file.close()
        self._socket.close()


def copy_disk(source, target):
    """Without the holes, so that it costs what is in it."""
    subprocess.run(["cp", "--sparse=always", source, target], check=True)


FORMATS = {
    "ext4": ["mkfs.ext4", "-q", "-F", "-b", "4096"],  # Of a disk so small the default is 1 KiB.
    "xfs": ["mkfs.xfs", "-q", "-f"],
    "btrfs": ["mkfs.btrfs", "-q", "-f"],
}
CHECKS = {
    "ext4": ["e2fsck", "-f", "-n"],
    "xfs": ["xfs_repair", "-n", "-f"],
    "btrfs": ["btrfs", "check", "--readonly", "--force"],
}
DISK_BYTES = 320 << 20  # xfs wants 300 MiB


def make_disk(path, file_system):
    with open(path, "wb") as disk:
        disk.truncate(DISK_BYTES)
    subprocess.run(FORMATS[file_system] + [path], check=True, stdout=subprocess.DEVNULL)


def check_disk(path, file_system):
    """What the file system's own check says of a disk that was unmounted; nothing when all is well."""
    done = subprocess.run(CHECKS[file_system] + [path], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True, check=False)
    return None if done.returncode == 0 else done.stdout


def remove(directory):
    shutil.rmtree(directory, ignore_errors=True)
