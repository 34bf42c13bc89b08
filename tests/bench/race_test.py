"""The parts of bench/race that figures depend on: what the server counts and how fast it is, and what is made of rounds."""

import http.client
import json
import socket
import sys
import tempfile
import threading
import unittest
from pathlib import Path
from unittest import mock

sys.dont_write_bytecode = True
sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "bench"))

from racelib import document, programs, race, results, server  # noqa: E402


class Served(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory()
        self.addCleanup(self.directory.cleanup)
        root = Path(self.directory.name)
        (root / "www").mkdir()
        (root / "outside").write_text("secret")
        self.content = bytes(range(256)) * 4
        (root / "www/file").write_bytes(self.content)
        self.line, self.counts = server.Line(), server.Counts()
        listener = socket.create_server(("127.0.0.1", 0))
        self.addCleanup(listener.close)
        threading.Thread(target=self.accept, args=(listener, root / "www"), daemon=True).start()
        self.connection = http.client.HTTPConnection("127.0.0.1", listener.getsockname()[1])
        self.addCleanup(self.connection.close)

    def accept(self, listener, root):
        try:
            server.accept(listener, root, self.line, self.counts)
        except OSError:
            pass  # The test has ended.

    def get(self, path, headers=None, method="GET"):
        self.connection.request(method, path, headers=headers or {})
        answer = self.connection.getresponse()
        return answer, answer.read()

    def test_what_was_sent_is_counted_over_one_connection(self):
        for _ in range(3):
            answer, body = self.get("/file?query")
            self.assertEqual((answer.status, body), (200, self.content))
        found = self.counts.settled()
        self.assertEqual((found["body"], found["requests"], found["connections"]), (3 * len(self.content), 3, 1))
        self.assertGreater(found["head"], 0)
        self.assertGreater(found["requested"], 0)

    def test_one_range_and_several(self):
        answer, body = self.get("/file", {"Range": "bytes=10-19"})
        self.assertEqual((answer.status, body, answer.headers["Content-Range"]),
                         (206, self.content[10:20], "bytes 10-19/1024"))
        answer, body = self.get("/file", {"Range": "bytes=0-1,1020-"})
        self.assertEqual(answer.status, 206)
        parts = body.split(("--" + server.BOUNDARY).encode())
        self.assertEqual([part.partition(b"\r\n\r\n")[2] for part in parts[1:3]],
                         [self.content[:2] + b"\r\n", self.content[1020:] + b"\r\n"])
        self.assertEqual(self.get("/file", {"Range": "bytes=5000-"})[0].status, 416)

    def test_nothing_outside_is_served(self):
        for path in ("/../outside", "/%2e%2e/outside", "/missing", "/"):
            self.assertEqual(self.get(path)[0].status, 404, path)

    def test_head_sends_no_body(self):
        answer, body = self.get("/file", method="HEAD")
        self.assertEqual((answer.headers["Content-Length"], body), ("1024", b""))


class Remembering(programs.Program):
    """It refuses to update what was copied, until it has looked at it anew; for that it asks the server something."""
    key = label = "remembering"

    def install(self, device):
        return f"mkdir {device}/new; echo old >{device}/new/file; stat -c %i {device}/new/file >{device}/seen"

    def after_copy(self, device):
        return f"""
python3 -c "import urllib.request; urllib.request.urlopen('{self.url}/question').read()"
stat -c %i {device}/new/file >{device}/seen
echo settled >>{self.shop}/told
"""

    def update(self, device):
        return f"""
[ "$(stat -c %i {device}/new/file)" = "$(cat {device}/seen)" ]
echo updated >>{self.shop}/told
echo new >{device}/new/file
"""


class StallTest(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory()
        self.addCleanup(self.directory.cleanup)
        root = Path(self.directory.name)
        (root / "www").mkdir()
        running = self.enterContext(race.Server(root / "www"))
        for text in ("old", "new"):
            (root / text).mkdir()
            (root / text / "file").write_text(text + "\n")
        self.root, self.stall = root, race.Stall(Remembering, root, running, "some", patience_seconds=60)
        (self.stall.shelf / "question").touch()
        self.stall.install(root / "old")

    def told(self):
        return (self.stall.shop / "told").read_text().split()

    def test_a_copied_device_settles_before_it_is_measured(self):
        for _ in range(2):
            cost = self.stall.update(1, 2, race.LOOPBACK, self.root / "new")
            self.assertEqual(cost["requests"], 0)
        self.assertEqual(self.told(), ["settled", "updated"] * 2)

    def test_the_kept_device_itself_needs_not_settle(self):
        self.stall.last_update(1, 2, race.LOOPBACK, self.root / "new")
        self.assertEqual(self.told(), ["updated"])


class Clock:
    now = 0.0

    def sleep(self, seconds):
        self.now += seconds


class LineTest(unittest.TestCase):
    def test_all_connections_share_its_speed(self):
        clock, line = Clock(), server.Line()
        line.bytes_per_second = 1000
        with mock.patch.object(server.time, "monotonic", lambda: clock.now), \
                mock.patch.object(server.time, "sleep", clock.sleep):
            line.wait(10)
            begin = clock.now
            for _ in range(50):
                line.wait(100)
        self.assertAlmostEqual(clock.now - begin, 5.0)

    def test_idle_time_is_no_credit(self):
        clock, line = Clock(), server.Line()
        line.bytes_per_second = 1000
        clock.now = 100.0
        with mock.patch.object(server.time, "monotonic", lambda: clock.now), \
                mock.patch.object(server.time, "sleep", clock.sleep):
            line.wait(1000)
        self.assertGreaterEqual(clock.now, 101.0 - server.CREDIT_SECONDS)


def written(directory, seconds_of_other, wire_of_other, **more_about):
    """Results of tolmdbud (2 s and 1 MB) and another program, in three rounds on loopback and one at 8 Mbit/s."""
    cost = dict(set="a", user_seconds=1, system_seconds=0, peak_kib=1024, requests=2, stored_bytes=1)
    runs = [dict(cost, program=program, phase="update", line_mbits=line, round=number, seconds=seconds, wire_bytes=wire)
            for program, wire, middle in (("tolmdbud", 1000000, 2.0), ("other", wire_of_other, seconds_of_other))
            for line, number, seconds in ((0, 1, middle / 2), (0, 2, 9 * middle), (0, 3, middle), (8, 1, 3 * middle))]
    runs += [dict(cost, program=program, phase=phase, line_mbits=0, round=1, seconds=1.0, wire_bytes=1)
             for program in ("tolmdbud", "other") for phase in ("install", "publish")]
    about = {"date": "2000-01-01", "command": "bench/race run", "others_share": 0.5, "patience_seconds": 9,
             "machine": {"kind": "a machine", "processors": 1, "architecture": "x", "memory_gib": 1, "system": "s",
                         "file_system": "f"},
             "versions": {}, "programs": [["tolmdbud", "tolmdbud"], ["other", "Other"]], "lines_mbits": [8], **more_about}
    path = Path(directory, "results.json")
    path.write_text(json.dumps({
        "about": about, "runs": runs, "left_out": [{"set": "a", "program": "other"}],
        "sets": [{"name": "a", "title": "set a", "group": "real", "measure": 0, "missed": 0,
                  "versions": [{"bytes": 1, "files": 1}] * 2}]}))
    return results.Results(path, Path(directory, "no-releases"))


class ResultsTest(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory()
        self.addCleanup(self.directory.cleanup)
        self.results = written(self.directory.name, seconds_of_other=2.0, wire_of_other=4000000)
        self.set = self.results.sets[0]

    def test_a_figure_is_the_median_of_the_rounds_on_one_line(self):
        self.assertEqual(self.results.median(self.set, "other", "seconds"), 2.0)
        self.assertEqual(self.results.median(self.set, "other", "seconds", line=8), 6.0)
        self.assertIsNone(self.results.median(self.set, "other", "seconds", line=10))
        self.assertEqual(self.results.rounds(self.set), 3)

    def test_slower_lines_are_bytes_and_loopback(self):
        self.assertAlmostEqual(self.results.modelled(self.set, "other", 8), 4 + 2)
        self.assertEqual([round(part, 6) for _, _, part in self.results.deviations()], [1.0, 0.0])

    def test_a_ratio_is_to_tolmdbud(self):
        ratio = self.results.ratio([self.set], "other",
                                   lambda one, key: self.results.median(one, key, "wire_bytes"))
        self.assertAlmostEqual(ratio, 4)

    def test_measured_releases_may_be_missing(self):
        self.assertEqual(self.results.releases, [])
        path = Path(self.directory.name, "releases.tsv")
        path.write_text("releases\tquick\tlist\tquick_processors\n20\t1.5\t0.1\t2\n80\t6\t0.2\t9\n")
        self.assertEqual(results.read_releases(path), [(20, "check --quick", 1.5), (20, "list", 0.1),
                                                       (80, "check --quick", 6.0), (80, "list", 0.2)])
        self.assertEqual(results.read_releases(path, "_processors"), [(20, "check --quick", 2.0), (80, "check --quick", 9.0)])


class DocumentTest(unittest.TestCase):
    def text(self, **others):
        with tempfile.TemporaryDirectory() as directory:
            return document.text(written(directory, **others))

    def test_where_another_program_takes_less_is_said(self):
        text = self.text(seconds_of_other=1.0, wire_of_other=4000000)
        self.assertIn("- seconds, update on loopback: more than Other (2.00)", text)
        self.assertNotIn("- bytes on the wire, update: more", text)
        self.assertIn("| seconds, update on loopback | **0.50** |", text)
        self.assertIn("| bytes on the wire, update | 4.00 |", text)

    def test_nothing_is_said_where_no_program_takes_less(self):
        self.assertNotIn("Where tolmdbud takes more", self.text(seconds_of_other=4.0, wire_of_other=4000000))

    def test_a_machine_that_was_busy_and_programs_left_out_are_said(self):
        text = self.text(seconds_of_other=4.0, wire_of_other=4000000)
        self.assertIn("Other work took 50% of the processors' time meanwhile, so **times are rough**.", text)
        self.assertIn("Left out, because publishing took longer than 9 s: Other of set a.", text)

    def test_whether_copied_devices_have_settled_is_said(self):
        others = {"seconds_of_other": 4.0, "wire_of_other": 4000000}
        self.assertIn("**tolmdbud digested all installed files anew**", self.text(**others))
        text = self.text(**others, copies_settle=True)
        self.assertIn("Copies therefore ran `tolmdbud fix` before", text)
        self.assertNotIn("digested all installed files anew", text)


class CheckTest(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory()
        self.addCleanup(self.directory.cleanup)
        self.old, self.new = (Path(self.directory.name, name) for name in ("old", "new"))
        for tree in (self.old, self.new):
            tree.mkdir()
            (tree / "file").write_text("the same")

    def test_equal_trees_are_right(self):
        race.check_tree("some", self.old, self.new)

    def test_another_byte_ends_the_race(self):
        (self.new / "file").write_text("another")
        with self.assertRaisesRegex(race.RaceError, "file is not as it was published"):
            race.check_tree("some", self.old, self.new)

    def test_a_file_too_many_ends_the_race(self):
        (self.new / "more").touch()
        with self.assertRaisesRegex(race.RaceError, "missing or too many"):
            race.check_tree("some", self.old, self.new)


if __name__ == "__main__":
    unittest.main()
