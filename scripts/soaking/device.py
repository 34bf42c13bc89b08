"""The device: where its things stand, how its tool is run, and what is done to it meanwhile."""

import ctypes
import json
import os
import shutil
import signal
import subprocess
import threading
import time

from soaking import files, oracle, preload

TOOL = "tolmdbud"
STATE = "/var/lib/data_update"
CACHE = "/var/cache/data_update"
LOCKS = "/run/data_update"
OVERRIDES = "/usr/tolm/etc/data_update"
DEFAULTS = "/usr/share/data_update"
LONGEST_RUN = 150
VOLUMES = {"/volume1": "/soak/volumes/1", "/volume2": "/soak/volumes/2"}
VOLUME_SIZE = "32m"
MNT_DETACH = 2
PR_SET_CHILD_SUBREAPER = 36

libc = ctypes.CDLL(None, use_errno=True)


def check_call(*command):
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL)


def mount(source, target, kind=None, flags=0, options=None):
    if libc.mount(source.encode(), target.encode(), kind and kind.encode(), flags,
                  options and options.encode()) != 0:
        raise OSError(ctypes.get_errno(), "cannot mount on " + target)


def adopt_orphans():
    libc.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)


class Run:
    """One call of the tool and how it ended."""

    def __init__(self, argv, disturbance):
        self.argv = argv
        self.disturbance = disturbance
        self.process = None
        self.status = None
        self.out = self.err = ""
        self.began = self.ended = 0.0
        self.is_hung = False

    def is_alive(self):
        return self.process is None or self.process.poll() is None

    def was_killed(self):
        return self.status in (-9, 137)


class Device:
    def __init__(self, libraries, databases):
        self.libraries = libraries
        self.databases = databases  # {name: "%VOLUME%" or "%ROOTFS%"}
        self.trace = "/soak/trace"
        self.plugged = set()

    # ---- The ground that it stands on ----

    def make_ground(self):
        mount("tmpfs", "/var", "tmpfs", 0, "size=48m,mode=0755")
        for path in ("/var/lib", "/var/cache", "/var/log", "/var/tmp"):
            os.makedirs(path)
        for target, source in VOLUMES.items():
            os.makedirs(source)
            os.makedirs(target, exist_ok=True)
            mount("tmpfs", source, "tmpfs", 0, "size=%s,mode=0755" % VOLUME_SIZE)
            self.plug(target)
        files.write_bytes("/soak/wgetrc", b"use_server_timestamps = off\nwaitretry = 0\nread_timeout = 1\n")

    def plug(self, volume):
        if volume not in self.plugged:
            mount(VOLUMES[volume], volume, None, 4096)  # MS_BIND
            self.plugged.add(volume)

    def unplug(self, volume):
        if volume in self.plugged:
            self.plugged.discard(volume)
            if libc.umount2(volume.encode(), MNT_DETACH) != 0:
                raise OSError(ctypes.get_errno(), "cannot unplug " + volume)

    @staticmethod
    def fill(where, leave_bytes):
        """Leaves so many bytes of a file system."""
        status = os.statvfs(where)
        size = status.f_bavail * status.f_frsize - leave_bytes
        if size > 0:
            with open(os.path.join(where, ".filler"), "wb") as file:
                os.posix_fallocate(file.fileno(), 0, size)

    @staticmethod
    def make_room():
        for where in list(VOLUMES.values()) + ["/var"]:
            filler = os.path.join(where, ".filler")
            if os.path.exists(filler):
                os.remove(filler)

    # ---- Where its things stand ----

    @staticmethod
    def state_of(name):
        return os.path.join(STATE, name)

    @staticmethod
    def volume():
        for where in (OVERRIDES, DEFAULTS):
            try:
                return json.loads(files.read_bytes(where + "/data_update.conf"))["config"]["cur_volume"]
            except (TypeError, ValueError, KeyError):
                pass
        return ""

    def directory_of(self, name):
        if self.databases[name] == "%ROOTFS%":
            return "/var/db/" + name
        return (self.volume() or "/nowhere") + "/@database/autoupdate/" + name

    def look(self, name):
        return oracle.look_at(self.directory_of(name), self.state_of(name))

    # ---- Running its tool ----

    def environment(self, disturbance):
        variables = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root", "LC_ALL": "C.UTF-8",
                     "SYSTEM_WGETRC": "/soak/wgetrc", "WGETRC": "/usr/share/data_update/wgetrc.empty"}
        preloaded = []
        if {"kill_at", "full_from", "trace"} & set(disturbance):
            preloaded.append("libtolmkillatcall.so")
        if "kill_at" in disturbance:
            variables["TOLM_TEST_KILL_AT"] = str(disturbance["kill_at"])
        if "trace" in disturbance:
            files.write_bytes(self.trace, b"")
            variables["TOLM_TEST_TRACE"] = self.trace
        if "full_from" in disturbance:
            variables["TOLM_TEST_FULL_BELOW"] = disturbance["full_below"]
            variables["TOLM_TEST_FULL_FROM"] = str(disturbance["full_from"])
            variables["TOLM_TEST_FULL_UNTIL"] = str(disturbance["full_from"] + disturbance["full_count"])
        if "clock" in disturbance:
            preloaded.append("libtolmshiftedclock.so")
            variables["TOLM_TEST_TIME"] = str(int(time.time()) + disturbance["clock"])
        if preloaded:
            variables.update(preload(self.libraries, preloaded))
        return variables

    def start(self, run):
        run.began = time.time()
        run.process = subprocess.Popen([TOOL] + run.argv, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                       stderr=subprocess.PIPE, env=self.environment(run.disturbance),
                                       start_new_session=True)
        timers = []
        for what in ("kill_after", "term_after", "int_after", "unplug_after"):
            if what in run.disturbance:
                timers.append(threading.Timer(run.disturbance[what], self.act, (run, what)))
                timers[-1].start()
        return timers

    def act(self, run, what):
        try:
            if what == "unplug_after":
                self.unplug(run.disturbance["unplugged"])
            elif run.is_alive():
                run.process.send_signal({"kill_after": signal.SIGKILL, "term_after": signal.SIGTERM,
                                         "int_after": signal.SIGINT}[what])
        except (OSError, KeyError):
            pass

    @staticmethod
    def finish(run, timers):
        # A program that a killed one has left keeps the pipes open.
        deadline = time.monotonic() + LONGEST_RUN
        readers = []
        texts = {}

        def drain(key, pipe):
            while True:
                try:
                    block = os.read(pipe.fileno(), 65536)
                except (OSError, ValueError):
                    return
                if not block:
                    return
                texts[key] = (texts.get(key, b"") + block)[-20000:]

        for key, pipe in (("out", run.process.stdout), ("err", run.process.stderr)):
            readers.append(threading.Thread(target=drain, args=(key, pipe), daemon=True))
            readers[-1].start()
        try:
            run.process.wait(max(0.1, deadline - time.monotonic()))
        except subprocess.TimeoutExpired:
            run.is_hung = True
            run.process.kill()
            run.process.wait()
        run.ended = time.time()
        for timer in timers:
            timer.cancel()
        for timer in timers:
            timer.join()
        for reader in readers:
            reader.join(0.05 if run.process.returncode < 0 else 5)
        run.status = run.process.returncode
        run.out = texts.get("out", b"").decode("utf-8", "replace")
        run.err = texts.get("err", b"").decode("utf-8", "replace")
        return run

    def run(self, argv, disturbance=None):
        run = Run(argv, disturbance or {})
        return self.finish(run, self.start(run))

    def run_together(self, runs):
        started = [(run, self.start(run)) for run in runs]
        for run, timers in started:
            self.finish(run, timers)

    # ---- What killed runs have left ----

    @staticmethod
    def orphans():
        """Processes that are nobody's children but ours by now."""
        found = []
        try:
            with open("/proc/self/task/%d/children" % os.getpid()) as file:
                found = [int(pid) for pid in file.read().split()]
        except OSError:
            pass
        return found

    def reap(self, kept=()):
        """Collects those that have ended; returns the others."""
        alive = []
        for pid in self.orphans():
            if pid in kept:
                continue
            try:
                if os.waitpid(pid, os.WNOHANG)[0] == 0:
                    alive.append(pid)
            except ChildProcessError:
                pass
        return alive

    def end_orphans(self, kept=()):
        for pid in self.reap(kept):
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        self.wait_for_orphans(5, kept)

    def wait_for_orphans(self, seconds, kept=()):
        """Returns those that do not end."""
        until = time.monotonic() + seconds
        while True:
            alive = self.reap(kept)
            if not alive or time.monotonic() > until:
                return alive
            time.sleep(0.02)


def empty_directory(directory):
    for entry in os.listdir(directory):
        path = os.path.join(directory, entry)
        if os.path.isdir(path) and not os.path.islink(path):
            shutil.rmtree(path)
        else:
            os.remove(path)
