"""The publisher: releases and all else that tolmdbpub does, and the truth about every version."""

import hashlib
import json
import os
import subprocess
import time

from soaking import changes, files, oracle, preload

TOOL = "tolmdbpub"
HOME = "/soak/publisher"
REPO = HOME + "/repo"
MIRROR = "/soak/mirror"
WHOLE = 10000


class Offer:
    """What a description offers of one database."""

    def __init__(self, stable, next_version, share, is_stopped, packages):
        self.stable = stable
        self.next = next_version  # None without a rollout
        self.share = share
        self.is_stopped = is_stopped
        self.packages = packages

    def newest(self):
        return self.next or self.stable

    def is_left_alone(self, had):
        """Whether who has it has a staged version whose successor was stopped: nothing that is offered is for that device."""
        return self.is_stopped and self.stable < had < self.next

    def to_device(self, identifier, name, had, setting):
        """The version that a device is offered."""
        if self.next is None:
            return self.stable
        if self.is_left_alone(had):
            return had
        if had > self.stable:
            return self.next
        if setting == "stable" or self.is_stopped:
            return self.stable
        position = {"early": 0, "late": WHOLE - 1}.get(setting)
        if position is None:
            position = position_of(identifier, name, self.next) if identifier else WHOLE - 1
        return self.next if self.share > position else self.stable


def position_of(identifier, name, version):
    digest = hashlib.sha384(("%s\n%s\n%d" % (identifier, name, version)).encode()).digest()
    return int.from_bytes(digest[:4], "big") * WHOLE >> 32


class Description:
    """One that is or was served, by own reading."""

    def __init__(self, data, epoch, now):
        self.data = data
        self.epoch = epoch
        text = json.loads(json.loads(data)["signed"])
        self.counter = text["counter"]
        self.digests = set()
        self.complete = set()  # those of packages with a whole version
        self.offers = {}
        for name, record in text["databases"].items():
            following = record.get("next")
            packages = list(record["deltas"].values()) + [record["full"]]
            share, is_stopped = 0, False
            if following:
                packages += list(following["deltas"].values()) + [following["full"]]
                share, is_stopped = share_at(following["plan"], now)
            self.digests |= {package["sha384"] for package in packages}
            self.complete |= {one["full"]["sha384"] for one in (record, following) if one}
            self.offers[name] = Offer(record["version"], following and following["version"], share,
                                      is_stopped, packages)
            self.offers[name].directory = os.path.dirname(record["full"]["link"])

    def order(self):
        """Later ones are greater."""
        return (self.epoch, self.counter)


def share_at(plan, now):
    now = min(now, plan.get("held") or now)
    share, begins = 0, plan["start"]
    for step in plan["steps"]:
        if now >= begins:
            share = step["share"]
        begins += step["seconds"] or 10 ** 9
    return share, bool(plan.get("stopped"))


class Publisher:
    def __init__(self, libraries, names, log):
        self.libraries = libraries
        self.log = log
        self.names = names
        self.truth = {name: {} for name in names}  # {name: {version: tree}}
        self.withdrawn = {name: set() for name in names}
        self.known_packages = set()
        self.epoch = 0
        self.keys = 0
        self.killed = 0
        self.is_key_young = 0.0
        self.broken = []
        self.old = []  # descriptions that were served
        self.pushed = None

    def source(self, name):
        return os.path.join(HOME, "source", name)

    # ---- Running its tool ----

    def environment(self, kill_at=None):
        variables = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root", "LC_ALL": "C.UTF-8"}
        if kill_at:
            variables.update(preload(self.libraries, ["libtolmkillatcall.so"]))
            variables["TOLM_TEST_KILL_AT"] = str(kill_at)
        return variables

    def call(self, *arguments, kill_at=None):
        done = subprocess.run([TOOL] + list(arguments), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, env=self.environment(kill_at), timeout=300)
        self.log("publisher", {"command": arguments, "kill_at": kill_at, "status": done.returncode,
                               "said": done.stdout.decode("utf-8", "replace")[-300:]})
        return done

    def change(self, *arguments, kill_at=None, may_fail=False):
        """A command, perhaps killed before; the same command then completes it."""
        if kill_at:
            if self.call(*arguments, kill_at=kill_at).returncode in (-9, 137):
                self.killed += 1
                self.note_description()
        done = self.call(*arguments)
        if done.returncode != 0 and not may_fail:
            self.broken.append("\"%s %s\" ended with %d: %s" % (
                TOOL, " ".join(arguments), done.returncode,
                done.stdout.decode("utf-8", "replace").strip()[-400:]))
        return done.returncode == 0

    # ---- What is offered ----

    def present(self):
        path = REPO + "/public/database_info/1"
        return Description(files.read_bytes(path), self.epoch, time.time())

    def note_description(self):
        """Keeps what is served at this moment, for whoever replays it."""
        try:
            present = self.present()
        except (TypeError, ValueError, KeyError):
            self.broken.append("the served description cannot be read")
            return None
        self.known_packages |= present.digests
        if not self.old or self.old[-1].data != present.data:
            self.old.append(present)
            del self.old[:-40]
        return present

    def kept_versions(self, name):
        """Those whose full packages are there, below the present links."""
        offer = self.present().offers[name]
        where = os.path.join(REPO, "public", offer.directory)
        prefix = name + "_v"
        return sorted(int(entry[len(prefix):]) for entry in os.listdir(where) if entry.startswith(prefix))

    # ---- What it does ----

    def begin(self, address, chance):
        os.makedirs(HOME)
        self.call("keygen", HOME + "/keys", "--no-passphrase").check_returncode()
        self.is_key_young = time.time()
        self.call("init", REPO, "--base-url", address, "--key", HOME + "/keys/signing.key", "--cert",
                  HOME + "/keys/signing.pem").check_returncode()
        self.call("set", REPO, "--compression", "zstd").check_returncode()  # the quicker one
        for name in self.names:
            changes.new_tree(self.source(name), chance, name == self.names[-1])
            self.release(name)
        self.call("install-config", REPO, "/").check_returncode()

    def note_version(self, name, tree, what):
        """The command has succeeded: the newest version has this content."""
        present = self.note_description()
        if present is None:
            return
        newest = present.offers[name].newest()
        known = self.truth[name]
        if newest in known:
            if known[newest] != tree:
                self.broken.append("%s: %s has not made a version of what has changed: %s" %
                                   (name, what, oracle.differences(tree, known[newest])))
        elif known and newest <= max(known):
            self.broken.append("%s: %s offers %d, below what was offered" % (name, what, newest))
        else:
            known[newest] = tree
        for version in sorted(known)[:-60]:
            del known[version]

    def is_rollout_open(self, name):
        try:
            return self.present().offers[name].next is not None
        except (TypeError, ValueError, KeyError):
            return False

    def release(self, name, stages=None, kill_at=None):
        tree = files.tree_of(self.source(name))
        arguments = ["release", REPO, name, self.source(name), "--allow-shrink", "--allow-withdrawn",
                     "--jobs", "1"]
        if stages:
            arguments += ["--stages", stages]
        if self.change(*arguments, kill_at=kill_at):
            self.note_version(name, tree, "a release")

    def withdraw(self, name, kill_at=None):
        known = self.truth[name]
        offer = self.present().offers[name]
        bad = offer.newest()
        if bad not in known:
            return
        spoilt = [known[one] for one in self.withdrawn[name] | {bad} if one in known]
        good = [one for one in sorted(known, reverse=True)
                if one < bad and one not in self.withdrawn[name] and known[one] not in spoilt]
        if offer.next:
            good = [offer.stable]
        is_done = self.change("withdraw", REPO, name, str(bad), "--jobs", "1", kill_at=kill_at, may_fail=True)
        present = self.note_description()
        # What a killed call had decided the next one completes, and then says that it was withdrawn already.
        is_newer = present is not None and present.offers[name].newest() != bad
        if is_done or is_newer:
            self.withdrawn[name].add(bad)
        if is_newer:
            self.note_version(name, known[good[0]] if good else {}, "a withdrawal")

    def change_rollout(self, name, action, kill_at=None):
        arguments = ["rollout", action, REPO, name] + (["--yes"] if action == "resume" else [])
        self.change(*arguments, kill_at=kill_at, may_fail=True)
        self.note_description()

    def prune(self, name, keep, grace, kill_at=None):
        self.change("prune", REPO, name, "--keep", str(keep), "--grace", str(grace), kill_at=kill_at)
        self.note_description()

    def refresh(self, kill_at=None):
        self.change("refresh", REPO, kill_at=kill_at)
        self.note_description()

    def deprecate(self, name, undo):
        self.change("deprecate", REPO, name, *(["--undo"] if undo else []))
        self.note_description()

    def wait_for_new_second(self):
        """Newer is who begins in a later second."""
        while int(time.time()) <= int(self.is_key_young):
            time.sleep(0.05)
        self.is_key_young = time.time()

    def new_signing_key(self, kill_at=None):
        self.keys += 1
        keys = "%s/keys-%d" % (HOME, self.keys)
        self.change("keygen", keys, "--root-key", HOME + "/keys/root.key", "--root", HOME + "/keys/root.pem")
        self.change("resign", REPO, "--key", keys + "/signing.key", "--cert", keys + "/signing.pem",
                    kill_at=kill_at)
        self.note_description()

    def new_description_key(self):
        self.wait_for_new_second()
        self.keys += 1
        keys = "%s/keys-%d" % (HOME, self.keys)
        self.change("keygen", keys, "--root-key", HOME + "/keys/root.key", "--root", HOME + "/keys/root.pem",
                    "--info")
        self.epoch += 1
        self.change("set", REPO, "--info-key", keys + "/info.key", "--info-cert", keys + "/info.pem")
        self.note_description()

    def push(self):
        if self.change("push", REPO, MIRROR + "/public", "--grace", "0"):
            data = files.read_bytes(MIRROR + "/public/database_info/1")
            if data != files.read_bytes(REPO + "/public/database_info/1"):
                self.broken.append("after a push the store has another description")
            else:
                self.pushed = self.present()

    def check(self):
        done = self.call("check", REPO)
        if done.returncode not in (0, 3):
            self.broken.append("\"check\" finds wrong: " + done.stdout.decode("utf-8", "replace")[-400:])

    def settings(self, chance):
        choice = chance.choice([["--compression", "zstd"], ["--compression", "zstd"], ["--compression", "xz"],
                                ["--chain-share", str(chance.choice([30, 60, 90]))]])
        self.change("set", REPO, *choice)
        self.note_description()
