#!/usr/bin/env python3
"""Copies a file of a database to standard output while no update replaces it.

    python3 reader.py geo geo.csv

Needs nothing but Python and tolmdbud. Exit status: 0, or 1 with a line on standard error.
"""

import contextlib
import errno
import fcntl
import pathlib
import shutil
import subprocess
import sys
import time

WAIT_SECONDS = 30


@contextlib.contextmanager
def reading(database):
    """Keeps updates from replacing the database's files; gives the directory that they are in.

    Raises TimeoutError when an update has not ended in time, FileNotFoundError when there is no
    lock file (the database is not configured, or tolmdbud init has not run yet), and
    subprocess.CalledProcessError when the directory cannot be told.
    """
    # Opened for reading and never made: the file is the service's.
    with open(f"/run/data_update/using_{database}.lock", "rb") as lock:
        take_shared(lock)
        # Asked under the lock: another volume may have been chosen since.
        told = subprocess.run(["tolmdbud", "directory", database], check=True, text=True,
                              stdout=subprocess.PIPE)
        yield pathlib.Path(told.stdout.removesuffix("\n"))


def take_shared(lock):
    deadline = time.monotonic() + WAIT_SECONDS
    while True:
        try:
            return fcntl.flock(lock, fcntl.LOCK_SH | fcntl.LOCK_NB)
        except OSError as error:
            if error.errno != errno.EWOULDBLOCK:
                raise
            if time.monotonic() >= deadline:
                raise TimeoutError("the database is being updated") from None
        time.sleep(0.1)


def main():
    if len(sys.argv) != 3:
        sys.exit("usage: reader.py DATABASE FILE")
    database, name = sys.argv[1:]
    try:
        with reading(database) as directory, open(directory / name, "rb") as file:
            shutil.copyfileobj(file, sys.stdout.buffer)
    except (OSError, subprocess.CalledProcessError) as error:
        sys.exit(f"reader.py: {database}: {error}")


main()
