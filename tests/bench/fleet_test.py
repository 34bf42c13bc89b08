"""bench/fleet: what its pictures say, what it reads of nginx and of the simulation, and what it is told to run."""

import importlib.util
import sys
import tempfile
import unittest
from importlib.machinery import SourceFileLoader
from pathlib import Path
from xml.etree import ElementTree

sys.dont_write_bytecode = True
FLEET = Path(__file__).resolve().parents[2] / "bench/fleet"
sys.path.insert(0, str(FLEET))
from fleetlib import pictures, scenarios
from fleetlib.simulate import Failed, read_series


def program(name):
    loader = SourceFileLoader(f"fleet_{name}", str(FLEET / name))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader(loader.name, loader))
    loader.exec_module(module)
    return module


class Pictures(unittest.TestCase):
    def drawn(self, **options):
        with tempfile.TemporaryDirectory() as scratch:
            path = Path(scratch) / "picture.svg"
            pictures.lines(path, "A < B", "What is seen & said", "MB", [("one", [(0, 0), (3600, 10)]), ("two", [(0, 1000), (3600, 5)])],
                           **options)
            return ElementTree.parse(path).getroot()

    def test_a_picture_says_what_it_shows(self):
        root = self.drawn(bands=[(600, 1200, "outage")])
        texts = ["".join(one.itertext()) for one in root]
        self.assertIn("A < B", texts)
        self.assertIn("What is seen & said", texts)
        self.assertIn("outage", texts)
        self.assertIn("1,000", texts)

    def test_points_lie_where_their_values_are(self):
        lines = [one.get("points") for one in self.drawn() if one.tag.endswith("polyline")]
        first, last = (tuple(map(float, point.split(","))) for point in lines[0].split())
        self.assertEqual(first, (pictures.LEFT, pictures.HEIGHT - 40))
        self.assertEqual(last[0], pictures.WIDTH - pictures.RIGHT)
        top = float(lines[1].split()[0].split(",")[1])
        self.assertAlmostEqual((first[1] - last[1]) / (first[1] - top), 10 / 1000, places=2)

    def test_powers_of_ten_are_as_far_from_one_another(self):
        points = [one.get("points") for one in self.drawn(powers=True) if one.tag.endswith("polyline")]
        bottom = pictures.HEIGHT - 40
        ten = bottom - float(points[0].split()[1].split(",")[1])
        thousand = bottom - float(points[1].split()[0].split(",")[1])
        self.assertAlmostEqual(thousand, 3 * ten, delta=0.3)

    def test_any_span_of_time_and_any_values_are_drawn(self):
        for points in ([(0, 5)], [(0, 0), (600, 0)], [(0, 1), (400 * 86400, 2)]):
            for powers in (False, True):
                with self.subTest(points=points, powers=powers), tempfile.TemporaryDirectory() as scratch:
                    path = Path(scratch) / "picture.svg"
                    pictures.lines(path, "t", "d", "u", [("one", points)], powers=powers)
                    self.assertNotIn("nan", path.read_text())
        self.assertLessEqual(len(list(pictures.hour_ticks(0, 400 * 86400))), 9)

    def test_marks_are_round_and_reach_the_most(self):
        for most in (0.3, 1, 7, 42, 999, 1001, 12345):
            marks = pictures.ticks(most)
            self.assertGreaterEqual(marks[-1], most)
            self.assertLessEqual(len(marks), 6)
            self.assertEqual(marks[0], 0)


class Reading(unittest.TestCase):
    def test_requests_are_told_apart_by_their_paths(self):
        requests_of = program("real").requests_of
        log = ("1.5 200 2835 /database_info/1?os=tmo&dlid=0123456789abcdef&db_list[vendors]=1\n"
               "2.5 200 25000 /packages/vendors/vendors_d1000002\n3.5 200 400000 /packages-2/vendors/vendors_v1000002\n")
        self.assertEqual(requests_of(log), [(1.5, "description", 2835), (2.5, "delta", 25000), (3.5, "full", 400000)])
        for line in ("1.0 404 0 /packages/vendors/vendors_v1\n", "1.0 200 5 /favicon.ico\n"):
            with self.assertRaises(Failed):
                requests_of(log + line)

    def test_runs_are_known_by_their_beginnings(self):
        with tempfile.TemporaryDirectory() as scratch:
            trace = Path(scratch) / "trace"
            trace.write_text("0\t7\trun\t4\n0\t7\tdescription\t0\n1\t7\tdelta\t5\n2\t7\tok\t5\n9\t7\theld\t5\n9\t8\trun\t0\n10\t8\tfailed\t0\n")
            expected, first = program("real").read_trace(trace)
        self.assertEqual(expected, {(0, 7): ("ok", 5), (9, 7): ("held", 5), (9, 8): ("failed", 0)})
        self.assertEqual(first, {7: 4, 8: 0})

    def test_columns_of_a_series_have_names(self):
        with tempfile.TemporaryDirectory() as scratch:
            path = Path(scratch) / "series"
            path.write_text("second\tdelta\n0\t5\n60\t7\n")
            self.assertEqual(read_series(path), {"second": [0, 60], "delta": [5, 7]})


class Scenarios(unittest.TestCase):
    def test_each_has_a_name_of_its_own_and_changes_no_other(self):
        found = scenarios.all_scenarios((2000, 300))
        names = [one["name"] for one in found]
        self.assertEqual(len(set(names)), len(names))
        by_name = dict(zip(names, found))
        self.assertTrue(by_name["outage-with"]["cool_down"])
        self.assertFalse(by_name["outage-without"]["cool_down"])
        self.assertNotIn("timer", by_name["week-1m"], "the shipped one")
        self.assertNotIn("timer", by_name["outage-daily"], "the shipped one")


if __name__ == "__main__":
    unittest.main()
