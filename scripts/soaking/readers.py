"""Programs that read a database while it is updated, under the readers' lock."""

import ctypes
import fcntl
import os
import threading
import time

from soaking import files


def tree_or_error(directory):
    try:
        return files.tree_of(directory)
    except OSError as error:
        return {"": str(error)}


class Reading:
    """What was seen in one turn."""

    def __init__(self):
        self.first = self.second = {}
        self.was_alive = True
        self.had_mark = False
        self.opened = {}
        self.read_later = {}


class Reader(threading.Thread):
    """Takes the lock by flock or by the library's function, in turns, until it is told to end."""

    may_load_the_library = True

    def __init__(self, name, directory, state, locks, chance, is_alive):
        super().__init__(daemon=True)
        self.database = name
        self.directory = directory
        self.mark = os.path.join(state, "recovery.mark")
        self.lock_file = os.path.join(locks, "using_%s.lock" % name)
        self.is_operation_alive = is_alive
        self.by_library = chance.random() < 0.3 and Reader.may_load_the_library
        self.first_wait = chance.random() * 0.15
        self.hold = chance.choice([0.0, 0.005, 0.03, 0.12])
        self.pause = 0.02 + chance.random() * 0.1
        self.ended = threading.Event()
        self.readings = []
        self.failure = None

    def run(self):
        try:
            time.sleep(self.first_wait)
            while not self.ended.is_set():
                self.turn()
                self.ended.wait(self.pause)
        except Exception as error:  # Told by whoever waits for this thread.
            self.failure = error

    def turn(self):
        release = self.take()
        if release is None:
            return
        reading = Reading()
        descriptors = {}
        try:
            reading.first = tree_or_error(self.directory)
            descriptors = self.open_some(reading)
            time.sleep(self.hold)
            reading.second = tree_or_error(self.directory)
            reading.was_alive = self.is_operation_alive()
            reading.had_mark = os.path.lexists(self.mark)
        finally:
            release()
        time.sleep(0.01)
        for path, descriptor in descriptors.items():
            reading.read_later[path] = os.pread(descriptor, 1 << 22, 0)
            os.close(descriptor)
        self.readings.append(reading)

    def open_some(self, reading):
        descriptors = {}
        for path in sorted(reading.first)[:3]:
            try:
                descriptors[path] = os.open(os.path.join(self.directory, path), os.O_RDONLY)
                reading.opened[path] = os.pread(descriptors[path], 1 << 22, 0)
            except OSError:
                pass
        return descriptors

    def take(self):
        """Returns what gives the lock back, or None."""
        return self.take_by_library() if self.by_library else self.take_by_flock()

    def take_by_flock(self):
        try:
            descriptor = os.open(self.lock_file, os.O_RDONLY)
        except FileNotFoundError:
            return None
        until = time.monotonic() + 5
        while not self.ended.is_set() and time.monotonic() < until:
            try:
                fcntl.flock(descriptor, fcntl.LOCK_SH | fcntl.LOCK_NB)
                return lambda: os.close(descriptor)
            except BlockingIOError:
                time.sleep(0.002)
        os.close(descriptor)
        return None

    def take_by_library(self):
        library = ctypes.CDLL("libtolmdbud.so.1")
        descriptor = library.TOLMDBUDGetFileLock(self.database.encode(), 1)
        if descriptor < 0:
            return None
        return lambda: library.TOLMDBUDReleaseFileLock(descriptor)
