"""What scripts/real-data reads, finds in a package, and writes down."""

import importlib.machinery
import importlib.util
import os
import sqlite3
import tempfile
import unittest
from pathlib import Path

SCRIPTS = Path(os.path.abspath(__file__)).parents[2] / "scripts"


def loaded(name):
    loader = importlib.machinery.SourceFileLoader(name.replace("-", "_"), str(SCRIPTS / name))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader(loader.name, loader))
    loader.exec_module(module)
    return module


real_data, inside = loaded("real-data"), loaded("real-data-inside")


class InDirectory(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = Path(directory.name).resolve()

    def file(self, name, text="text"):
        path = self.directory / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)
        return path


class List(unittest.TestCase):
    def test_own_list_is_in_order(self):
        databases = real_data.read_list(real_data.LIST.read_text())
        self.assertGreaterEqual(len(databases), 25)
        for recipe in real_data.MADE:
            self.assertTrue(any(one.made == recipe for one in databases), recipe)

    def test_line_that_cannot_be_used_is_refused(self):
        right = "a\tkind\tpackage\tusr/a\tbullseye sid"
        self.assertEqual(real_data.read_list(right)[0].releases, ["bullseye", "sid"])
        for wrong in ("a\tkind\tpackage\tusr/a", right + "\t", right.replace("sid", ""), right.replace("sid", "unknown"),
                      right.replace("bullseye sid", "sid bullseye"), "A" + right, right + "\tunknown", right + "\n" + right):
            with self.assertRaises(ValueError, msg=wrong):
                real_data.read_list(wrong)


class Trees(InDirectory):
    def package(self, release, text):
        return self.file(f"data/{release}/x/p/usr/share/p/file", text)

    def trees(self):
        database = real_data.Database("a\tkind\tp\tusr/share/p\tbullseye bookworm sid")
        return real_data.make_trees(database, self.directory / "data", self.directory / "trees")

    def test_release_without_a_change_is_left_out(self):
        for release, text in (("bullseye", "1"), ("bookworm", "1"), ("sid", "2")):
            self.package(release, text)
        self.assertEqual(self.trees(), ["bullseye", "sid"])
        self.assertEqual((self.directory / "trees/sid/file").read_text(), "2")

    def test_release_without_the_files_is_an_error(self):
        self.package("bullseye", "1")
        with self.assertRaisesRegex(FileNotFoundError, "bookworm has nothing"):
            self.trees()

    def test_links_become_files_and_none_leads_out_of_the_package(self):
        self.file("root/usr/share/p/file", "inside")
        self.file("outside")
        for name, to in (("near", "file"), ("absolute", "/usr/share/p/file"), ("out", "../../../../outside"), ("dead", "none")):
            (self.directory / "root/usr/share/p" / name).symlink_to(to)
        real_data.copy_found(self.directory / "root", ["usr/share/p"], self.directory / "tree")
        self.assertEqual(real_data.content(self.directory / "tree"),
                         {"file": b"inside", "near": b"inside", "absolute": b"inside"})


class Comparison(InDirectory):
    def database(self, name, sql):
        path = self.directory / name / "x.db"
        path.parent.mkdir()
        database = sqlite3.connect(path)
        database.executescript("CREATE TABLE t(a, b);" + sql)
        database.close()
        return path.parent

    def assert_differs(self, sql, other):
        names = [f"{number}-{len(list(self.directory.iterdir()))}" for number in (1, 2)]
        with self.assertRaisesRegex(inside.Wrong, "x.db: .* differs", msg=other):
            inside.compare(self.database(names[0], sql), self.database(names[1], other))

    def test_order_is_not_content(self):
        one = self.database("one", "CREATE VIEW v AS SELECT 1; CREATE VIEW w AS SELECT 1; INSERT INTO t VALUES(1,'a'),(2,x'00')")
        two = self.database("two", "CREATE VIEW w AS SELECT 1; CREATE VIEW v AS SELECT 1; INSERT INTO t VALUES(2,x'00'),(1,'a')")
        self.assertEqual(inside.compare(one, two)["sqlite"], 1)

    def test_value_type_row_or_schema_is(self):
        right = "INSERT INTO t VALUES(1,'a')"
        for wrong in ("INSERT INTO t VALUES(1,'b')", "INSERT INTO t VALUES('1','a')", "INSERT INTO t VALUES(1,x'61')",
                      "INSERT INTO t VALUES(1.0,'a')", right + ",(1,'a')", right + "; CREATE INDEX i ON t(a)",
                      right + "; PRAGMA user_version=1"):
            self.assert_differs(right, wrong)

    def test_other_file_is_compared_by_its_bytes(self):
        self.file("one/file", "1")
        self.file("two/file", "2")
        with self.assertRaisesRegex(inside.Wrong, "file is not as it was published"):
            inside.compare(self.directory / "one", self.directory / "two")

    def test_file_too_many_is_found(self):
        self.file("one/file")
        self.file("two/file")
        self.file("two/more")
        with self.assertRaisesRegex(inside.Wrong, "missing or too many: more"):
            inside.compare(self.directory / "one", self.directory / "two")


class Results(InDirectory):
    def test_row_takes_the_place_of_the_same_ones(self):
        path = self.directory / "results.tsv"
        for name, size in (("a", 1), ("b", 2), ("a", 3)):
            real_data.keep_row(path, ["name", "size"], ["name"], {"name": name, "size": size})
        self.assertEqual(real_data.read_rows(path), [{"name": "b", "size": "2"}, {"name": "a", "size": "3"}])
        real_data.keep_row(path, ["name", "size"], ["name"], without=[("b",)])
        self.assertEqual(real_data.read_rows(path), [{"name": "a", "size": "3"}])

    def test_lines_of_a_run_are_added(self):
        line = "seeds {} to {}: 9 scripts of 70 edits, 3 spoilt, 1 of them overwritten, 2 for no such device\n"
        self.assertEqual(real_data.counted("x\n" + line.format(10, 19) + line.format(20, 29)),
                         {"seeds": 20, "scripts": 18, "edits": 140, "spoilt": 6, "for_no_device": 4})

    def test_runs_of_a_pair_are_one_line_and_the_sum_is_the_last(self):
        rows = [{"publisher": "3.40.1", "device": device, "first": str(first), "seeds": "1", "edits": "1000", "scripts": "2",
                 "spoilt": "3", "for_no_device": "0", "passed": passed}
                for device, first, passed in (("3.46.1", 1, "yes"), ("3.5.9", 1, "yes"), ("3.46.1", 2, "no"))]
        self.assertEqual(real_data.table_of_edits(rows).splitlines()[2:],
                         ["| 3.40.1 | 3.5.9 | 1,000 | 2 | 3 | 0 | yes |", "| 3.40.1 | 3.46.1 | 2,000 | 4 | 6 | 0 | no |",
                          "| all |  | 3,000 | 6 | 9 | 0 |  |"])


if __name__ == "__main__":
    unittest.main()
