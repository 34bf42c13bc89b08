"""What scripts/mutate-all makes of a source: with a switch on it does what the changed source does, and else what it did."""

import importlib.machinery
import importlib.util
import os
import subprocess
import tempfile
import types
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.join(HERE, "..", "..")
LOADER = importlib.machinery.SourceFileLoader("mutate_all", os.path.join(ROOT, "scripts", "mutate-all"))
SPEC = importlib.util.spec_from_loader("mutate_all", LOADER)
mutate_all = importlib.util.module_from_spec(SPEC)
LOADER.exec_module(mutate_all)
from mutation import places, switches  # noqa: E402 (scripts/mutate-all says where they are)

# One of everything that is changed, each where its place among other operators matters.
CODE = """\
struct Box {
  int value;
  int* Place() { return &value; }
};

constexpr int kLimit = 7;

bool Flag(bool value, int& calls) {
  ++calls;
  return value;
}

int Ranks(int a, int b) {
  int sum = a - b - 2 * 3 + 4 / 2;
  sum += a * (b + 7);
  return a == b ? sum : !(a < b) && b > 2 || a <= kLimit ? -sum : sum - 1;
}

int Shifts(int a, int b) {
  return 1 << (a > 2 && b > 0) | (a >= b && true) << 4;
}

int Calls(bool a, bool b, bool c) {
  int calls = 0;
  const bool all = Flag(a, calls) && Flag(b, calls) &&  // what the second says
                   Flag(c, calls);
  if (Flag(!a, calls) || all) {
    calls += 10;
  }
  return calls;
}

int Loops(int most) {
  Box box{1};
  int steps = 0;
  for (int i = 0; i < most; ++i) {
    if (i == 2) {
      continue;
    }
    if (steps > 5) {
      break;
    }
    steps++;
    *box.Place() += i;
    ++*box.Place();
    Flag(i != 3, steps);
  }
  return box.value * 100 + steps;
}

int Cases(int a) {
  switch (a) {
    case 1:
      return 5;
    default:
      return [&] { return a > 0 && a != 4; }() ? 6 : 8;
  }
}
"""
CALLS = """\
unsigned said = 0;
for (int a = -1; a < 9; ++a) {
  for (int b = -1; b < 5; ++b) {
    said = said * 31 + SPACE::Ranks(a, b);
    said = said * 31 + SPACE::Shifts(a, b);
  }
  said = said * 31 + SPACE::Calls(a & 1, a & 2, a & 4);
  said = said * 31 + SPACE::Loops(a > 6 ? 6 : a);
  said = said * 31 + SPACE::Cases(a);
}
std::printf("%u\\n", said);
"""


def spaces(texts):
    """A program that calls, for each text, its functions, in a namespace of its own."""
    return ("#include <cstdio>\n" + "".join(f"namespace {name} {{\n{text}}}\n" for name, text in texts.items())
            + "int main() {\n" + "".join("{\n" + CALLS.replace("SPACE", name) + "}\n" for name in texts) + "}\n")


def ends(text):
    """Loops of a changed text that would not end are not called: they are told from what they say."""
    return all(word not in text for word in ("--i)", "i += most"))


class Switched(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        mutants = {number: one for number, one in enumerate(places.mutants_of("f", CODE), 1)
                   if ends(places.applied(CODE, one))}
        made = switches.Switches(CODE, mutants)
        cls.left_out = {places.line_at(CODE, mutants[number].offset) for number in made.left_out}
        cls.mutants = {number: one for number, one in mutants.items() if number not in made.left_out}
        cls.text = made.text()
        with tempfile.TemporaryDirectory() as directory:
            header, body = cls.text.split("#line 1\n")
            one = cls.compiled(directory, "one", header + spaces({"switched": body}))
            all_ = cls.compiled(directory, "all", spaces(
                {f"m{number}": places.applied(CODE, mutant) for number, mutant in cls.mutants.items()}))
            cls.written = cls.said(cls.compiled(directory, "written", spaces({"written": CODE})))
            cls.reached = os.path.join(directory, "reached")
            os.mkdir(cls.reached)
            cls.unswitched = cls.said(["prlimit", "--fsize=0", one], TOLM_MUTANTS_REACHED=cls.reached)
            cls.reached = {int(name) for name in os.listdir(cls.reached)}
            cls.changed = dict(zip(cls.mutants, cls.said(all_).split()))
            cls.switched = {number: cls.said(one, TOLM_MUTANT=str(number)).strip() for number in cls.mutants}

    @staticmethod
    def compiled(directory, name, text):
        path = os.path.join(directory, name)
        with open(path + ".cpp", "w", encoding="utf-8") as out:
            out.write(text)
        subprocess.run(["c++", "-std=c++17", "-w", "-I", ROOT, "-o", path, path + ".cpp"], check=True)
        return path

    @staticmethod
    def said(program, **variables):
        return subprocess.run(program if isinstance(program, list) else [program], env={**os.environ, **variables}, check=True, stdout=subprocess.PIPE, text=True,
                              timeout=60).stdout

    def test_nothing_is_changed_with_no_switch_on(self):
        self.assertEqual(self.unswitched, self.written)

    def test_each_switch_does_what_the_changed_source_does(self):
        self.assertEqual(self.switched, self.changed)

    def test_nearly_every_change_of_the_sample_shows(self):
        hidden = [number for number, said in self.changed.items() if said == self.written.strip()]
        self.assertLess(len(hidden), len(self.changed) / 10,
                        [places.line_at(CODE, self.mutants[number].offset) for number in hidden])

    def test_what_the_compiler_must_know_is_left_out_and_nothing_else(self):
        self.assertEqual(self.left_out, {"case 1:"})

    def test_each_switch_that_is_come_by_is_written_down_also_where_nothing_may_be_written(self):
        self.assertEqual(self.reached, set(self.mutants))

    def test_lines_stay_where_they_are(self):
        self.assertEqual(len(self.text.split("#line 1\n")[1].split("\n")), len(CODE.split("\n")))


class Refused(unittest.TestCase):
    """What only the compiler knows that it cannot be switched."""

    def switched(self, text):
        """The changes, as (before, after), whose switches compile."""
        with tempfile.TemporaryDirectory() as tree:
            unstubbed = mutate_all.COPY
            mutate_all.COPY = types.SimpleNamespace(tree=tree)
            try:
                mutants = dict(enumerate(places.mutants_of("f.cpp", text), 1))
                command = {"command": f"c++ -std=c++17 -I {os.path.abspath(ROOT)} -o x -c f.cpp", "directory": tree}
                left = mutate_all.without_refused("f.cpp", text, mutants, command)
                self.assertEqual(mutate_all.errors_of(command), "")
                return {(one.before, one.after) for one in left.values()}
            finally:
                mutate_all.COPY = unstubbed

    def test_size_of_an_array_is_left_out_where_it_is_named(self):
        self.assertEqual(self.switched("constexpr int kSize = 4;\n"
                                       "struct A { char a[kSize]; };\n"
                                       "bool F(int a) {\n  return a < 9;\n}\n"), {("<", "<="), ("9", "10")})

    def test_line_that_does_not_compile_does_not_take_others_with_it(self):
        self.assertEqual(self.switched("template <int I> int T() { return I; }\n"
                                       "int F(int a) {\n  return T<3>();\n}\n"
                                       "int G(int a) {\n  return a + 8;\n}\n"), {("+", "-"), ("8", "9")})

    def test_size_that_the_compiler_must_know_is_left_out_without_what_uses_the_array(self):
        self.assertEqual(self.switched("#include <array>\nint F(char a) {\n  std::array<unsigned char, 16> b{};\n  b[0] = a;\n"
                                       "  return b.at(2);\n}\n"), {("0", "1"), ("2", "3")})

    def test_declaration_that_looks_like_a_call_is_left_out_alone(self):
        self.assertEqual(self.switched("#define LIST_OF(T) T\n"
                                       "int F(int a) {\n  LIST_OF(int) b = (a);\n  return b < 5;\n}\n"),
                         {("<", "<="), ("5", "6")})

    def test_operator_that_the_types_do_not_have_is_found_in_the_object(self):
        text = ("#include <string>\nstd::string F(std::string a, std::string b) {\n  return a + b;\n}\n"
                "bool G(std::string a, std::string b) {\n  return a < b;\n}\n")
        with tempfile.TemporaryDirectory() as directory:
            path = os.path.join(directory, "a.cpp")
            with open(path, "w", encoding="utf-8") as out:
                out.write(switches.Switches(text, dict(enumerate(places.mutants_of("f", text), 1))).text())
            subprocess.run(["c++", "-std=c++17", "-O2", "-I", ROOT, "-c", "-o", path + ".o", path], check=True)
            self.assertEqual(mutate_all.refused_in([path + ".o"]), {1})


def ran(name, reached, own=True, program="c_f_test", seconds=1.0):
    return mutate_all.Ran(types.SimpleNamespace(name=name, program=program, cost=0), own, seconds, set(reached))


class Judgement(unittest.TestCase):
    """Which tests are asked, and what their answers come to."""

    def judged(self, tests, noticing=(), number=1, seconds=10.0):
        self.asked = []

        def notices(one, _number):
            self.asked.append(one.test.name)
            return one.test.name in noticing

        self.judge = mutate_all.Judge(types.SimpleNamespace(notices=notices), tests, seconds)
        return self.judge.verdict(number, "c/f.cpp")

    def test_only_those_that_come_by_are_asked_the_component_s_first(self):
        tests = [ran("tool", [1], own=False), ran("other", [2]), ran("far", [1], program="c_g_test"), ran("near", [1])]
        self.assertEqual(self.judged(tests), ("survived", "3 of 3"))
        self.assertEqual(self.asked, ["near", "far", "tool"])

    def test_who_noticed_is_told_and_whose_test_it_was(self):
        tests = [ran("own", [1]), ran("tool", [1], own=False)]
        self.assertEqual(self.judged(tests, noticing=["own", "tool"]), ("noticed", "own"))
        self.assertEqual(self.asked, ["own"])
        self.assertEqual(self.judged(tests, noticing=["tool"]), ("program", "tool"))

    def test_who_noticed_another_of_the_source_is_asked_first(self):
        tests = [ran("a", [1, 2]), ran("b", [1, 2], seconds=2.0)]
        self.judged(tests, noticing=["b"])
        self.asked = []
        self.judge.verdict(2, "c/f.cpp")
        self.assertEqual(self.asked, ["b"])

    def test_after_its_seconds_it_survives_and_that_not_all_were_asked_is_told(self):
        tests = [ran("a", [1]), ran("b", [1]), ran("c", [1]), ran("tool", [1], own=False)]
        self.assertEqual(self.judged(tests, noticing=["c"], seconds=1.5), ("survived", "3 of 4"))
        self.assertEqual(self.asked, ["a", "b", "tool"])

    def test_where_no_test_comes_by_it_survives(self):
        self.assertEqual(self.judged([ran("a", [2])]), ("unreached", ""))

    def test_unreached_ones_count_as_survivors(self):
        counts = mutate_all.collections.Counter(noticed=6, program=2, survived=1, unreached=1, known=3)
        counts["left-out"] = 4
        self.assertEqual(mutate_all.summary(counts, "tools:p"),
                         "6 of 10 noticed (60.0 per cent) by the tests of the component, "
                         "8 of 10 noticed (80.0 per cent) by these or those of tools:p, "
                         "2 survived (1 of them where no test comes by); 4 cannot be switched, 3 cannot matter")


class LeftOver(unittest.TestCase):
    def test_what_a_test_leaves_behind_with_the_switch_on_is_ended_and_nothing_else(self):
        def sleeping(number, **more):
            return subprocess.Popen(["sleep", "100"], env={**os.environ, **mutate_all.switched_on(number), **more})

        left, others = sleeping(99999), [sleeping(999990), sleeping(99999, TOLM_MUTANTS_TREE="/another/copy")]
        mutate_all.end_those_with(mutate_all.switched_on(99999))
        self.assertEqual(left.wait(timeout=60), -9)
        for other in others:
            self.assertIsNone(other.poll())
            other.kill()
            other.wait()


class Again(unittest.TestCase):
    """What is kept of the last time."""

    def kept(self, verdict, text="a < b;"):
        with tempfile.NamedTemporaryFile("w", suffix=".tsv") as table:
            table.write("\t".join((verdict, "c/f.cpp", "2", "3", "<", "<=", "test", "a < b;")) + "\n# the scores\n")
            table.flush()
            return list(mutate_all.earlier(table.name, {"c/f.cpp": "\n  " + text + "\n"}))

    def test_what_was_noticed_is_and_nothing_else(self):
        for verdict in ("noticed", "program"):
            self.assertEqual(self.kept(verdict), [("c/f.cpp", 2, 3, "<", "<=")])
        for verdict in ("survived", "unreached", "left-out", "known"):
            self.assertEqual(self.kept(verdict), [])

    def test_those_of_another_line_are_not(self):
        self.assertEqual(self.kept("noticed", "a < c;"), [])


if __name__ == "__main__":
    unittest.main()
