"""Reading trees of files for oneself: digests that nobody else has computed."""

import hashlib
import os
import sqlite3
import stat
import urllib.parse

SQLITE_HEAD = b"SQLite format 3\0"
_rows_by_digest = {}


def digest_of(data):
    return hashlib.sha384(data).hexdigest()


def rows_of(path):
    """A digest of schema and rows of an SQLite file, whatever its pages look like; None for none."""
    uri = "file:" + urllib.parse.quote(path) + "?immutable=1"
    try:
        connection = sqlite3.connect(uri, uri=True)
        try:
            sums = hashlib.sha384()
            for pragma in ("user_version", "application_id", "encoding"):
                sums.update(repr(connection.execute("PRAGMA " + pragma).fetchall()).encode())
            schema = sorted(connection.execute("SELECT type, name, tbl_name, sql FROM sqlite_master"),
                            key=repr)
            sums.update(repr(schema).encode())
            for kind, name, _, _ in schema:
                if kind == "table":
                    rows = connection.execute('SELECT * FROM "%s"' % name.replace('"', '""'))
                    sums.update(repr(sorted(rows, key=repr)).encode())
            return "rows:" + sums.hexdigest()
        finally:
            connection.close()
    except sqlite3.Error:
        return None


def content_of(path):
    """What a file holds: of an SQLite file its rows, since deltas change rows and not pages."""
    with open(path, "rb") as file:
        data = file.read()
    digest = digest_of(data)
    if not data.startswith(SQLITE_HEAD):
        return digest
    if digest not in _rows_by_digest:
        rows = rows_of(path)
        try:
            with open(path, "rb") as file:
                is_same = file.read() == data
        except OSError:
            is_same = False
        if not is_same:
            return digest
        _rows_by_digest[digest] = rows or digest
    return _rows_by_digest[digest]


def tree_of(directory):
    """{path below it: content} of all that is no directory; nothing for a missing one."""
    tree = {}
    for where, _, names in os.walk(directory):
        for name in names:
            path = os.path.join(where, name)
            key = os.path.relpath(path, directory)
            status = os.lstat(path)
            if stat.S_ISREG(status.st_mode):
                tree[key] = content_of(path)
            else:
                tree[key] = "no file: " + stat.filemode(status.st_mode)
    return tree


def open_to_others(directory):
    """Files that others may write, or that run with their owner's rights."""
    found = []
    for where, _, names in os.walk(directory):
        for name in names:
            mode = os.lstat(os.path.join(where, name)).st_mode
            if stat.S_ISREG(mode) and mode & 0o6022:
                found.append(os.path.relpath(os.path.join(where, name), directory))
    return found


def read_bytes(path):
    """None when there is none."""
    try:
        with open(path, "rb") as file:
            return file.read()
    except OSError:
        return None


def write_bytes(path, data):
    with open(path, "wb") as file:
        file.write(data)
