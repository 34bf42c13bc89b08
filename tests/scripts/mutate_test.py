"""What scripts/mutate changes, and what it leaves alone."""

import contextlib
import importlib.machinery
import importlib.util
import io
import os
import tempfile
import types
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
PATH = os.path.join(HERE, "..", "..", "scripts", "mutate")
LOADER = importlib.machinery.SourceFileLoader("mutate", PATH)
SPEC = importlib.util.spec_from_loader("mutate", LOADER)
mutate = importlib.util.module_from_spec(SPEC)
LOADER.exec_module(mutate)
from mutation import copy, places  # noqa: E402 (scripts/mutate says where they are)


def changed(text):
    return {places.applied(text, mutant) for mutant in places.mutants_of("f", text)}


class Tokens(unittest.TestCase):
    def test_comparisons_signs_and_truth_are_changed(self):
        self.assertEqual(changed("if (a < b) x;"), {"if (a <= b) x;"})
        self.assertEqual(changed("if (!a) x;"), {"if (a) x;"})
        self.assertEqual(changed("x = a && b;"), {"x = a || b;"})
        self.assertEqual(changed("x = a - b;"), {"x = a + b;"})
        self.assertEqual(changed("x = 1'024;"), {"x = 1025;"})
        self.assertEqual(changed("x = 0;"), {"x = 1;"})
        self.assertEqual(changed("return true;"), {"return false;"})

    def test_octal_number_stays_one(self):
        self.assertEqual(changed("chmod(p, 0644);"), {"chmod(p, 0645);"})
        self.assertEqual(changed("chmod(p, 0'17);"), {"chmod(p, 020);"})

    def test_what_is_no_code_of_that_kind_stays(self):
        for text in ("// a < b, 1", "/* 1 == 2 */", '"a == 1"', "'1'", "#define X 1",
                     "std::vector<int> x;", "T* x;", "Move(T&& x) {", "x->y;", 'a + "b";', "0x1F;",
                     "a != b".replace("!=", "="), "1.5;"):
            self.assertEqual(changed(text), set(), text)


class Statements(unittest.TestCase):
    def test_whole_statement_is_left_out(self):
        self.assertIn("{\n  ;\n}", changed("{\n  Call(a, b);\n}"))
        self.assertIn("{\n  ;\n}", changed("{\n  a.b->c(d);\n}"))
        self.assertIn("{\n    ;\n}", changed("{\n    break;\n}"))

    def test_part_of_one_stays(self):
        self.assertEqual(changed("{\n  x = Call(a,\n    b.c());\n}"), set())
        self.assertEqual(changed("{\n  return Call(a);\n}"), set())
        self.assertEqual(changed("{\n  throw Error(a);\n}"), set())
        self.assertEqual(changed("{\n  int x = f(a);\n}"), set())


class Sources(unittest.TestCase):
    def test_part_may_be_of_the_whole_path(self):
        self.assertEqual(places.sources_of("vcdiff", "vcdiff/cursor.cpp"), ["vcdiff/cursor.cpp"])
        self.assertEqual(places.sources_of("vcdiff", "cursor"), ["vcdiff/cursor.cpp"])

    def test_part_that_no_source_has_is_refused(self):
        with self.assertRaises(SystemExit) as stopped, contextlib.redirect_stderr(io.StringIO()) as said:
            places.sources_of("vcdiff", "curser")
        self.assertEqual(stopped.exception.code, 2)
        self.assertIn("vcdiff: no source has curser in its name", said.getvalue())


class Score(unittest.TestCase):
    def test_what_does_not_build_or_cannot_matter_counts_for_nothing(self):
        counts = mutate.collections.Counter(noticed=8, ended=1, survived=1, known=3)
        counts["no-build"] = 5
        self.assertEqual(mutate.summary(counts),
                         "9 of 10 noticed (90.0 per cent), 1 survived; 5 did not build, "
                         "3 cannot matter")

    def test_what_only_the_program_notices_counts_for_the_second_score(self):
        counts = mutate.collections.Counter(noticed=5, program=3, survived=2)
        self.assertEqual(mutate.summary(counts, "tools:p"),
                         "5 of 10 noticed (50.0 per cent) by the tests of the component, "
                         "8 of 10 noticed (80.0 per cent) by these or those of tools:p, "
                         "2 survived; 0 did not build, 0 cannot matter")

    def test_same_token_elsewhere_in_the_line_is_another(self):
        text = "  a = b == 0 ? 1 : 0;\n"
        keys = {places.known_key(mutant, text) for mutant in places.mutants_of("f", text)}
        self.assertEqual(len(keys), len(places.mutants_of("f", text)))

    def test_survivor_is_known_wherever_its_line_stands(self):
        one, other = "if (a < b) x;\n", "\n\n  if (a < b) x;\n"
        keys = {places.known_key(places.mutants_of("f", text)[0], text) for text in (one, other)}
        self.assertEqual(keys, {"f\t7\t<\t<=\tif (a < b) x;"})


class Known(unittest.TestCase):
    def test_each_entry_of_the_list_is_a_change_that_there_is(self):
        keys = set()
        for name in {entry.split("\t")[0] for entry in places.load_known()}:
            with open(os.path.join(places.ROOT, name), encoding="utf-8") as source:
                text = source.read()
            keys |= {places.known_key(mutant, text) for mutant in places.mutants_of(name, text)}
        self.assertEqual(set(places.load_known()) - keys, set())


def test_named(name, program, cost=0, number=1):
    return copy.Test(number, name, program, cost, [])


class Order(unittest.TestCase):
    def test_tests_of_the_source_come_first_and_long_ones_last(self):
        near = test_named("src.A", "src_updater_test", cost=9)
        other, long = test_named("src.B", "src_hook_test"), test_named("src.C", "src_lock_test", cost=9)
        self.assertEqual(mutate.in_order([long, other, near], copy.of_the_source("src/updater.cpp")),
                         [[near], [other], [long]])

    def test_program_of_the_same_subject_comes_first_unless_it_takes_long(self):
        near = test_named("tools.A", "tools_p_volume_test")
        other, long = test_named("tools.B", "tools_p_page_test"), test_named("tools.C", "tools_p_full_volume_test", 9)
        self.assertEqual(mutate.in_order([long, other, near], copy.of_its_subject("o/volume_move.cpp")),
                         [[near], [other], [long]])

    def test_word_that_every_test_program_has_is_no_subject(self):
        near = copy.of_its_subject("publish/test_command.cpp")
        self.assertFalse(near(test_named("tools.A", "tools_p_page_test")))

    def test_program_is_told_from_one_whose_name_begins_the_same(self):
        tests = [test_named("tools.A", "tools_p_test"), test_named("tools.B", "tools_pq_test"),
                 test_named("toolsmith.C", "tools_p_test"), test_named("tools.D", "tools_p_page_test")]
        self.assertEqual([test.name for test in copy.tests_of("tools:p", tests)], ["tools.A", "tools.D"])
        self.assertEqual([test.name for test in copy.tests_of("tools", tests)],
                         ["tools.A", "tools.B", "tools.D"])


class Failures(unittest.TestCase):
    """What CTest's runs say: for each the tests that failed."""

    def setUp(self):
        self.tests = [test_named(f"t.{number}", "t", number=number) for number in (1, 2, 3)]
        self.ran = []
        self.unstubbed = mutate.run_tests

    def tearDown(self):
        mutate.run_tests = self.unstubbed

    def failing(self, *runs):
        answers = list(runs)

        def stub(tests, _seconds):
            self.ran.append([test.number for test in tests])
            failed = answers.pop(0)
            return (8 if failed else 0), failed

        mutate.run_tests = stub
        return mutate.failed_test(self.tests)

    def test_failure_counts_when_it_comes_again(self):
        self.assertEqual(self.failing([2], [2]), ("noticed", "t.2"))
        self.assertEqual(self.ran, [[1, 2, 3], [2]])

    def test_failure_that_does_not_come_again_counts_for_nothing(self):
        self.assertEqual(self.failing([2], [], []), ("", ""))
        self.assertEqual(self.ran, [[1, 2, 3], [2], [1, 3]])

    def test_other_failure_of_the_same_run_is_looked_at_too(self):
        self.assertEqual(self.failing([1, 3], [], [3]), ("noticed", "t.3"))

    def test_failures_of_every_cause_are_read(self):
        said = ("\nThe following tests did not run:\n\t  4 - t.4 (Skipped)\n"
                "\nThe following tests FAILED:\n\t  1 - t.1 (Failed)\n\t 12 - t.2 (SEGFAULT)\n"
                "Errors while running CTest\n")
        self.assertEqual(mutate.failed_numbers(said), [1, 12])

    def test_no_tests_notice_nothing(self):
        mutate.run_tests = None
        self.assertEqual(mutate.failed_test([]), ("", ""))


class Judgement(unittest.TestCase):
    """Which tests are asked, and what their answers come to."""

    def setUp(self):
        self.unstubbed = mutate.COPY, mutate.failed_test
        self.tree = tempfile.TemporaryDirectory()
        self.asked = []

    def tearDown(self):
        mutate.COPY, mutate.failed_test = self.unstubbed
        self.tree.cleanup()

    def judged(self, failing=(), broken=(), program=("page",)):
        """Of 'a < b', with tests of the component, named own, and those of a program."""
        def build(targets):
            return not set(broken) & set(targets), ""

        def failed_test(tests, _seconds):
            self.asked += [test.name for test in tests]
            name = next((test.name for test in tests if test.name in failing), "")
            return ("noticed", name) if name else ("", "")

        mutate.COPY = types.SimpleNamespace(tree=self.tree.name, build=build)
        mutate.failed_test = failed_test
        text = "if (a < b) x;"
        own = ["own"], [test_named("own", "c_own_test"), test_named("near", "c_f_test")]
        tools = list(program), [test_named(name, name) for name in program]
        return mutate.judge(places.mutants_of("f", text)[0], text, own, tools)

    def test_program_is_asked_only_when_the_own_tests_did_not_notice(self):
        self.assertEqual(self.judged(failing=["own", "page"]), ("noticed", "own"))
        self.assertEqual(self.asked, ["near", "own"])

    def test_what_the_program_notices_is_told_apart(self):
        self.assertEqual(self.judged(failing=["page"]), ("program", "page"))

    def test_what_nobody_notices_survives(self):
        self.assertEqual(self.judged(), ("survived", ""))
        self.assertEqual(self.asked, ["near", "own", "page"])

    def test_nothing_more_is_asked_of_what_does_not_build(self):
        self.assertEqual(self.judged(broken=["own"]), ("no-build", ""))
        self.assertEqual(self.asked, ["near"])

    def test_source_is_as_before_afterwards(self):
        self.judged()
        with open(os.path.join(self.tree.name, "f"), encoding="utf-8") as source:
            self.assertEqual(source.read(), "if (a < b) x;")


if __name__ == "__main__":
    unittest.main()
