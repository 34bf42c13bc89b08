"""The oracle of scripts/soak finds every state that is broken, and takes none for broken that is not."""

import fcntl
import importlib.machinery
import importlib.util
import json
import os
import random
import sqlite3
import sys
import tempfile
import time
import unittest
import urllib.error
import urllib.request

SCRIPTS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "scripts")
sys.dont_write_bytecode = True
sys.path.insert(0, SCRIPTS)

from soaking import changes, files, oracle, power  # noqa: E402 (its place is known only now)
from soaking.oracle import ABSENT, CUT, EXACT, HARMED, NEVER, Allowed, Known, Look  # noqa: E402
from soaking.publisher import Offer, position_of, share_at  # noqa: E402
from soaking.server import FOR_DESCRIPTIONS, FOR_PACKAGES, Server  # noqa: E402

LOADER = importlib.machinery.SourceFileLoader("soak", os.path.join(SCRIPTS, "soak"))
SPEC = importlib.util.spec_from_loader("soak", LOADER)
soak = importlib.util.module_from_spec(SPEC)
LOADER.exec_module(soak)

ONE = {"a": "1", "b": "1"}
TWO = {"a": "2", "b": "2", "c": "2"}
BOTH = Allowed({1: ONE, 2: TWO}, {})


def known(state=EXACT, version=1, floor=None):
    one = Known()
    one.state, one.version = state, version
    one.floor = one.floor_high = version if floor is None else floor
    return one


def entry(**members):
    return dict({"database": "x", "operation": "update", "outcome": "updated", "from": 1, "to": 2,
                 "time": time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime())}, **members)


class Temporary(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory()
        self.addCleanup(self.directory.cleanup)
        self.at = self.directory.name

    def path(self, *parts):
        return os.path.join(self.at, *parts)

    def write(self, name, data=b"x"):
        os.makedirs(os.path.dirname(self.path(name)), exist_ok=True)
        files.write_bytes(self.path(name), data)


class DisturbedRun(unittest.TestCase):
    def judge(self, after, before=Look(ONE, 1, False), state=None, allowed=BOTH, is_forced=False):
        return oracle.after_run("x", state or known(), before, after, allowed, is_forced)

    def test_old_or_new_files_or_a_mark_are_right(self):
        self.assertEqual(self.judge(Look(ONE, 1, False)), [])
        self.assertEqual(self.judge(Look(TWO, 2, False)), [])
        self.assertEqual(self.judge(Look({"a": "2", "b": "1"}, 1, True)), [])

    def test_mixture_without_a_mark_is_found(self):
        self.assertTrue(self.judge(Look({"a": "2", "b": "1"}, 1, False)))
        self.assertTrue(self.judge(Look({}, 1, False)))

    def test_left_over_file_of_the_former_version_is_found(self):
        self.assertTrue(self.judge(Look(dict(ONE, c="2"), 1, False)))

    def test_record_of_another_version_than_the_files_is_found(self):
        self.assertTrue(self.judge(Look(TWO, 1, False)))
        self.assertTrue(self.judge(Look(ONE, 2, False)))
        self.assertTrue(self.judge(Look(ONE, NEVER, False)))

    def test_version_that_nobody_offered_is_found(self):
        self.assertTrue(self.judge(Look({"a": "3"}, 3, False)))

    def test_version_that_fell_is_found_unless_it_was_asked_for(self):
        before, state = Look(TWO, 2, False), known(version=2)
        self.assertTrue(self.judge(Look(ONE, 1, False), before, state))
        self.assertEqual(self.judge(Look(ONE, 1, False), before, state, is_forced=True), [])

    def test_version_below_the_floor_of_what_was_harmed_is_found(self):
        before = Look({"a": "harmed"}, 2, False)
        self.assertTrue(self.judge(Look(ONE, 1, False), before, known(HARMED, 2)))
        self.assertEqual(self.judge(before, before, known(HARMED, 2)), [])

    def test_mark_that_goes_without_a_repair_is_found(self):
        before = Look({"a": "2"}, 1, True)
        self.assertTrue(self.judge(Look({"a": "2"}, 1, False), before, known(CUT)))
        self.assertTrue(self.judge(Look({"a": "2"}, NEVER, False), before, known(CUT)))
        self.assertEqual(self.judge(Look(TWO, 2, False), before, known(CUT)), [])

    def test_what_was_never_installed_may_stay_so(self):
        nothing = Look({}, NEVER, False)
        self.assertEqual(self.judge(nothing, nothing, known(ABSENT, NEVER)), [])
        self.assertTrue(self.judge(Look({"a": "2"}, NEVER, False), nothing, known(ABSENT, NEVER)))

    def test_other_database_that_changes_is_found(self):
        look = Look(ONE, 1, False)
        self.assertEqual(oracle.others_untouched("x", look, Look(dict(ONE), 1, False)), [])
        for other in (Look(TWO, 1, False), Look(ONE, 2, False), Look(ONE, 1, True)):
            self.assertTrue(oracle.others_untouched("x", look, other))

    def test_files_of_a_version_that_was_installed_meanwhile_may_stay_and_no_others(self):
        after = Look(dict(ONE, c="2"), 1, False)
        self.assertEqual(self.judge(after, allowed=Allowed(BOTH.versions, {"c": "1"}, [TWO])), [])
        self.assertTrue(self.judge(after, allowed=Allowed(BOTH.versions, {"c": "1"})))
        self.assertTrue(self.judge(Look(dict(ONE, c="3"), 1, False), allowed=Allowed(BOTH.versions, {"c": "1"}, [TWO])))

    def test_copy_by_a_newer_key_than_one_that_was_replayed_may_lower_versions(self):
        old, newer = (type("Description", (), {"epoch": epoch}) for epoch in (1, 2))
        self.assertTrue(oracle.may_lower(newer, [newer, old]))
        self.assertFalse(oracle.may_lower(old, [newer, old]))
        self.assertFalse(oracle.may_lower(newer, []))


class HonestUpdate(unittest.TestCase):
    def judge(self, after, expected=(2,), state=None, allowed=BOTH):
        return oracle.after_honest_update("x", state or known(), after, set(expected), allowed)

    def test_exactly_what_is_offered_is_right(self):
        self.assertEqual(self.judge(Look(TWO, 2, False)), [])

    def test_mark_that_stays_is_found(self):
        self.assertTrue(self.judge(Look(TWO, 2, True)))

    def test_other_version_and_other_files_are_found(self):
        self.assertTrue(self.judge(Look(ONE, 1, False)))
        self.assertTrue(self.judge(Look(ONE, 2, False)))
        self.assertTrue(self.judge(Look(dict(TWO, more="3"), 2, False)))

    def test_file_besides_is_right_only_as_it_was(self):
        allowed = Allowed(BOTH.versions, {"more": "3"})
        self.assertEqual(self.judge(Look(dict(TWO, more="3"), 2, False), allowed=allowed), [])
        self.assertTrue(self.judge(Look(dict(TWO, more="4"), 2, False), allowed=allowed))

    def test_version_below_the_floor_is_found(self):
        self.assertTrue(self.judge(Look(ONE, 1, False), (1,), known(CUT, 1, floor=2)))


class Readers(unittest.TestCase):
    def test_one_version_at_both_ends_is_right(self):
        self.assertEqual(oracle.while_read("x", TWO, TWO, BOTH, ONE, False), [])
        self.assertEqual(oracle.while_read("x", {"a": "harmed"}, {"a": "harmed"}, BOTH, {"a": "harmed"},
                                           False), [])

    def test_mixture_is_found(self):
        mixture = {"a": "2", "b": "1"}
        self.assertTrue(oracle.while_read("x", mixture, mixture, BOTH, ONE, False))
        self.assertEqual(oracle.while_read("x", mixture, mixture, BOTH, ONE, True), [])

    def test_operation_that_ends_in_the_middle_is_known_by_its_mark_or_by_who_has_put_it_right(self):
        self.assertTrue(oracle.was_cut_short(True, [1]))
        self.assertFalse(oracle.was_cut_short(False, [1]))
        self.assertFalse(oracle.was_cut_short(False, [0, 0]))
        self.assertTrue(oracle.was_cut_short(False, [0, 1]))
        self.assertTrue(oracle.was_cut_short(False, [-9, 0]))

    def test_harmed_file_that_a_forced_installation_leaves_may_be_repaired_later(self):
        self.assertTrue(oracle.may_stay_harmed(HARMED, {"a": "1", "old": "harmed"}, {"a": "1"}))
        self.assertFalse(oracle.may_stay_harmed(HARMED, {"a": "1"}, {"a": "1"}))
        self.assertFalse(oracle.may_stay_harmed(EXACT, {"a": "1", "old": "1"}, {"a": "1"}))

    def test_change_under_the_lock_is_found(self):
        self.assertTrue(oracle.while_read("x", ONE, TWO, BOTH, ONE, False))
        self.assertTrue(oracle.while_read("x", ONE, TWO, BOTH, ONE, True))

    def test_opened_file_that_changes_is_found(self):
        self.assertEqual(oracle.kept_open("x", {"a": b"1"}, {"a": b"1"}), [])
        self.assertTrue(oracle.kept_open("x", {"a": b"1"}, {"a": b""}))


class WhatIsLeft(Temporary):
    def left(self, known_packages=("d",), repairing=("d",)):
        return oracle.left_overs(self.path("volume"), [self.path("volume")], self.path("state"), self.path("cache"), ["x"],
                                 set(known_packages), set(repairing))

    def test_what_belongs_there_is_right(self):
        for name in ("state/x/version.json", "state/x/installed.json", "state/trust.json",
                     "cache/database_info.json", "volume/@database/partial-downloads/d"):
            self.write(name)
        self.assertEqual(self.left(), [])

    def test_each_left_over_is_found(self):
        for name in ("volume/@tmp/data_update/x_full/a", "volume/@database/partial-downloads/other",
                     "cache/database_info.json.new", "state/trust.json.new", "state/x/recovery.mark",
                     "state/x/installed.json.new"):
            with self.subTest(name):
                self.write(name)
                self.assertEqual(len(self.left()), 1)
                top = self.path(name.split("/")[0])
                os.rename(top, top + " " + name.replace("/", "_"))

    def test_half_written_file_is_right_only_after_a_kill(self):
        for name in ("state/x/verified.json.new", "state/trust.json.new", "state/move.json.new"):
            self.write(name)
        arguments = (self.path("volume"), [self.path("volume")], self.path("state"), self.path("cache"), ["x"],
                     set(), set())
        self.assertEqual(len(oracle.left_overs(*arguments)), 3)
        self.assertEqual(oracle.left_overs(*arguments, was_killed=True), [])
        for name in ("state/x/other.new", "cache/database_info.json.new"):
            self.write(name)
        self.assertEqual(len(oracle.left_overs(*arguments, was_killed=True)), 2)

    def test_partial_download_that_no_repair_goes_on_with_is_found_when_everything_is_installed(self):
        self.write("volume/@database/partial-downloads/d")
        self.assertTrue(self.left(repairing=()))

    def test_more_than_eight_partial_downloads_are_found(self):
        names = [str(number) for number in range(9)]
        for name in names:
            self.write("volume/@database/partial-downloads/" + name)
        self.assertEqual(len(self.left(names, names)), 1)

    def test_held_lock_is_found(self):
        self.write("update_any.lock")
        self.assertEqual(oracle.held_locks(self.at), [])
        with open(self.path("update_any.lock")) as file:
            fcntl.flock(file, fcntl.LOCK_EX)
            self.assertTrue(oracle.held_locks(self.at))
        self.assertEqual(oracle.held_locks(self.at), [])

    def test_what_is_no_lock_is_found_among_them(self):
        self.write("answer")
        self.assertTrue(oracle.held_locks(self.at))

    def test_record_of_another_version_file_is_found(self):
        self.write("version.json", b"v")
        self.write("installed.json", json.dumps({"version_file": files.digest_of(b"v")}).encode())
        self.assertEqual(oracle.record_belongs("x", self.at), [])
        self.write("version.json", b"w")
        self.assertTrue(oracle.record_belongs("x", self.at))
        os.remove(self.path("installed.json"))
        self.assertTrue(oracle.record_belongs("x", self.at))

    def test_floor_that_is_lower_or_missing_is_found(self):
        self.write("trust.json", b'{"databases": {"x": {"floor": 1}}}')
        self.assertEqual(oracle.floor_is("x", known(version=1), self.path("trust.json")), [])
        self.assertTrue(oracle.floor_is("x", known(version=2), self.path("trust.json")))
        self.assertTrue(oracle.floor_is("y", known(version=1), self.path("trust.json")))

    def test_file_that_others_may_write_is_found(self):
        self.write("a")
        os.chmod(self.path("a"), 0o644)
        self.assertEqual(files.open_to_others(self.at), [])
        os.chmod(self.path("a"), 0o646)
        self.assertEqual(files.open_to_others(self.at), ["a"])

    def test_look_reads_what_is_there(self):
        self.write("files/sub/a", b"1")
        self.write("state/version.json", b'{"data_version": "7"}')
        look = oracle.look_at(self.path("files"), self.path("state"))
        self.assertEqual((look.tree, look.recorded, look.mark), ({"sub/a": files.digest_of(b"1")}, 7, False))
        self.write("state/recovery.mark", b"")
        self.write("state/version.json", b'{"data_ver')
        look = oracle.look_at(self.path("files"), self.path("state"))
        self.assertEqual((look.recorded, look.mark), (NEVER, True))


class History(unittest.TestCase):
    def update(self, *entries, state=EXACT, before=1, after=2):
        now = time.time()
        return oracle.history_of_update("x", list(entries), state, before, after, now, now)

    def test_true_line_is_right(self):
        self.assertEqual(self.update(entry()), [])
        self.assertEqual(self.update(entry(outcome="up-to-date", to=1), after=1), [])
        self.assertEqual(self.update(entry(outcome="repaired", **{"from": NEVER}), state=CUT), [])

    def test_every_untruth_is_found(self):
        for wrong in (dict(database="y"), dict(operation="fix"), dict(to=3), {"from": 0},
                      dict(outcome="up-to-date"), dict(outcome="failed"), dict(time="2000-01-01T00:00:00Z")):
            with self.subTest(wrong):
                self.assertEqual(len(self.update(entry(**wrong))), 1)

    def test_missing_and_second_line_are_found(self):
        self.assertTrue(self.update())
        self.assertTrue(self.update(entry(), entry()))

    def disturbed(self, entries, after, state=EXACT):
        return oracle.history_of_disturbed("x", entries, state, after, {1, 2})

    def test_disturbed_run_may_tell_nothing_but_no_untruth(self):
        two = Look(TWO, 2, False)
        self.assertEqual(self.disturbed([], two), [])
        self.assertEqual(self.disturbed([entry()], two), [])
        self.assertEqual(self.disturbed([entry(to=9, database="y")], two), [])
        self.assertTrue(self.disturbed([entry(to=3)], Look(TWO, 3, False)))
        self.assertEqual(self.disturbed([entry(outcome="failed")], two), [])
        self.assertTrue(self.disturbed([entry(outcome="failed")], Look(ONE, 1, False)))
        self.assertTrue(self.disturbed([entry(outcome="intact")], two))
        self.assertEqual(self.disturbed([entry(outcome="failed")], Look(TWO, 2, True)), [])
        self.assertTrue(self.disturbed([entry()], Look(ONE, 1, False)))

    def test_lines_that_are_none_are_counted(self):
        self.assertEqual(oracle.history_lines(b'{"a": 1}\n{"a"\n'), ([{"a": 1}], 1))


class Tools(unittest.TestCase):
    def test_exit_status_of_a_fault_is_found(self):
        for status in (0, 1, 12, 143, -9):
            self.assertEqual(oracle.exit_status(["x"], status, True), [])
        for status in (2, 134, 139, -6, -11, 127):
            self.assertTrue(oracle.exit_status(["x"], status, True))
        self.assertTrue(oracle.exit_status(["x"], 1, False))

    def test_status_that_tells_another_thing_is_found(self):
        told = {"installed": 2, "state": "up-to-date"}
        self.assertEqual(oracle.status_tells("x", told, known(), Look(TWO, 2, False), 2), [])
        self.assertTrue(oracle.status_tells("x", told, known(), Look(TWO, 2, False), 3))
        self.assertTrue(oracle.status_tells("x", told, known(), Look(TWO, 2, True), 2))
        self.assertTrue(oracle.status_tells("x", told, known(), Look(ONE, 1, False), 2))


class Offers(unittest.TestCase):
    def test_positions_are_those_of_the_signed_text(self):
        self.assertEqual(position_of("ab12", "oui", 7), 410)

    def test_plan_reaches_devices_by_position_setting_and_what_they_had(self):
        offer = Offer(5, 7, 411, False, [])
        self.assertEqual(offer.to_device("ab12", "oui", 5, "normal"), 7)
        offer.share = 410
        self.assertEqual(offer.to_device("ab12", "oui", 5, "normal"), 5)
        self.assertEqual(offer.to_device("ab12", "oui", 5, "early"), 7)
        self.assertEqual(offer.to_device("ab12", "oui", 5, "late"), 5)
        self.assertEqual(offer.to_device("ab12", "oui", 5, "stable"), 5)
        self.assertEqual(offer.to_device("ab12", "oui", 6, "stable"), 7)
        offer.is_stopped = True
        self.assertEqual(offer.to_device("ab12", "oui", 5, "early"), 5)
        self.assertEqual(offer.to_device("ab12", "oui", 6, "early"), 6)
        self.assertEqual(offer.to_device("ab12", "oui", 7, "stable"), 7)

    def test_share_follows_the_steps_until_it_is_held(self):
        plan = {"start": 100, "steps": [{"share": 1, "seconds": 10}, {"share": 5, "seconds": 0}]}
        self.assertEqual([share_at(plan, at)[0] for at in (99, 100, 109, 110, 10 ** 9)], [0, 1, 1, 5, 5])
        self.assertEqual(share_at(dict(plan, held=105), 200), (1, False))
        self.assertEqual(share_at(dict(plan, stopped=True), 200), (5, True))


class PowerCut(Temporary):
    MOUNTS = ["/", "/s", "/v"]

    def unsafe(self, calls, before, after):
        return power.unsafe(calls, before, after, self.MOUNTS)

    def test_last_call_was_not_made(self):
        self.assertEqual(power.calls_in(b"1.0 open64 /s/a b\n1.1 fsync /s/a b\n"), [("open64", "/s/a b")])

    def test_new_name_may_be_lost_until_its_directory_is_synced(self):
        made = [("open64", "/s/mark"), ("fsync", "/s/mark")]
        self.assertEqual(self.unsafe(made, {}, {"/s/mark": b""}), {"/s/mark": [None]})
        self.assertEqual(self.unsafe(made + [("fsync", "/s")], {}, {"/s/mark": b""}), {})

    def test_removed_name_may_come_back_until_its_directory_is_synced(self):
        self.assertEqual(self.unsafe([("remove", "/s/m")], {"/s/m": b"1"}, {}), {"/s/m": [b"1"]})
        self.assertEqual(self.unsafe([("remove", "/s/m"), ("fsync", "/s")], {"/s/m": b"1"}, {}), {})

    def test_replaced_file_may_be_the_former_one(self):
        calls = [("rename", "/s/t")]
        self.assertEqual(self.unsafe(calls, {"/s/t": b"1"}, {"/s/t": b"2"}), {"/s/t": [b"1"]})
        self.assertEqual(self.unsafe(calls + [("fsync", "/s")], {"/s/t": b"1"}, {"/s/t": b"2"}), {})

    def test_file_written_in_place_may_be_cut_until_it_is_synced(self):
        calls = [("fopen64", "/s/v"), ("write", "/s/v")]
        self.assertEqual(self.unsafe(calls, {"/s/v": b"1"}, {"/s/v": b"22"}), {"/s/v": [b"1", b"", b"2"]})
        self.assertEqual(self.unsafe(calls + [("fsync", "/s/v")], {"/s/v": b"1"}, {"/s/v": b"22"}), {})

    def test_whole_file_system_that_is_synced_is_safe_and_no_other(self):
        calls = [("open64", "/v/a"), ("open64", "/s/a"), ("syncfs", "/v/dir")]
        self.assertEqual(self.unsafe(calls, {}, {"/v/a": b"", "/s/a": b""}), {"/s/a": [None]})

    def test_cut_takes_away_only_what_is_unsafe(self):
        self.write("a", b"new")
        self.write("b", b"new")
        lost = []
        for seed in range(20):
            lost += power.cut({self.path("a"): [b"old"]}, random.Random(seed))
        self.assertIn(self.path("a"), lost)
        self.assertEqual(files.read_bytes(self.path("a")), b"old")
        self.assertEqual(files.read_bytes(self.path("b")), b"new")


class Contents(Temporary):
    def make_database(self, name, rows, way):
        connection = sqlite3.connect(self.path(name))
        connection.execute("CREATE TABLE t(a INTEGER PRIMARY KEY, b TEXT)")
        if way == "one by one":
            connection.execute("INSERT INTO t VALUES(99, 'gone')")
            connection.commit()
            connection.execute("DELETE FROM t WHERE a = 99")
        connection.executemany("INSERT INTO t VALUES(?, ?)", rows)
        connection.commit()
        connection.close()

    def test_sqlite_file_is_what_its_rows_are(self):
        self.make_database("a", [(1, "x"), (2, "y")], "at once")
        self.make_database("b", [(1, "x"), (2, "y")], "one by one")
        self.make_database("c", [(1, "x"), (2, "z")], "at once")
        self.assertNotEqual(files.read_bytes(self.path("a")), files.read_bytes(self.path("b")))
        self.assertEqual(files.content_of(self.path("a")), files.content_of(self.path("b")))
        self.assertNotEqual(files.content_of(self.path("a")), files.content_of(self.path("c")))

    def test_damaged_sqlite_file_is_no_other_one(self):
        self.make_database("a", [(1, "x")], "at once")
        data = files.read_bytes(self.path("a"))
        self.write("b", data[:2000])
        self.assertEqual(files.content_of(self.path("b")), files.digest_of(data[:2000]))

    def test_changes_are_those_of_their_seed(self):
        trees = []
        for name in ("one", "two", "three"):
            chance = random.Random(7 if name != "three" else 8)
            changes.new_tree(self.path(name), chance, False)
            for _ in range(30):
                changes.change(self.path(name), chance, 200000)
            trees.append(files.tree_of(self.path(name)))
        self.assertEqual(trees[0], trees[1])
        self.assertNotEqual(trees[0], trees[2])

    def test_every_kind_of_change_changes_something(self):
        for kind, action in changes.KINDS.items():
            with self.subTest(kind):
                at = self.path(kind)
                changes.new_tree(at, random.Random(1), False)
                before = files.tree_of(at)
                modes = [os.stat(os.path.join(at, path)).st_mode for path in changes.paths_in(at)]
                for seed in range(9):
                    action(at, random.Random(seed))
                after = [os.stat(os.path.join(at, path)).st_mode for path in changes.paths_in(at)]
                self.assertTrue(files.tree_of(at) != before or after != modes)


class HostileServer(Temporary):
    def ask(self, server, path, heads=()):
        request = urllib.request.Request("http://127.0.0.1:%d%s" % (server.port, path), headers=dict(heads))
        try:
            with urllib.request.urlopen(request, timeout=10) as answer:
                return answer.status, answer.read(1 << 20)
        except urllib.error.HTTPError as error:
            return error.code, b""
        except Exception as error:
            return type(error).__name__, b""

    def test_honest_one_gives_what_is_there_whole_and_in_parts(self):
        self.write("database_info/1", b"0123456789")
        server = Server(self.at, None)
        self.assertEqual(self.ask(server, "/database_info/1?os=tmo&dlid=abc"), (200, b"0123456789"))
        self.assertEqual(server.identifier, "abc")
        self.assertEqual(self.ask(server, "/database_info/1", {"Range": "bytes=4-"}), (206, b"456789"))
        self.assertEqual(self.ask(server, "/none")[0], 404)
        self.assertEqual(self.ask(server, "/../" + os.path.basename(self.at))[0], 404)

    def test_every_hostile_way_is_another_answer(self):
        body = b'{"signature":"","signed":"{\\"version\\":1000001}"}' * 40
        self.write("database_info/1", body)
        self.write("p/x_v1", body)
        self.write("p/x_v2", b"another package")
        server = Server(self.at, Server(self.at, None))
        for path, ways in (("/database_info/1", FOR_DESCRIPTIONS), ("/p/x_v1", FOR_PACKAGES)):
            for way in ways:
                if way in ("good-redirect", "silent"):
                    continue
                with self.subTest(way):
                    server.begin_hostility(1, {way}, 1.0, b"an older one")
                    self.assertNotEqual(self.ask(server, path), (200, body))
                    self.assertGreaterEqual(server.done[way], 1)
        server.be_honest()
        self.assertEqual(self.ask(server, "/database_info/1"), (200, body))


class Driver(unittest.TestCase):
    RESULT = {"seed": "4", "steps": 9, "readings": 3, "kinds": {"power cut": 2, "undisturbed": 5},
              "outcomes": {"killed": 2}, "notes": {}, "broken": None}

    def test_undisturbed_runs_are_no_disturbances(self):
        total = soak.Sum()
        total.add(self.RESULT, "there")
        self.assertEqual(total.disturbances(), 2)
        self.assertIn("       0  broken invariants", list(total.lines(1)))

    def test_broken_invariant_is_told_with_its_seed(self):
        total = soak.Sum()
        total.add(dict(self.RESULT, broken="a mixture"), "there")
        text = "\n".join(total.lines(1))
        self.assertIn("1  broken invariants", text)
        self.assertIn("seed 4, step 9: a mixture", text)
        self.assertIn("scripts/soak --seed 4 --steps 9", text)

    def test_library_that_is_to_be_loaded_before_the_programs_and_is_not_there_is_told(self):
        with tempfile.TemporaryDirectory() as built:
            self.assertEqual(len(soak.missing(built)), 2)
            os.mkdir(os.path.join(built, "lib"))
            for library in soak.missing(built):
                open(library, "w").close()
            self.assertEqual(soak.missing(built), [])

    def test_either_hours_or_steps(self):
        self.assertEqual(soak.arguments_of(["4"]).hours, 4)
        self.assertEqual(soak.arguments_of(["--seed", "3", "--steps", "5"]).seed, 3)
        for words in ([], ["4", "--steps", "5"], ["0"], ["4", "--jobs", "0"]):
            with self.subTest(words), self.assertRaises(SystemExit), open(os.devnull, "w") as nothing:
                error, sys.stderr = sys.stderr, nothing
                try:
                    soak.arguments_of(words)
                finally:
                    sys.stderr = error


if __name__ == "__main__":
    unittest.main()
