"""The check of the types' names fails where it must."""

import os
import subprocess
import sys
import tempfile
import unittest

CHECK = os.path.join(os.path.dirname(os.path.abspath(__file__)), "types_check.py")


class TypesCheck(unittest.TestCase):
    def said(self, **sources):
        """(exit status, what is said) of headers by their paths, with __ in place of / and without the ending."""
        with tempfile.TemporaryDirectory() as root:
            for name, text in sources.items():
                path = os.path.join(root, *name.split("__")) + ".h"
                os.makedirs(os.path.dirname(path), exist_ok=True)
                with open(path, "w", encoding="utf-8") as source:
                    source.write(text)
            done = subprocess.run([sys.executable, CHECK, root], stdout=subprocess.PIPE, text=True, check=False)
            return done.returncode, done.stdout

    def test_second_definition_is_named_with_both_files(self):
        for kind, other in (("struct", "class [[nodiscard]]"), ("enum class", "class LIB_API"), ("union", "template <class T> struct")):
            self.assertEqual(self.said(a__x=f"namespace n::m {{\n{kind} T {{\n}};\n}}  // namespace n::m\n",
                                       b__y=f"namespace n::m {{\n{other} T : U {{\n}};\n}}  // namespace n::m\n"),
                             (1, "n::m::T is defined in a/x.h and in b/y.h\n1 types\n"), kind)

    def test_nested_type_that_is_defined_apart_is_one(self):
        text = "namespace n {\nstruct A::T {\n};\n}  // namespace n\n"
        self.assertEqual(self.said(a__x=text, b__y=text), (1, "n::A::T is defined in a/x.h and in b/y.h\n1 types\n"))

    def test_declarations_other_namespaces_and_files_own_types_are_none(self):
        own = "namespace n {\nnamespace {\nstruct T {\n};\n}  // namespace\nstruct U;  // elsewhere\n}  // namespace n\nstruct H {\n};\n"
        self.assertEqual(self.said(a__x="namespace n {\nstruct T {\n};\nstruct U {\n};\n}  // namespace n\n", b__y=own, c__z=own,
                                   d__w="namespace m {\nstruct T {\n};\n}  // namespace m\n"), (0, "3 types\n"))

    def test_two_programs_do_not_meet_but_each_meets_the_libraries(self):
        text = "namespace n {\nstruct T {\n};\n}  // namespace n\n"
        self.assertEqual(self.said(tools__tolmdbud_x=text, tools__tolmdbpub_y=text), (0, "1 types\n"))
        self.assertEqual(self.said(tools__tolmdbud_x=text, vcdiff__y=text)[0], 1)
        self.assertEqual(self.said(tools__tolmdbud_x=text, tools__tolmdbud_y=text)[0], 1)

    def test_nothing_found_is_a_fault(self):
        self.assertEqual(self.said(a__x="int x;\n"), (1, "0 types\n"))


if __name__ == "__main__":
    unittest.main()
