#!/usr/bin/env python3
"""types_check.py SOURCE-DIRECTORY
No two types have one name. Where two have, the compiler never sees both, and the linker takes a member function of
either for the other's.

Compares the names of all classes, structs, unions and enumerations that a source or header of a component defines
within a named namespace. Those of anonymous namespaces are each file's own, and types outside of namespaces are handles
of interfaces in C, which every implementation defines for itself. What only one program is made of meets nothing that
only another one is made of: sources of tools/ whose names begin with the program's.
"""

import collections
import itertools
import os
import re
import sys

LEFT_OUT = {"build", "tests", "bench"}
OPENED = re.compile(r"^(?:inline )?namespace\b\s*([\w:]*)\s*\{$")
CLOSED = re.compile(r"^\}\s*// namespace")
DEFINED = re.compile(r"^(?:template\s*<.*>\s*)?(?:class|struct|union|enum(?: class| struct)?)\s+"
                     r"(?:(?:\[\[.*?\]\]|[A-Z_]+_API)\s+)*([\w:]*\w)(?!.*;\s*(?://.*)?$)")
PROGRAM = re.compile(r"^tools/(tolm[a-z]+)[_.]")


def sources_below(root):
    for directory, names, files in os.walk(root):
        names[:] = [name for name in names if name not in LEFT_OUT and not name.startswith(".")]
        for name in files:
            if name.endswith((".h", ".cpp")):
                yield os.path.relpath(os.path.join(directory, name), root)


def types_of(text):
    """The full names of what is defined, but for what lies in an anonymous namespace or in none."""
    spaces = []
    for line in text.splitlines():
        if opened := OPENED.match(line):
            spaces.append(opened[1])
        elif CLOSED.match(line):
            spaces.pop()
        elif (defined := DEFINED.match(line)) and spaces and "" not in spaces:
            yield "::".join([*spaces, defined[1]])


def meet(one, other):
    programs = {found[1] for found in map(PROGRAM.match, (one, other)) if found}
    return len(programs) < 2


def main():
    root = sys.argv[1]
    files = collections.defaultdict(list)
    for name in sorted(sources_below(root)):
        with open(os.path.join(root, name), encoding="utf-8") as source:
            for defined in types_of(source.read()):
                files[defined].append(name)
    twice = [f"{defined} is defined in {one} and in {other}" for defined, names in sorted(files.items())
             for one, other in itertools.combinations(names, 2) if meet(one, other)]
    print("\n".join(twice + [f"{len(files)} types"]))
    return 1 if twice or not files else 0


if __name__ == "__main__":
    sys.exit(main())
