"""What scripts/mutate changes, and what it leaves alone."""

import importlib.machinery
import importlib.util
import os
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
PATH = os.path.join(HERE, "..", "..", "scripts", "mutate")
LOADER = importlib.machinery.SourceFileLoader("mutate", PATH)
SPEC = importlib.util.spec_from_loader("mutate", LOADER)
mutate = importlib.util.module_from_spec(SPEC)
LOADER.exec_module(mutate)


def changed(text):
    return {mutate.applied(text, mutant) for mutant in mutate.mutants_of("f", text)}


class Tokens(unittest.TestCase):
    def test_comparisons_signs_and_truth_are_changed(self):
        self.assertEqual(changed("if (a < b) x;"), {"if (a <= b) x;"})
        self.assertEqual(changed("if (!a) x;"), {"if (a) x;"})
        self.assertEqual(changed("x = a && b;"), {"x = a || b;"})
        self.assertEqual(changed("x = a - b;"), {"x = a + b;"})
        self.assertEqual(changed("x = 1'024;"), {"x = 1025;"})
        self.assertEqual(changed("return true;"), {"return false;"})

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


class Score(unittest.TestCase):
    def test_what_does_not_build_or_cannot_matter_counts_for_nothing(self):
        counts = mutate.collections.Counter(noticed=8, ended=1, survived=1)
        counts["no-build"] = 5
        self.assertEqual(mutate.summary(counts, 3),
                         "9 of 10 noticed (90.0 per cent), 1 survived; 5 did not build, "
                         "3 cannot matter")

    def test_same_token_elsewhere_in_the_line_is_another(self):
        text = "  a = b == 0 ? 1 : 0;\n"
        keys = {mutate.known_key(mutant, text) for mutant in mutate.mutants_of("f", text)}
        self.assertEqual(len(keys), len(mutate.mutants_of("f", text)))

    def test_survivor_is_known_wherever_its_line_stands(self):
        one, other = "if (a < b) x;\n", "\n\n  if (a < b) x;\n"
        keys = {mutate.known_key(mutate.mutants_of("f", text)[0], text) for text in (one, other)}
        self.assertEqual(keys, {"f\t7\t<\t<=\tif (a < b) x;"})

    def test_tests_of_the_source_come_first(self):
        programs = {"src_updater_test": [1, 2], "src_hook_test": [3]}
        self.assertEqual(mutate.split_by_source(programs, "src/updater.cpp"), ([1, 2], [3]))


if __name__ == "__main__":
    unittest.main()
