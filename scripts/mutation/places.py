"""Which tokens of a source can be changed, one at a time, and which of these changes are known to mean nothing."""

import collections
import os
import random
import re
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
KNOWN = os.path.join(ROOT, "scripts", "mutants-that-cannot-matter")

TOKEN = re.compile(
    r"""(?P<skip>//[^\n]*|/\*.*?\*/|R"\((?:.|\n)*?\)"|"(?:\\.|[^"\\\n])*"|'(?:\\.|[^'\\\n])'|^[ \t]*\#(?:[^\n\\]|\\.|\\\n)*)
      |(?P<number>(?<![.\w])[0-9][0-9']*\b(?![.xX]))
      |(?P<word>[A-Za-z_]\w*)
      |(?P<operator><=>|<<=|>>=|->|::|\+\+|--|&&|\|\||==|!=|<=|>=|\+=|-=|\*=|/=|<<|>>|[-+*/%<>=!&|^~?:;,.(){}\[\]])
    """,
    re.X | re.M | re.S,
)

SWAPPED = {
    "==": "!=", "!=": "==", "<": "<=", ">": ">=", "<=": "<", ">=": ">", "&&": "||", "||": "&&",
    "+": "-", "-": "+", "+=": "-=", "-=": "+=", "++": "--", "--": "++", "*": "/", "/": "*",
    "true": "false", "false": "true",
}
# These have another meaning without a space on both sides: a template, a sign, a pointer.
SPACED = {"<", ">", "+", "-", "*", "/", "&&"}
STATEMENT = re.compile(
    r"^[ ]+(?!return\b|throw\b|else\b|using\b|case\b|default\b|delete\b|co_|static_assert\b|public|private)"
    r"(?:[\w:.\[\]]|->|\(\))+\([^{}]*\);$|^[ ]+(?:break|continue);$")

Mutant = collections.namedtuple("Mutant", "file offset before after")
Place = collections.namedtuple("Place", "line column")


def stop(text):
    """Ends the program, which could not try anything."""
    print(f"{os.path.basename(sys.argv[0])}: {text}", file=sys.stderr)
    sys.exit(2)


def place_of(text, offset):
    line = text.count("\n", 0, offset) + 1
    return Place(line, offset - text.rfind("\n", 0, offset))


def is_spaced(text, begin, end):
    return text[begin - 1:begin] in " \n" and text[end:end + 1] in " \n"


def next_number(digits):
    if len(digits) > 1 and digits[0] == "0":  # Octal, as modes are.
        return f"0{int(digits, 8) + 1:o}"
    return str(int(digits) + 1)


def token_mutants(text):
    """(offset, before, after) of every token that can be changed alone."""
    for token in TOKEN.finditer(text):
        kind, word = token.lastgroup, token.group()
        begin, end = token.span()
        if kind == "skip":
            continue
        if kind == "number":
            yield begin, word, next_number(word.replace("'", ""))
        elif word == "!" and text[end:end + 1] not in ("", "="):
            yield begin, "!", ""
        elif word in SWAPPED and (word not in SPACED or is_spaced(text, begin, end)):
            if word != "+" or not re.search("[\"']|_string", line_at(text, begin)):
                yield begin, word, SWAPPED[word]  # texts that are joined cannot be subtracted


def ends_a_statement(line):
    code = line.split("//")[0].strip()
    return not code or code[-1] in ";{}:" or code.startswith("#")


def statement_mutants(text):
    """The same of every statement on a line of its own that can be left out."""
    offset, before = 0, ""
    for line in text.splitlines(True):
        code = line.rstrip("\n")
        if (STATEMENT.match(code) and code.count("(") == code.count(")")
                and ends_a_statement(before)):
            statement = code.strip()
            yield offset + line.index(statement), statement, ";"
        offset += len(line)
        before = line


def mutants_of(name, text):
    found = {Mutant(name, *one) for one in token_mutants(text)}
    found |= {Mutant(name, *one) for one in statement_mutants(text)}
    return sorted(found)


def applied(text, mutant):
    end = mutant.offset + len(mutant.before)
    assert text[mutant.offset:end] == mutant.before, mutant
    return text[:mutant.offset] + mutant.after + text[end:]


def line_at(text, offset):
    return text[text.rfind("\n", 0, offset) + 1:].split("\n", 1)[0].strip()


def known_key(mutant, text):
    """What a survivor that cannot matter is known by, wherever its line may move."""
    begin = text.rfind("\n", 0, mutant.offset) + 1
    indented = len(text[begin:]) - len(text[begin:].lstrip(" "))
    return "\t".join((mutant.file, str(mutant.offset - begin - indented + 1), mutant.before, mutant.after,
                      line_at(text, mutant.offset)))


def load_known():
    known = {}
    if os.path.exists(KNOWN):
        with open(KNOWN, encoding="utf-8") as lines:
            for line in lines:
                if line.strip() and not line.startswith("#"):
                    *key, reason = line.rstrip("\n").split("\t")
                    known["\t".join(key)] = reason
    return known


def sources_of(component, part):
    directory = os.path.join(ROOT, component)
    if not os.path.isdir(directory):
        stop(f"{component}: no such component")
    names = [os.path.join(component, name) for name in sorted(os.listdir(directory)) if name.endswith(".cpp")]
    wanted = [name for name in names if not part or part in (name if "/" in part else os.path.basename(name))]
    if not wanted:
        stop(f"{component}: no source has {part} in its name")
    return wanted


def drawn(component, part, count, seed):
    texts, mutants = {}, []
    for name in sources_of(component, part):
        with open(os.path.join(ROOT, name), encoding="utf-8") as source:
            texts[name] = source.read()
        mutants += mutants_of(name, texts[name])
    random.Random(seed).shuffle(mutants)
    return texts, mutants[:count], len(mutants)
