"""What a power cut takes away: changes that were made and not synced before the last call.

The tool's calls are known from its trace, up to the one that it did not live to make. A change of a
name is safe once its directory was synced afterwards, a content once its file was; or all of a file
system. What is not safe may be lost, and each such change is lost or not by itself: the worst that
a file system may do.
"""

import os
import re

from soaking import files

NAMING = re.compile(r"(open|openat|creat|fopen)(64)?$|rename|unlink|^remove$|^rmdir$|^link|^mkdir")
WRITING = re.compile(r"write|copy_file_range|sendfile|truncate")


def calls_in(trace):
    """(name, path) of every call; the last one was not made."""
    calls = []
    for line in trace.decode("utf-8", "surrogateescape").split("\n"):
        parts = line.split(" ", 2)
        if len(parts) == 3 and parts[1] != "peak":
            calls.append((parts[1], parts[2]))
    return calls[:-1]


def contents_of(directory):
    """{path: bytes} of all regular files below it."""
    found = {}
    for where, _, names in os.walk(directory):
        for name in names:
            path = os.path.join(where, name)
            if os.path.isfile(path) and not os.path.islink(path):
                found[path] = files.read_bytes(path)
    return found


def file_system_of(path, mounts):
    """The longest of the mount points that it is below."""
    return max((one for one in mounts if path == one or path.startswith(one.rstrip("/") + "/")), key=len)


def unsafe(calls, before, after, mounts):
    """{path: contents that a cut may leave there (None: no file)} of what is not safe."""
    last_name, names, last_write, synced, all_synced = {}, {}, {}, {}, {}
    for at, (call, path) in enumerate(calls):
        if call in ("fsync", "fdatasync"):
            synced[path] = at
        elif call == "syncfs":
            all_synced[file_system_of(path, mounts)] = at
        elif NAMING.search(call):
            last_name[path] = at
            names[path] = names.get(path, 0) + (0 if "open" in call or call == "creat" else 1)
        elif WRITING.search(call):
            last_write[path] = at
    found = {}
    for path in sorted(set(before) | set(after)):
        old, new = before.get(path), after.get(path)
        whole = all_synced.get(file_system_of(path, mounts), -1)
        name_at = last_name.get(path, -1)
        is_name_safe = max(synced.get(os.path.dirname(path), -1), whole) > name_at
        if old is None and new is not None and name_at >= 0 and not is_name_safe:
            found[path] = [None]
        elif old is not None and new is None and name_at >= 0 and not is_name_safe:
            found[path] = [old]
        elif old is not None and new is not None and old != new:
            write_at = last_write.get(path, -1)
            if names.get(path, 0) == 1 and not is_name_safe and write_at < name_at:
                found[path] = [old]
            elif names.get(path, 0) == 0 and write_at >= 0 and \
                    max(synced.get(path, -1), whole) < write_at:
                found[path] = [old, b"", new[:len(new) // 2]]
    return found


def cut(unsafe_changes, chance):
    """Loses some of them; returns the paths."""
    lost = []
    share = chance.choice([0.0, 0.5, 1.0, 1.0])
    for path, contents in unsafe_changes.items():
        if chance.random() >= share:
            continue
        content = chance.choice(contents)
        if content is None:
            os.remove(path)
        elif os.path.isdir(os.path.dirname(path)) and not os.path.isdir(path):  # or a directory has taken its name
            files.write_bytes(path, content)
        lost.append(path)
    return lost
