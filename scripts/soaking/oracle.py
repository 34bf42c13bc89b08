"""What must hold: functions that compare what was read of a device with what is known from outside.

Each returns sentences about what is broken, none when all is well. Nothing here asks a tool.
"""

import fcntl
import json
import os
import time

from soaking import files

NEVER = -1
LOCKS = ["operator", "update_any", "fresh_info", "config", "notes"]
STATE_NAMES = {"version.json", "installed.json", "verified.json", "version.json.aside"}
STATE_FILES = {"history.jsonl", "cooldown.json", "trust.json", "revocations.pem", "trust.json.aside",
               "cooldown.json.aside"}
# That is there for the time of a move.
PASSING = {"move.json"}
# What a killed program was about to put in the place of a file; the next writing of that takes it.
HALF_WRITTEN = ".new"

EXACT, ABSENT, CUT, HARMED = "exact", "absent", "cut short", "harmed"


class Look:
    """What stands on a device of one database at one moment, by own reading."""

    def __init__(self, tree, recorded, mark):
        self.tree = tree
        self.recorded = recorded  # the version in version.json; NEVER where that cannot be used
        self.mark = mark


class Known:
    """What the oracle knows of one database on the device."""

    def __init__(self):
        self.state = ABSENT
        self.version = NEVER  # that was installed when its state was last known
        # The highest version ever had, unless an older one was asked for. What was cut short may have
        # set it or not: then it is between the two.
        self.floor = NEVER
        self.floor_high = NEVER
        self.floor_lost = False  # nothing on the device knows it any more
        self.extras = {}  # files besides the version's that nothing has to remove
        self.record_harmed = False  # its files are a version's, but the record of them was harmed


def recorded_version(path):
    data = files.read_bytes(path)
    try:
        return int(json.loads(data)["data_version"])
    except (TypeError, ValueError, KeyError):
        return NEVER


def look_at(directory, state):
    return Look(files.tree_of(directory), recorded_version(os.path.join(state, "version.json")),
                os.path.lexists(os.path.join(state, "recovery.mark")))


def is_exactly(tree, version_tree, *extras):
    """Whether these are all files of the version, and besides only such as one of the `extras` has."""
    if any(tree.get(path) != content for path, content in version_tree.items()):
        return False
    return all(path in version_tree or any(extra.get(path) == content for extra in extras)
               for path, content in tree.items())


def differences(tree, version_tree):
    """A few words for people."""
    words = []
    for path in sorted(set(tree) | set(version_tree)):
        if path not in tree:
            words.append("no " + path)
        elif path not in version_tree:
            words.append("besides " + path)
        elif tree[path] != version_tree[path]:
            words.append("another " + path)
    return ", ".join(words[:6]) + (" ..." if len(words) > 6 else "")


def extras_of(tree, version_tree):
    return {path: content for path, content in tree.items() if path not in version_tree}


def merged(*trees):
    """Contents that are allowed besides: what several trees have, the last one counting."""
    result = {}
    for tree in trees:
        result.update(tree)
    return result


class Allowed:
    """What a run may lead to: these versions of the truth, with these files besides, and those of versions that were
    installed between its beginning and its end."""

    def __init__(self, versions, extras, between=()):
        self.versions = versions  # {number: tree}
        self.extras = extras
        self.between = between

    def is_version(self, tree, number):
        return is_exactly(tree, self.versions[number], self.extras, *self.between)


def after_run(name, known, before, after, allowed, is_forced):
    """After a run that anything may have happened to: the former version, a new one, or a mark."""
    if after.mark:
        return []
    if known.state in (HARMED, ABSENT) and (after.tree, after.recorded) == (before.tree, before.recorded):
        return []
    broken = []
    if known.state == CUT and before.mark and after.recorded == NEVER:
        return ["%s: its recovery mark has gone and nothing is recorded" % name]
    if after.recorded not in allowed.versions or not allowed.is_version(after.tree, after.recorded):
        whose = [number for number in allowed.versions if allowed.is_version(after.tree, number)]
        broken.append(
            "%s: without a recovery mark its files are not those of the recorded version %s%s" %
            (name, after.recorded,
             "; they are of %s" % whose if whose else
             " (%s) and of no version that it could be" %
             differences(after.tree, allowed.versions.get(after.recorded, {}))))
    floor = known.version if known.state == EXACT else known.floor
    if not is_forced and not known.floor_lost and after.recorded != NEVER and after.recorded < floor:
        broken.append("%s: version %d has taken the place of %d, which nobody asked for" %
                      (name, after.recorded, floor))
    return broken


def after_honest_update(name, known, after, expected, allowed):
    """After an update that nothing has disturbed: exactly what is offered."""
    broken = []
    if after.mark:
        broken.append("%s: a recovery mark stands after an update that nothing has disturbed" % name)
    if after.recorded not in expected:
        broken.append("%s: version %s is recorded after an update, offered is %s" %
                      (name, after.recorded, sorted(expected)))
    elif not allowed.is_version(after.tree, after.recorded):
        broken.append("%s: after an update its files are not exactly those of %s: %s" %
                      (name, after.recorded,
                       differences(after.tree, allowed.versions[after.recorded])))
    if not known.floor_lost and after.recorded < known.floor:
        broken.append("%s: version %d is installed after %d, which nobody asked for" %
                      (name, after.recorded, known.floor))
    return broken


def others_untouched(name, before, after):
    if (before.tree, before.recorded, before.mark) == (after.tree, after.recorded, after.mark):
        return []
    return ["%s: an operation on another database has changed it: %s" %
            (name, differences(after.tree, before.tree) or "its record")]


def may_stay_harmed(state, files, of_version):
    """Whether a forced installation, which removes nothing, may have left a harmed file that the version does not have: the record
    goes on knowing it as it was, and the next update repairs that."""
    return state == HARMED and bool(set(files) - set(of_version))


def may_lower(copied, old):
    """Whether the description of a copy has a newer key than one that a device, which has forgotten what it had accepted, may
    have been given again: versions that a newer signer lowers are lowered."""
    return any(one.epoch < copied.epoch for one in old)


def was_cut_short(has_mark, statuses):
    """Whether an operation has ended in the middle of the files: its mark stands, or another one at the same time may have
    put everything right after it."""
    return has_mark or len(statuses) > 1 and any(statuses)


def while_read(name, first, second, allowed, before_tree, is_cut_short):
    """What a reader saw under its lock at its beginning and at its end, with the operation alive.

    One that was cut short may have let go of the files before it came to its end, but has told so.
    """
    if first != second:
        return ["%s: its files changed under a reader's lock: %s" % (name, differences(second, first))]
    if is_cut_short or first == before_tree or any(allowed.is_version(first, number) for number in allowed.versions):
        return []
    return ["%s: a reader saw the files of no one version: %s" %
            (name, "; ".join("of %d %s" % (number, differences(first, tree))
                             for number, tree in allowed.versions.items()))]


def kept_open(name, seen, read_later):
    """A file that was opened under the lock stays whole after it."""
    changed = [path for path in seen if read_later.get(path) != seen[path]]
    return ["%s: %s was opened under a reader's lock and changed" % (name, path) for path in changed]


def held_locks(directory):
    """Nobody is at work, so nobody holds a lock."""
    broken = []
    try:
        names = sorted(os.listdir(directory))
    except FileNotFoundError:
        return []
    for name in names:
        if not name.endswith(".lock"):
            broken.append("%s/%s does not belong there" % (directory, name))
            continue
        descriptor = os.open(os.path.join(directory, name), os.O_RDONLY)
        try:
            fcntl.flock(descriptor, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except OSError:
            broken.append("%s is held although nothing runs" % name)
        finally:
            os.close(descriptor)
    return broken


def left_overs(volume, volumes, state, cache, names, known_packages, repairing, was_killed=False):
    """After an operation that nothing has disturbed only this is there.

    What a killed one has left on a volume that is no longer the chosen one stays until it is that. Of packages, only what
    was received of one by which an installed database is repaired may be kept, which a repair that broke off has left.
    """
    broken = []
    temporary = os.path.join(volume, "@tmp", "data_update")
    if os.path.lexists(temporary):
        broken.append("%s is left over" % temporary)
    for one in volumes:
        partials = os.path.join(one, "@database", "partial-downloads")
        if os.path.isdir(partials):
            for part in os.listdir(partials):
                if part.split(".")[0] not in known_packages:
                    broken.append("%s/%s is kept of no package" % (partials, part))
                elif part.split(".")[0] not in repairing:
                    broken.append("%s/%s is kept although everything is installed" % (partials, part))
            if len(os.listdir(partials)) > 8:
                broken.append("%s keeps more than eight packages" % partials)
    places = [(cache, {"database_info.json"}), (state, STATE_FILES | set(names))]
    places += [(os.path.join(state, name), STATE_NAMES) for name in names]
    for where, allowed in places:
        for entry in os.listdir(where) if os.path.isdir(where) else []:
            if entry not in allowed and not is_half_written(where, entry, allowed | PASSING, was_killed):
                broken.append("%s/%s is left over" % (where, entry))
    return broken


def is_half_written(where, entry, allowed, was_killed):
    """Of a run that was killed, one for each file may stay; the answer of a server may not."""
    name = entry[:-len(HALF_WRITTEN)] if entry.endswith(HALF_WRITTEN) else ""
    return was_killed and name in allowed and name != "database_info.json"


def record_belongs(name, state):
    """installed.json is that of version.json, once an operation has ended well."""
    version_file = files.read_bytes(os.path.join(state, "version.json"))
    record = files.read_bytes(os.path.join(state, "installed.json"))
    try:
        if json.loads(record)["version_file"] == files.digest_of(version_file):
            return []
    except (TypeError, ValueError, KeyError):
        pass
    return ["%s: installed.json is not that of version.json" % name]


def floor_in(name, trust_file):
    """None when there is none."""
    try:
        return json.loads(files.read_bytes(trust_file))["databases"][name]["floor"]
    except (TypeError, ValueError, KeyError):
        return None


def floor_is(name, known, trust_file):
    """The floor that the device keeps is the highest version that it ever had."""
    floor = floor_in(name, trust_file)
    if floor is not None and known.floor <= floor <= known.floor_high:
        return []
    return ["%s: its floor is %s, and it should be %s" %
            (name, floor, known.floor if known.floor == known.floor_high
             else "from %d to %d" % (known.floor, known.floor_high))]


def history_lines(data):
    """(entries, how many lines are none)."""
    entries, damaged = [], 0
    for line in data.split(b"\n"):
        if not line:
            continue
        try:
            entries.append(json.loads(line))
        except ValueError:
            damaged += 1
    return entries, damaged


def history_of_update(name, entries, state, version_before, version_after, began, ended):
    """One line tells of an update that nothing has disturbed, and it is true."""
    if len(entries) != 1:
        return ["%s: %d lines of history for one update" % (name, len(entries))]
    entry = entries[0]
    broken = []
    if (entry["database"], entry["operation"]) != (name, "update"):
        broken.append("it tells of %s of %s" % (entry["operation"], entry["database"]))
    if entry["to"] != version_after:
        broken.append("it tells of version %s, and %s is installed" % (entry["to"], version_after))
    if entry["from"] not in ({version_before} if state == EXACT else {version_before, NEVER}):
        broken.append("it tells that %s was installed, and %s was" % (entry["from"], version_before))
    moved = version_after != version_before
    outcomes = {(EXACT, True): {"updated"}, (EXACT, False): {"up-to-date"},
                (ABSENT, True): {"updated"}, (CUT, True): {"updated", "repaired"},
                (CUT, False): {"updated", "repaired"}, (HARMED, True): {"updated", "repaired"},
                (HARMED, False): {"updated", "repaired", "up-to-date"}}
    if entry["outcome"] not in outcomes.get((state, moved), ()):
        broken.append("it tells \"%s\" of what was %s" % (entry["outcome"], state))
    at = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(began - 1))
    until = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(ended + 1))
    if not at <= entry["time"] <= until:
        broken.append("it tells of %s, which is not when it was" % entry["time"])
    return ["%s: its history is not true: %s" % (name, what) for what in broken]


def history_of_disturbed(name, entries, state, after, targets):
    """Whatever has happened to a run: no line tells of what was not."""
    broken = []
    for entry in entries:
        if entry["database"] != name:
            continue
        if entry["outcome"] in ("updated", "repaired", "installed") and entry["to"] not in targets:
            broken.append("version %s is told as installed" % entry["to"])
        # What has failed after it has changed files may have recorded them; the mark tells that, unless all that has
        # failed was to bring its removal to the disk. Then what is told is what is recorded.
        failed = entry["outcome"] in ("failed", "interrupted")
        stays = failed or entry["outcome"] in ("up-to-date", "intact")
        is_so = failed and entry["to"] == after.recorded
        if stays and state == EXACT and not after.mark and entry["to"] != entry["from"] and not is_so:
            broken.append("\"%s\" is told from %s to %s" % (entry["outcome"], entry["from"], entry["to"]))
    own = [entry for entry in entries if entry["database"] == name]
    if own and not after.mark and own[-1]["outcome"] in ("updated", "repaired", "installed"):
        if after.recorded != own[-1]["to"]:
            broken.append("it ends with %s, and %s is recorded" % (own[-1]["to"], after.recorded))
    return ["%s: its history is not true: %s" % (name, what) for what in broken]


def exit_status(command, status, may_fail):
    """No program ends by a fault of its own; an undisturbed one ends with 0."""
    if status == 0 or (may_fail and status in (1, 11, 12, 128 + 2, 128 + 15, -2, -9, -15, 128 + 9)):
        return []
    return ["\"%s\" ended with status %s" % (" ".join(command), status)]


def status_tells(name, told, known, look, offered):
    """What `status --json` says of a database that is as it should be."""
    broken = []
    wanted = "cut-short" if look.mark else ("up-to-date" if look.recorded >= offered else "update-offered")
    if told.get("installed") != look.recorded:
        broken.append("%s as installed" % told.get("installed"))
    if told.get("state") != wanted:
        broken.append("\"%s\" in place of \"%s\"" % (told.get("state"), wanted))
    return ["%s: status tells %s" % (name, what) for what in broken]
