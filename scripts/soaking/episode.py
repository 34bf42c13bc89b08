"""One episode: a publisher, its server, a device, and disturbances drawn with a seed."""

import collections
import json
import os
import random
import shutil
import time

from soaking import changes, files, oracle, power
from soaking.device import (CACHE, DEFAULTS, LOCKS, OVERRIDES, STATE, VOLUMES, Device, Run,
                            adopt_orphans, empty_directory)
from soaking.oracle import ABSENT, CUT, EXACT, HARMED, NEVER
from soaking.publisher import HOME, MIRROR, Publisher
from soaking.readers import Reader
from soaking.server import FOR_DESCRIPTIONS, FOR_PACKAGES, Server

NAMES = ["alpha", "beta", "gamma"]
PLACES = {"alpha": "%VOLUME%", "beta": "%ROOTFS%", "gamma": "%VOLUME%"}
LIMITS = {"alpha": 200000, "beta": 120000, "gamma": 3 << 20}
DAY = 24 * 3600


class Broken(Exception):
    """An invariant that does not hold any more."""


class Episode:
    def __init__(self, seed, libraries, results, is_verbose):
        self.seed = seed
        self.chance = random.Random("%s setup" % seed)
        self.results = results
        self.is_verbose = is_verbose
        self.step = 0
        self.kinds = collections.Counter()
        self.outcomes = collections.Counter()
        self.log_file = open(os.path.join(results, "decisions.jsonl"), "w")
        self.device = Device(libraries, PLACES)
        self.publisher = Publisher(libraries, NAMES, self.log)
        self.known = {name: oracle.Known() for name in NAMES}
        self.setting = "normal"
        self.accepted = (-1, -1)  # the least that the device is known to have accepted
        self.trust_lost = False
        self.history_size = 0
        self.identifier = ""
        self.readings = 0
        self.notes = collections.Counter()
        self.was_killed = False
        self.calls = {}  # how many calls that change files an operation makes

    # ---- What is written down ----

    def log(self, what, details):
        entry = {"step": self.step, "what": what, "at": round(time.time(), 3)}
        entry.update(details)
        self.log_file.write(json.dumps(entry, default=str) + "\n")
        self.log_file.flush()
        if self.is_verbose:
            print(json.dumps(entry, default=str)[:400], flush=True)

    def count(self, kind):
        self.kinds[kind] += 1

    @staticmethod
    def fail_on(broken):
        if broken:
            raise Broken("; ".join(broken))

    # ---- Beginning ----

    def begin(self):
        adopt_orphans()
        os.makedirs("/soak/volumes")
        self.device.make_ground()
        self.decoy = Server("/soak/nothing", None)
        self.server = Server(os.path.join(HOME, "repo", "public"), self.decoy)
        self.publisher.begin("http://127.0.0.1:%d" % self.server.port, self.chance)
        self.fail_on(self.publisher.broken)
        databases = json.loads(files.read_bytes(DEFAULTS + "/databases.conf"))
        for name, place in PLACES.items():
            databases[name]["install_dest"] = place
        files.write_bytes(DEFAULTS + "/databases.conf", json.dumps(databases).encode())
        self.must("init")
        self.must("check")
        self.identifier = self.server.identifier

    def must(self, *argv):
        run = self.device.run(list(argv))
        if run.status not in (0, 10):
            raise Broken("\"tolmdbud %s\" ended with %s: %s" % (" ".join(argv), run.status, run.err))
        return run

    # ---- What may be expected ----

    def offered_by(self, description, name):
        """The versions that this description may mean for the device."""
        offer = description.offers[name]
        return {offer.to_device(self.identifier, name, had, self.setting) for had in self.hads(name)}

    def hads(self, name):
        """The newest versions that the device may know to have had."""
        known = self.known[name]
        hads = {known.floor, known.floor_high}
        if known.state == EXACT and not known.record_harmed:
            hads = {max(had, known.version) for had in hads}
        if known.floor_lost:
            hads |= {NEVER, known.version}
        return hads

    def expected(self, name):
        present = self.publisher.present()
        return self.offered_by(present, name)

    def believable(self):
        """Descriptions that the device may go by."""
        found = [self.publisher.present()]
        if self.trust_lost:
            found += self.publisher.old
        else:
            found += [one for one in self.publisher.old if one.order() >= self.accepted]
        return found

    def targets(self, name, forced=None):
        numbers = set()
        for description in self.believable():
            if name in description.offers:
                # A wrong clock may see a later step of a plan.
                offer = description.offers[name]
                numbers |= self.offered_by(description, name) | {offer.stable, offer.newest()}
        if forced:
            numbers |= {forced}
        if self.known[name].version != NEVER:
            numbers.add(self.known[name].version)
        truth = self.publisher.truth[name]
        return {number: truth[number] for number in numbers if number in truth}

    def allowed(self, name, before, forced=None, at_once=False):
        """A forced installation removes nothing, neither what was there before nor what another operation at the same time
        has brought."""
        extras = self.known[name].extras
        targets = self.targets(name, forced)
        if not forced:
            return oracle.Allowed(targets, extras)
        return oracle.Allowed(targets, oracle.merged(extras, before.tree), targets.values() if at_once else ())

    # ---- After a run ----

    def settle(self, name, before, after, allowed, forced):
        """The oracle takes what it has found for known from now on."""
        known = self.known[name]
        if forced:
            known.floor, known.floor_high = min(known.floor, forced), max(known.floor_high, forced)
        if after.mark:
            known.state = CUT
            known.floor_high = max([known.floor_high] + list(allowed.versions))
            return
        tree = allowed.versions.get(after.recorded)
        if tree is not None and allowed.is_version(after.tree, after.recorded):
            if after.recorded != before.recorded or known.state != EXACT:
                known.record_harmed = forced is not None and oracle.may_stay_harmed(known.state, after.tree, tree)
            known.state, known.version = EXACT, after.recorded
            known.extras = oracle.extras_of(after.tree, tree)
            if not forced:
                known.floor = max(known.floor, after.recorded)
                known.floor_high = max(known.floor_high, known.floor)
        elif known.state == EXACT:
            known.state = HARMED

    def history_since(self):
        data = files.read_bytes(STATE + "/history.jsonl") or b""
        new = data[self.history_size:] if len(data) >= self.history_size else data
        self.history_size = len(data)
        return oracle.history_lines(new)[0]

    def judge(self, names, befores, runs, forced, readers, may_fail=True):
        """All that must hold after a run that was disturbed."""
        broken = []
        entries = self.history_since()
        for run in runs:
            if run.is_hung:
                broken.append("\"%s\" did not end" % " ".join(run.argv))
            broken += oracle.exit_status(run.argv, run.status, may_fail)
            self.outcomes[self.outcome_of(run)] += 1
            self.was_killed = self.was_killed or run.was_killed()
        is_disturbed_twice = any("lost" in run.disturbance for run in runs)
        for name in NAMES:
            after = self.device.look(name)
            if name not in names:
                broken += oracle.others_untouched(name, befores[name], after)
                continue
            allowed = self.allowed(name, befores[name], forced, len(runs) > 1)
            broken += oracle.after_run(name, self.known[name], befores[name], after, allowed,
                                       forced is not None)
            if not is_disturbed_twice:
                broken += oracle.history_of_disturbed(name, entries, self.known[name].state, after,
                                                      allowed.versions)
            for reader in readers:
                if reader.database == name:
                    broken += self.judge_reader(reader, befores[name], after, allowed, [run.status for run in runs])
            self.settle(name, befores[name], after, allowed, forced)
        broken += oracle.held_locks(LOCKS)
        if self.decoy.requests:
            broken.append("a port of this machine was asked that nobody may be led to")
        self.fail_on(broken)

    def judge_reader(self, reader, before, after, allowed, statuses):
        broken = []
        if reader.failure:
            raise reader.failure
        for reading in reader.readings:
            self.readings += 1
            if not reading.was_alive and reading.had_mark:
                continue  # what was cut short is known as that
            broken += oracle.while_read(reader.database, reading.first, reading.second, allowed, before.tree,
                                        reading.had_mark and oracle.was_cut_short(after.mark, statuses))
            broken += oracle.kept_open(reader.database, reading.opened, reading.read_later)
        return broken

    @staticmethod
    def outcome_of(run):
        if run.status in (-9, 137):
            return "killed"
        if run.status in (143, 130, -15, -2):
            return "ended by a signal"
        words = {0: "succeeded", 1: "failed", 11: "found damage", 12: "no volume"}
        return words.get(run.status, "status %s" % run.status)

    # ---- The undisturbed update ----

    def heal(self):
        """Everything is well again: an update must bring exactly what is offered."""
        self.server.be_honest()
        self.device.make_room()
        for volume in VOLUMES:
            self.device.plug(volume)
        if not self.device.volume():
            self.must("volume", "mounted", "/volume1")
        self.device.end_orphans()
        self.leave_nobody_alone()
        befores = {name: self.device.look(name) for name in NAMES}
        expected = {name: self.expected(name) for name in NAMES}
        self.history_since()
        run = self.device.run(["update"] + NAMES + ["--refresh"])
        self.log("heal", {"status": run.status, "out": run.out, "err": run.err[-500:]})
        entries = self.history_since()
        broken = oracle.exit_status(run.argv, run.status, False)
        present = self.publisher.present()
        for name in NAMES:
            known = self.known[name]
            after = self.device.look(name)
            truth = self.publisher.truth[name]
            allowed = oracle.Allowed({number: truth[number] for number in truth}, known.extras)
            broken += oracle.after_honest_update(name, known, after, expected[name], allowed)
            broken += oracle.record_belongs(name, self.device.state_of(name))
            own = [entry for entry in entries if entry["database"] == name]
            state = HARMED if known.record_harmed and known.state == EXACT else known.state
            broken += oracle.history_of_update(name, own, state, befores[name].recorded, after.recorded,
                                               run.began, run.ended)
            opened = files.open_to_others(self.device.directory_of(name))
            if opened:
                broken.append("%s: others may write %s" % (name, ", ".join(opened)))
            self.fail_on(broken)
            known.state, known.version, known.record_harmed = EXACT, after.recorded, False
            known.extras = oracle.extras_of(after.tree, truth[after.recorded])
            if known.floor_lost:
                known.floor, known.floor_high, known.floor_lost = after.recorded, known.floor_high, False
            known.floor = max(known.floor, after.recorded)
            known.floor_high = max(known.floor_high, known.floor)
            broken += oracle.floor_is(name, known, STATE + "/trust.json")
            self.fail_on(broken)
            known.floor = known.floor_high = oracle.floor_in(name, STATE + "/trust.json")
        self.accepted, self.trust_lost = present.order(), False
        broken += oracle.left_overs(self.device.volume(), list(VOLUMES), STATE, CACHE, NAMES, self.publisher.known_packages, present.complete,
                                    self.was_killed)
        broken += oracle.held_locks(LOCKS)
        if self.device.wait_for_orphans(3):
            broken.append("a program is left running")
        if self.chance.random() < 0.2:
            broken += self.ask_status(present)
        if self.chance.random() < 0.1:
            verified = self.device.run(["verify"])
            broken += oracle.exit_status(verified.argv, verified.status, False)
        self.fail_on(broken)

    def leave_nobody_alone(self):
        """What was stopped goes on for a device that has the staged version before it, since nothing else would repair that."""
        for name in NAMES:
            offer, hads = self.publisher.present().offers[name], self.hads(name)
            # The floor of what was cut short is only known to be between these.
            if any(offer.is_left_alone(had) for had in self.publisher.truth[name] if min(hads) <= had <= max(hads)):
                self.publisher.change_rollout(name, "resume")

    def ask_status(self, present):
        run = self.device.run(["status", "--json"])
        broken = oracle.exit_status(run.argv, run.status, False)
        try:
            told = {one["name"]: one for one in json.loads(run.out)["databases"]}
        except (ValueError, KeyError):
            return broken + ["\"status --json\" prints no document"]
        for name in NAMES:
            look = self.device.look(name)
            offered = max(self.offered_by(present, name))
            broken += oracle.status_tells(name, told[name], self.known[name], look, offered)
        return broken

    # ---- Steps ----

    def run_step(self):
        chance = self.chance = random.Random("%s step %d" % (self.seed, self.step))
        self.device.end_orphans() if chance.random() < 0.5 else self.device.reap()
        if chance.random() < 0.22:
            self.publish(chance)
        if chance.random() < 0.2:
            self.change_settings(chance)
        kind = chance.choices(list(DEVICE_STEPS), [weight for weight, _ in DEVICE_STEPS.values()])[0]
        DEVICE_STEPS[kind][1](self, chance)
        self.fail_on(self.publisher.broken)
        if chance.random() < 0.5:
            self.heal()

    def publish(self, chance):
        publisher = self.publisher
        name = chance.choice(NAMES)
        is_open = publisher.is_rollout_open(name)
        kill_at = chance.randrange(1, 150) if chance.random() < 0.3 else None
        killed = publisher.killed
        kind = chance.choices(["release", "staged", "withdraw", "rollout", "prune", "refresh", "signing key",
                               "description key", "deprecate", "push", "check", "settings"],
                              [30, 10, 6, 8, 8, 4, 3, 3, 3, 4, 3, 3])[0]
        self.log("publish", {"kind": kind, "database": name, "kill_at": kill_at})
        if kind == "release" and is_open:
            kind = chance.choice(["staged", "rollout", "withdraw"])
        if kind == "release":
            done = changes.change(publisher.source(name), chance, LIMITS[name])
            self.log("changed", {"how": done})
            publisher.release(name, kill_at=kill_at)
        elif kind == "staged":
            changes.change(publisher.source(name), chance, LIMITS[name])
            stages = chance.choice(["1%/2d,100%", "30%/2d,60%/2d,100%", "50%", "80%/3d,90%", "100%"])
            publisher.release(name, stages, kill_at)
        elif kind == "withdraw":
            publisher.withdraw(name, kill_at)
        elif kind == "rollout":
            publisher.change_rollout(name, chance.choice(["hold", "resume", "stop", "finish", "finish"]),
                                     kill_at)
        elif kind == "prune":
            publisher.prune(name, chance.choice([3, 6, 10]), chance.choice([0, 0, 1]), kill_at)
        elif kind == "refresh":
            publisher.refresh(kill_at)
        elif kind == "signing key":
            publisher.new_signing_key(kill_at)
        elif kind == "description key":
            publisher.new_description_key()
        elif kind == "deprecate":
            publisher.deprecate(name, chance.random() < 0.7)
        elif kind == "push":
            publisher.push()
        elif kind == "check":
            publisher.check()
        else:
            publisher.settings(chance)
        self.device.end_orphans()
        if publisher.killed > killed:
            self.count("publisher killed")

    def change_settings(self, chance):
        kind = chance.choice(["rollout", "mirrors", "schedule", "rate"])
        path = OVERRIDES + "/operation.conf"
        try:
            settings = json.loads(files.read_bytes(path))
        except (TypeError, ValueError):
            settings = {}
        if kind == "rollout":
            self.setting = chance.choice(["early", "normal", "late", "stable"])
            settings["rollout"] = self.setting
        elif kind == "mirrors":
            settings.pop("mirrors", None)
            if chance.random() < 0.5:
                settings["mirrors"] = ["http://127.0.0.1:%d" % self.server.port]
        elif kind == "rate":
            settings.pop("download_rate_kib", None)
            if chance.random() < 0.3:
                settings["download_rate_kib"] = chance.choice([4000, 20000])
        else:
            self.must("schedule", chance.choice(NAMES), chance.choice(["on", "on", "off"]))
        files.write_bytes(path, json.dumps(settings).encode())
        self.log("settings", {"settings": settings})
        self.count("settings changed")

    # ---- Runs of the device ----

    def some_operation(self, chance):
        """(argv, names, forced version)."""
        kind = chance.choices(["update", "all", "fix", "force", "fix-package", "verify"],
                              [50, 12, 12, 16, 5, 5])[0]
        name = chance.choice(NAMES)
        more = ["--refresh"] if chance.random() < 0.7 else []
        if kind == "update":
            return ["update", name] + more, [name], None
        if kind == "all":
            more += ["--keep-going"] if chance.random() < 0.5 else []
            more += ["--scheduled"] if chance.random() < 0.4 else []
            return ["update", "--all"] + more, NAMES, None
        if kind == "fix":
            return ["fix", name] + more, [name], None
        if kind == "fix-package":
            return ["fix", "--package", name] + more, [name], None
        if kind == "verify":
            return ["verify", name], [], None
        versions = self.publisher.kept_versions(name)
        forced = chance.choice(versions[-8:])
        return ["force-install", name, "--version", str(forced)] + more, [name], forced

    def some_readers(self, chance, names, run):
        readers = []
        if names and chance.random() < 0.45:
            for _ in range(chance.choice([1, 1, 2, 3])):
                name = chance.choice(names)
                readers.append(Reader(name, self.device.directory_of(name), self.device.state_of(name), LOCKS,
                                      random.Random(chance.random()), run.is_alive))
            self.count("readers")
        for reader in readers:
            reader.start()
        return readers

    def disturbed(self, chance, disturbance, operation=None, readers_too=True):
        """Runs an operation with that disturbance and judges what it has led to."""
        argv, names, forced = operation or self.some_operation(chance)
        befores = {name: self.device.look(name) for name in NAMES}
        run = Run(argv, disturbance)
        self.log("run", {"argv": argv, "disturbance": disturbance,
                         "known": {name: [known.state, known.version, known.floor]
                                   for name, known in self.known.items()}})
        readers = self.some_readers(chance, names, run) if readers_too else []
        timers = self.device.start(run)
        self.device.finish(run, timers)
        for reader in readers:
            reader.ended.set()
        for reader in readers:
            reader.join(30)
        self.log("ended", {"status": run.status, "out": run.out[-300:], "err": run.err[-500:],
                           "seconds": round(run.ended - run.began, 3), "hostile": dict(self.server.done)})
        return argv, names, forced, befores, run, readers

    def judged(self, chance, disturbance, operation=None, readers_too=True):
        argv, names, forced, befores, run, readers = self.disturbed(chance, disturbance, operation,
                                                                    readers_too)
        self.judge(names, befores, [run], forced, readers)
        return run

    def installing_operation(self, chance):
        """One that probably has something to install, so that there is something to disturb."""
        name = chance.choice(NAMES)
        versions = self.publisher.kept_versions(name)[-8:]
        forced = chance.choice(versions)
        force = ["force-install", name, "--version", str(forced)]
        way = chance.choice(["as it comes", "force", "after a step back", "after a step back"])
        if way == "force":
            return force, [name], forced
        if way == "after a step back" and len(versions) > 1:
            self.judged(chance, {}, (force, [name], forced), False)
            return [chance.choice(["update", "update", "fix"]), name], [name], None
        return self.some_operation(chance)

    def some_call(self, chance, operation):
        """The number of one of the calls that such an operation makes, as far as is known."""
        argv, names, _ = operation
        key = (argv[0], len(names))
        return key, 1 + int(chance.random() * self.calls.get(key, 150) * 1.05)

    def step_killed_at_call(self, chance):
        operation = self.installing_operation(chance)
        run = self.judged(chance, {"kill_at": self.some_call(chance, operation)[1]}, operation)
        self.count("killed at a call" if run.was_killed() else "undisturbed")

    def step_killed_at_moment(self, chance):
        run = self.judged(chance, {"kill_after": round(chance.random() * 0.2, 4)},
                          self.installing_operation(chance))
        self.count("killed at a moment" if run.was_killed() else "undisturbed")

    def step_signalled(self, chance):
        which = chance.choice(["term_after", "int_after"])
        run = self.judged(chance, {which: round(chance.random() * 0.2, 4)}, self.installing_operation(chance))
        self.count("ended by a signal" if run.status != 0 else "undisturbed")

    def step_power_cut(self, chance):
        operation = self.installing_operation(chance)
        directories = [STATE] + [self.device.directory_of(name) for name in NAMES]
        before = {}
        for directory in directories:
            before.update(power.contents_of(directory))
        key, kill_at = self.some_call(chance, operation)
        argv, names, forced, befores, run, readers = self.disturbed(
            chance, {"kill_at": kill_at, "trace": True}, operation)
        self.device.end_orphans()
        if run.was_killed():
            after = {}
            for directory in directories:
                after.update(power.contents_of(directory))
            calls = power.calls_in(files.read_bytes(self.device.trace))
            mounts = ["/", "/var"] + list(VOLUMES)
            lost = power.cut(power.unsafe(calls, before, after, mounts), chance)
            self.log("power", {"lost": lost, "last": calls[-1:] and calls[-1]})
            run.disturbance["lost"] = lost
            self.count("power cut")
            if lost:
                self.notes["power cuts that lost something"] += 1
            if STATE + "/trust.json" in lost:
                self.trust_lost = True
            # The machine starts anew: nobody waits for a lock of before.
            self.must("init")
        else:
            self.calls[key] = len(power.calls_in(files.read_bytes(self.device.trace)))
            self.count("undisturbed")
        self.judge(names, befores, [run], forced, readers)

    def step_no_space_at_call(self, chance):
        below = chance.choice([self.device.volume() or "/volume1", STATE, STATE, CACHE, "/var/db"])
        run = self.judged(chance, {"full_below": below, "full_from": chance.randrange(1, 40),
                                   "full_count": chance.choice([1, 3, 10 ** 6])},
                          self.installing_operation(chance))
        self.count("no space at a call" if run.status != 0 else "undisturbed")

    def step_full(self, chance):
        where = chance.choice(list(VOLUMES.values()) + ["/var"])
        operation = self.installing_operation(chance)
        self.device.fill(where, chance.choice([0, 4096, 20000, 100000, 500000, 1500000, 3000000]))
        self.count("volume full")
        try:
            self.judged(chance, {}, operation)
        finally:
            self.device.make_room()

    def step_wrong_clock(self, chance):
        days = chance.choice([-4000, -400, -20, -1, 1, 2, 5, 13, 20, 400, 4000])
        self.count("wrong clock")
        disturbance = {"clock": int(days * DAY + chance.randrange(-7200, 7200))}
        self.judged(chance, disturbance)

    def step_hostile(self, chance):
        ways = set(chance.sample(FOR_DESCRIPTIONS + FOR_PACKAGES, chance.choice([1, 2, 5, 30])))
        if chance.random() < 0.4:
            ways |= {"replay", "other"}
        replayed = chance.choice(self.publisher.old).data
        self.server.begin_hostility(chance.random(), ways, chance.choice([0.3, 0.7, 1.0]), replayed)
        self.count("hostile server")
        disturbance = {"kill_at": chance.randrange(1, 330)} if chance.random() < 0.2 else {}
        self.judged(chance, disturbance, self.operation_that_asks(chance))
        self.server.be_honest()

    def operation_that_asks(self, chance):
        argv, names, forced = self.some_operation(chance)
        if argv[0] != "verify" and "--refresh" not in argv:
            argv = argv + ["--refresh"]
        return argv, names, forced

    def step_forgetful(self, chance):
        """The device forgets what it has accepted, files are harmed, and old offers are replayed."""
        name = chance.choice(NAMES)
        lower = [one for one in self.publisher.old
                 if name in one.offers and one.offers[name].newest() < self.known[name].version]
        replayed = chance.choice(lower or self.publisher.old).data
        self.must("trust", "reset")
        self.trust_lost = True
        self.history_since()
        if chance.random() < 0.8:
            self.harm_file(chance, name)
        self.server.begin_hostility(chance.random(), {"replay"}, 1.0, replayed)
        self.count("old offers replayed")
        self.judged(chance, {}, (["update", name, "--refresh"], [name], None))
        if chance.random() < 0.5:
            self.judged(chance, {}, (["fix", name, "--refresh"], [name], None))
        self.server.be_honest()

    def step_unplugged(self, chance):
        volume = self.device.volume()
        if not volume:
            return self.step_operator(chance)
        way = chance.choice(["before", "meanwhile", "announced"])
        if way == "announced":
            return self.step_volume_leaves(chance, volume)
        disturbance = {}
        if way == "meanwhile":
            disturbance = {"unplug_after": round(chance.random() * 0.2, 4), "unplugged": volume}
        self.device.plug(volume)
        operation = self.installing_operation(chance)
        befores = {name: self.device.look(name) for name in NAMES}
        if way == "before":
            self.device.unplug(volume)
        run = Run(operation[0], disturbance)
        self.log("run", {"argv": run.argv, "unplugged": way, "disturbance": disturbance})
        self.device.finish(run, self.device.start(run))
        self.device.unplug(volume)
        written = os.listdir(volume)
        if written:
            self.notes["written below the mount point of a volume unplugged " + way] += 1
            if way == "before":
                raise Broken("below the mount point of a missing volume something was written: %s" % written)
            empty_directory(volume)
        self.device.plug(volume)
        self.log("ended", {"status": run.status, "err": run.err[-500:], "written": written})
        self.count("unplugged " + way)
        self.judge(operation[1], befores, [run], operation[2], [])

    def step_volume_leaves(self, chance, volume):
        """The volume goes away as it should: told before, so that databases move."""
        befores = {name: self.device.look(name) for name in NAMES}
        other = [one for one in VOLUMES if one != volume][0]
        disturbance = {}
        if chance.random() < 0.4:
            disturbance["kill_at"] = chance.randrange(1, 40)
        target = other + "/@database/autoupdate"
        if os.path.isdir(target) and os.listdir(target) and chance.random() < 0.8:
            shutil.rmtree(target)  # whoever has the volume clears it
        run = self.device.run(["volume", "unmounting", volume], disturbance)
        self.device.wait_for_orphans(20)
        self.log("volume", {"left": volume, "status": run.status, "err": run.err[-300:],
                            "now": self.device.volume(), "disturbance": disturbance})
        if not run.was_killed():
            self.device.unplug(volume)
        self.count("volume leaves")
        if not self.device.volume():
            self.device.plug(volume)
            self.must("volume", "mounted", volume)
        self.device.plug(volume)
        broken = []
        for name in NAMES:
            after = self.device.look(name)
            if run.status == 0 and self.device.volume() == other and after.tree != befores[name].tree:
                broken.append("%s: its files did not arrive on the other volume: %s" %
                              (name, oracle.differences(after.tree, befores[name].tree)))
            if after.tree != befores[name].tree and self.known[name].state == EXACT:
                self.known[name].state = HARMED
        broken += oracle.held_locks(LOCKS)
        self.fail_on(broken)

    def harm_file(self, chance, name):
        if oracle.record_belongs(name, self.device.state_of(name)):
            return  # What was there is not known any more: the next operation takes what it finds for it, and says so.
        directory = self.device.directory_of(name)
        extras = self.known[name].extras  # whose content is nobody's promise
        paths = [path for path in changes.paths_in(directory) if path not in extras]
        if not paths:
            return
        time.sleep(0.03)  # a file system's clock has ticks
        path = os.path.join(directory, chance.choice(paths))
        status = os.stat(path)
        kind = chance.choice(["delete", "truncate", "flip", "flip unseen", "empty", "all", "replace by dir"])
        data = files.read_bytes(path)
        if kind == "delete":
            os.remove(path)
        elif kind == "truncate":
            os.truncate(path, len(data) // 2)
        elif kind in ("flip", "flip unseen"):
            data = data or b"\0"
            at = chance.randrange(len(data))
            files.write_bytes(path, data[:at] + bytes([data[at] ^ 1]) + data[at + 1:])
            if kind == "flip unseen":
                os.utime(path, ns=(status.st_atime_ns, status.st_mtime_ns))
        elif kind == "empty":
            files.write_bytes(path, b"")
        elif kind == "replace by dir":
            os.remove(path)
            os.mkdir(path)
        else:
            shutil.rmtree(directory)
        self.log("harm", {"kind": kind, "path": path})
        known = self.known[name]
        if known.state == EXACT:
            after = self.device.look(name)
            tree = self.publisher.truth[name].get(known.version)
            if tree is None or not oracle.is_exactly(after.tree, tree, known.extras):
                known.state = HARMED
        known.record_harmed = True
        self.count("installed files harmed")

    def step_harmed(self, chance):
        self.harm_file(chance, chance.choice(NAMES))
        if chance.random() < 0.6:
            self.judged(chance, {})

    def step_state_harmed(self, chance):
        name = chance.choice(NAMES)
        own = self.device.state_of(name)
        path = chance.choice([own + "/version.json", own + "/installed.json", STATE + "/trust.json",
                              STATE + "/cooldown.json", CACHE + "/database_info.json",
                              STATE + "/history.jsonl", own + "/recovery.mark"])
        data = files.read_bytes(path)
        kind = chance.choice(["delete", "truncate", "garbage"])
        if path.endswith("recovery.mark"):
            os.makedirs(own, exist_ok=True)
            files.write_bytes(path, b"")
            self.known[name].state = CUT
        elif data is None:
            return self.step_operator(chance)
        elif kind == "delete":
            os.remove(path)
        elif kind == "truncate":
            os.truncate(path, chance.randrange(len(data)) if data else 0)
        else:
            files.write_bytes(path, chance.choice([b"\0" * 100, b"{", b"[]", b"{}", chance.randbytes(200)]))
        self.log("state", {"kind": kind, "path": path})
        if path.endswith("trust.json"):
            self.trust_lost = True
            for one in NAMES:
                self.known[one].floor_lost = True
        if path.endswith("version.json"):
            self.known[name].record_harmed = True
            if self.known[name].state == EXACT:
                self.known[name].state = HARMED
        if path.endswith("installed.json"):
            self.known[name].record_harmed = True
        self.history_since()
        self.count("state harmed")
        if chance.random() < 0.5:
            self.judged(chance, {})

    def step_foreign(self, chance):
        """Somebody puts files of their own beside those that are installed, or into the temporary directory."""
        name = chance.choice(NAMES)
        if chance.random() < 0.5:
            directory = self.device.directory_of(name)
            known = self.known[name]
            if not os.path.isdir(directory) or known.state == ABSENT:
                return self.step_operator(chance)
            path = os.path.join(directory, "foreign-%d" % chance.randrange(5))
            if not os.path.exists(path) and os.path.basename(path) not in known.extras:
                files.write_bytes(path, chance.randbytes(50))
                known.extras[os.path.basename(path)] = files.content_of(path)
        else:
            volume = self.device.volume() or "/volume1"
            where = volume + "/@tmp/data_update/%s_full/sub" % name
            os.makedirs(where, exist_ok=True)
            for made in (volume + "/@tmp", volume + "/@tmp/data_update"):
                os.chmod(made, 0o700)
            files.write_bytes(where + "/stale.txt", b"stale")
        self.count("foreign files")
        self.judged(chance, {})

    def step_crowd(self, chance):
        """Several operations on one database at once."""
        name = chance.choice(NAMES)
        befores = {one: self.device.look(one) for one in NAMES}
        forced = None
        argvs = [["update", name, "--refresh"]]
        for _ in range(chance.choice([1, 1, 2])):
            kind = chance.choice(["update", "fix", "force", "verify"])
            if kind == "force":
                forced = chance.choice(self.publisher.kept_versions(name)[-6:])
                argvs.append(["force-install", name, "--version", str(forced)])
            else:
                argvs.append([kind, name])
            if forced:
                break
        runs = [Run(argv, {"kill_after": round(chance.random() * 0.3, 3)} if chance.random() < 0.2 else {})
                for argv in argvs]
        self.log("crowd", {"argvs": argvs, "disturbances": [run.disturbance for run in runs]})

        def is_alive():
            return all(run.is_alive() or run.process.returncode == 0 for run in runs)

        readers = []
        if chance.random() < 0.6:
            for _ in range(2):
                readers.append(Reader(name, self.device.directory_of(name), self.device.state_of(name), LOCKS,
                                      random.Random(chance.random()), is_alive))
                readers[-1].start()
        self.device.run_together(runs)
        for reader in readers:
            reader.ended.set()
        for reader in readers:
            reader.join(30)
        self.log("ended", {"statuses": [run.status for run in runs], "errors": [run.err[-200:] for run in runs]})
        self.count("several at once")
        self.judge([name], befores, runs, forced, readers)

    def step_operator(self, chance):
        """A person's commands, undisturbed: they change what they say and nothing else."""
        self.count("undisturbed")
        self.judged(chance, {})

    def step_from_mirror(self, chance):
        """From the tree that was pushed somewhere, which may be behind."""
        if self.publisher.pushed is None:
            self.publisher.push()
            self.fail_on(self.publisher.broken)
        name = chance.choice(NAMES)
        self.count("from a copy that may be behind")
        kill = {"kill_at": chance.randrange(1, 330)} if chance.random() < 0.3 else {}
        if self.trust_lost and oracle.may_lower(self.publisher.pushed, self.publisher.old):
            self.known[name].floor_lost = True
        self.judged(chance, kill, (["update", name, "--from", MIRROR + "/public"], [name], None))

    def step_orphan(self, chance):
        """The tool is killed while its program hangs, which lives on during the next operation."""
        self.server.begin_hostility(chance.random(), {"silent"}, 1.0)
        name = chance.choice(NAMES)
        self.judged(chance, {"kill_after": 0.15}, (["update", name, "--refresh"], [name], None), False)
        self.server.be_honest()
        self.count("orphans")
        self.judged(chance, {}, (["update", name, "--refresh"], [name], None))


DEVICE_STEPS = {
    "killed at a call": (20, Episode.step_killed_at_call),
    "killed at a moment": (10, Episode.step_killed_at_moment),
    "signalled": (6, Episode.step_signalled),
    "power cut": (16, Episode.step_power_cut),
    "no space at a call": (8, Episode.step_no_space_at_call),
    "full": (6, Episode.step_full),
    "wrong clock": (6, Episode.step_wrong_clock),
    "hostile": (12, Episode.step_hostile),
    "forgetful": (5, Episode.step_forgetful),
    "unplugged": (6, Episode.step_unplugged),
    "harmed": (6, Episode.step_harmed),
    "state harmed": (5, Episode.step_state_harmed),
    "foreign": (3, Episode.step_foreign),
    "crowd": (6, Episode.step_crowd),
    "operator": (6, Episode.step_operator),
    "from mirror": (3, Episode.step_from_mirror),
    "orphan": (2, Episode.step_orphan),
}


def keep(results):
    """Copies what a failure has left to where it stays."""
    for source, target in ((STATE, "state"), (CACHE, "cache"), ("/var/db", "rootfs"), (OVERRIDES, "settings"),
                           ("/soak/volumes", "volumes"), (HOME + "/repo/public/database_info", "offered"),
                           ("/soak/trace", "trace")):
        if os.path.isdir(source):
            shutil.copytree(source, os.path.join(results, target), symlinks=True, dirs_exist_ok=True)
        elif os.path.exists(source):
            shutil.copy2(source, os.path.join(results, target))


def play(seed, steps, until, libraries, results, is_verbose=False, tell=None):
    """Plays one episode; returns what it came to."""
    episode = Episode(seed, libraries, results, is_verbose)
    broken = None
    began = time.time()
    try:
        episode.begin()
        episode.heal()
        while episode.step < steps and time.time() < until:
            episode.step += 1
            episode.run_step()
            if tell:
                tell(episode)
        episode.heal()
        episode.publisher.check()
        episode.fail_on(episode.publisher.broken)
    except Broken as error:
        broken = str(error)
        keep(results)
    episode.log("end", {"broken": broken})
    return {"seed": seed, "steps": episode.step, "broken": broken, "kinds": dict(episode.kinds),
            "outcomes": dict(episode.outcomes), "notes": dict(episode.notes), "readings": episode.readings,
            "seconds": round(time.time() - began, 1)}
