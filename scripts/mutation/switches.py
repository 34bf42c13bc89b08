"""Makes of a source one in which each change of a token is a switch, so that all of them are compiled at once.

Where a change cannot be switched, as in what the compiler must know, it is left out; some of these are seen by the compiler
alone, whose errors say in which lines they are."""

import re

from .places import TOKEN

HEADER = '#include "tests/support/mutation_switches.h"\n#line 1\n'
OPERATORS = {"==": "Equal", "!=": "Unequal", "<": "Less", ">": "Greater", "<=": "AtMost", ">=": "AtLeast",
             "+": "Plus", "-": "Minus", "*": "Times", "/": "Over"}
ASSIGNING = {"=", "+=", "-=", "*=", "/="}
OPENING, CLOSING = set("([{"), set(")]}")
CONTROL = {"if", "for", "while", "switch", "return", "else", "do", "case"}
# What a condition ends at, on the same level of brackets.
AROUND_A_CONDITION = {";", ",", "?", ":", "return"} | ASSIGNING
BEFORE_A_STATEMENT = {";", "{", "}", ")", "else", ",", "("}


class Source:
    """The tokens of a text, comments left out, and what is found from one of them."""

    def __init__(self, text):
        self.text = text
        self.tokens = [token for token in TOKEN.finditer(text)
                       if token.lastgroup != "skip" or token.group()[0] in "\"'R"]
        self._at = {token.start(): index for index, token in enumerate(self.tokens)}

    def index(self, offset):
        return self._at.get(offset)

    def word(self, index):
        return self.tokens[index].group() if 0 <= index < len(self.tokens) else ";"

    def _match(self, index, step):
        """The other bracket of the one there."""
        depth = 0
        while 0 <= index < len(self.tokens):
            word = self.word(index)
            depth += (word in OPENING) - (word in CLOSING)
            if depth == 0:
                return index
            index += step
        return None

    def edge(self, index, step, ends):
        """The last token, that way, before one of the ends or a bracket of what is around."""
        closing = OPENING if step < 0 else CLOSING
        opening = CLOSING if step < 0 else OPENING
        while 0 <= index + step < len(self.tokens):
            word = self.word(index + step)
            if word in ends or word in closing:
                break
            index += step
            if word in opening:
                if step < 0 and word == "}":
                    return None
                index = self._match(index, step)
                if index is None:
                    return None
        return index

    def operand_before(self, index):
        """The first token of what a[b].c(d) ends at the index with; None where that is not clear."""
        while True:
            if self.word(index) in (")", "]"):
                index = self._match(index, -1)
                if index is None:
                    return None
                index -= 1
                continue
            if self.tokens[index].lastgroup != "word" or self.word(index) in CONTROL:
                return None
            if self.word(index - 1) not in (".", "->", "::"):
                return index
            index -= 2

    def operand_after(self, index):
        """The last token of what *a.b[c] begins at the index with."""
        while self.word(index) in ("*", "("):
            if self.word(index) == "(":
                index = self._match(index, 1)
                break
            index += 1
        while index is not None and self.word(index + 1) in (".", "->", "::", "[", "("):
            index = self._match(index + 1, 1) if self.word(index + 1) in OPENING else index + 2
        return index


def expression_of(source, mutant):
    """(begin, end) of the expression to be written twice for a change that cannot be switched in its place; None where it is
    not clear."""
    index = source.index(mutant.offset)
    if mutant.before in ("&&", "||"):
        first = source.edge(index, -1, AROUND_A_CONDITION)
        last = source.edge(index, 1, AROUND_A_CONDITION)
    elif mutant.before in ("+=", "-="):
        first, last = source.operand_before(index - 1), source.edge(index, 1, {";", ","})
        while first is not None and source.word(first - 1) == "*":
            first -= 1
        if first is not None and source.word(first - 1) not in BEFORE_A_STATEMENT:
            return None
    elif source.tokens[index + 1].lastgroup == "word" or source.word(index + 1) in ("*", "("):
        first, last = index, source.operand_after(index + 1)
    else:
        first, last = source.operand_before(index - 1), index
    if first is None or last is None or first == last:
        return None
    return source.tokens[first].start(), source.tokens[last].end()


def is_for_the_compiler(source, mutant):
    """Whether a number is an argument of a template or of a case."""
    begin = source.text.rfind("\n", 0, mutant.offset) + 1
    before = source.text[begin:mutant.offset]
    return re.search(r"\bcase\b", before) or re.search(r"<[\w:]+, $", before)


def on_one_line(text):
    """The same code without comments and line ends."""
    return TOKEN.sub(lambda token: "" if token.group()[:2] in ("//", "/*") else token.group(), text).replace("\n", " ")


class Switches:
    """The switched source of some changes, by number."""

    def __init__(self, text, mutants):
        self.source = Source(text)
        self.inserted = []  # (offset, end, before, after): what stands there stays in between, or not where after is None
        self.twice = {}  # (begin, end) -> [(number, mutant)]
        self.left_out = set()
        for number, mutant in mutants.items():
            self._add(number, mutant)
        self.inserted.sort()

    def _add(self, number, mutant):
        begin, end = mutant.offset, mutant.offset + len(mutant.before)
        index = self.source.index(begin)
        if mutant.after == ";":
            self.inserted.append((begin, end, f"{{ if (!::tolm::mutation::IsOn({number})) {{ ", " } }"))
        elif index is None or is_for_the_compiler(self.source, mutant):
            self.left_out.add(number)
        elif mutant.before == "!":
            self.inserted.append((begin, end, f"::tolm::mutation::Not<{number}>() ->* ", None))
        elif mutant.before in OPERATORS:
            name = OPERATORS[mutant.before]
            self.inserted.append(
                (begin, end, f"{mutant.before} ::tolm::mutation::{name}<{number}>() {mutant.before}", None))
        elif self.source.tokens[index].lastgroup in ("number", "word"):
            self.inserted.append((begin, end, f"TOLM_EITHER({number}, {mutant.before}, {mutant.after})", None))
        else:
            place = expression_of(self.source, mutant)
            if place is None:
                self.left_out.add(number)
            else:
                self.twice.setdefault(place, []).append((number, mutant))

    def _changed(self, place, mutant):
        begin, end = place
        text = self.source.text
        return on_one_line(text[begin:mutant.offset] + mutant.after + text[mutant.offset + len(mutant.before):end])

    def _written(self, begin, end, inside=None):
        """The text from begin to end with its switches; inside is the one of these that is being written."""
        parts, at = [], begin
        edits = [(one[0], -one[1], one) for one in self.inserted if begin <= one[0] and one[1] <= end and one != inside]
        edits += [(first, -last, (first, last)) for first, last in self.twice
                  if begin <= first and last <= end and (first, last) != inside
                  and not (inside and len(inside) == 2 and inside[0] == first and inside[1] < last)]
        for first, _, edit in sorted(edits, key=lambda one: one[:2]):
            if first < at:
                continue  # Written already, within another.
            parts.append(self.source.text[at:first])
            parts.append(self._edited(edit))
            at = edit[1]
        return "".join(parts) + self.source.text[at:end]

    def _edited(self, edit):
        if len(edit) == 2:
            choices = "".join(f"::tolm::mutation::IsOn({number}) ? ({self._changed(edit, mutant)}) : "
                              for number, mutant in self.twice[edit])
            return f"({choices}({self._written(*edit, edit)}))"
        begin, end, before, after = edit
        return before if after is None else before + self._written(begin, end, edit) + after

    def text(self):
        lines = self._written(0, len(self.source.text)).split("\n")
        # What is switched is not known to the compiler any more.
        return HEADER + "\n".join(
            re.sub(r"\b(inline )?constexpr\b", "const", line) if "tolm::mutation" in line or "TOLM_EITHER" in line else line
            for line in lines)
