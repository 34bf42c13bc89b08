#!/usr/bin/env python3
"""page_check.py PAGE...: what every page of the tools must be, in words where it is not.

A page is well-formed, loads nothing from anywhere, runs nothing, and can be used without seeing it.
"""

import re
import sys
import xml.etree.ElementTree as ElementTree
from html.parser import HTMLParser

VOID = {"meta", "br", "line", "path"}
TAGS = VOID | {
    "html", "head", "title", "style", "body", "header", "main", "footer", "section", "h1", "h2", "h3", "p", "a", "b", "span",
    "div", "dl", "dt", "dd", "ul", "li", "table", "thead", "tbody", "tr", "th", "td", "details", "summary", "figure",
    "figcaption", "svg", "desc", "text",
}
# None of them makes a browser load or run anything, but for href, which is looked at.
ATTRIBUTES = {
    "lang", "charset", "name", "content", "http-equiv", "id", "class", "scope", "role", "tabindex", "open", "href", "height",
    "width", "x", "y", "x1", "x2", "y1", "y2", "d", "viewbox", "preserveaspectratio", "text-anchor", "aria-label",
    "aria-labelledby",
}
POLICY = "default-src 'none'; style-src 'unsafe-inline'"
# Controls but for line feeds, and what turns the direction of writing.
HIDDEN = re.compile("[\x00-\x09\x0b-\x1f\x7f-\x9f\u061c\u200b\u200e\u200f\u2028-\u202e\u2060-\u206f\ufeff]")


class Reader(HTMLParser):
    def __init__(self):
        super().__init__(convert_charrefs=True)
        self.problems = []
        self.open = []
        self.ids = set()
        self.references = []
        self.headings = []
        self.tags = []
        self.meta = []
        self.pictures = []  # of each: the tags that it begins with
        self.style = ""

    def wrong(self, text):
        self.problems.append(text)

    def handle_starttag(self, tag, attributes):
        self.tags.append(tag)
        if tag not in TAGS:
            self.wrong(f"<{tag}>")
        for name, value in attributes:
            self.look_at_attribute(tag, name, value or "")
        if self.pictures and len(self.pictures[-1]) < 2:
            self.pictures[-1].append(tag)
        if tag == "svg" and "svg" not in self.open:
            self.pictures.append([])
            if ("role", "img") not in attributes or "aria-labelledby" not in dict(attributes):
                self.wrong("a picture without role and name")
        if re.fullmatch("h[1-6]", tag):
            self.headings.append(int(tag[1]))
        if tag == "meta":
            self.meta.append(dict(attributes))
        if tag not in VOID:
            self.open.append(tag)

    def handle_startendtag(self, tag, attributes):
        if tag not in VOID:
            self.wrong(f"<{tag}/>")
        self.handle_starttag(tag, attributes)

    def look_at_attribute(self, tag, name, value):
        if name not in ATTRIBUTES:
            self.wrong(f"{name}= of <{tag}>")
        if name == "href" and not re.fullmatch("#[a-z0-9-]+", value):
            self.wrong(f"leads elsewhere: {value}")
        if name in ("href", "aria-labelledby"):
            self.references += value.lstrip("#").split()
        if name == "id":
            if value in self.ids:
                self.wrong(f"two of id {value}")
            self.ids.add(value)
        if HIDDEN.search(value):
            self.wrong(f"hidden characters in {name}=")

    def handle_endtag(self, tag):
        if not self.open or self.open.pop() != tag:
            self.wrong(f"</{tag}> closes nothing")

    def handle_data(self, data):
        if self.open and self.open[-1] == "style":
            self.style += data
        elif HIDDEN.search(data):
            self.wrong("hidden characters in a text")

    def handle_comment(self, data):
        self.wrong(f"a comment: {data}")

    def handle_pi(self, data):
        self.wrong(f"an instruction: {data}")


def problems_of(text):
    """What is wrong with the text of a page: sentences."""
    reader = Reader()
    reader.feed(text)
    reader.close()
    wrong = reader.problems
    if reader.open:
        wrong.append(f"not closed: {reader.open}")
    try:
        ElementTree.fromstring(text)
    except ElementTree.ParseError as error:
        wrong.append(f"not well-formed: {error}")
    if re.search(r"url\(|@import|https?:|//|expression|behavior", reader.style):
        wrong.append("the style loads something")
    policies = [one["content"] for one in reader.meta if one.get("http-equiv") == "Content-Security-Policy"]
    if len(policies) != 1 or not policies[0].startswith(POLICY):
        wrong.append("no strict policy")
    if any(one.get("http-equiv", "Content-Security-Policy") != "Content-Security-Policy" for one in reader.meta):
        wrong.append("a meta element that acts")
    if any(begin != ["title", "desc"] for begin in reader.pictures):
        wrong.append("a picture without title and description")
    for reference in reader.references:
        if reference not in reader.ids:
            wrong.append(f"no element has the id {reference}")
    for tag in ("html", "title", "h1", "header", "main", "footer"):
        count = reader.tags.count(tag) - (len(reader.pictures) if tag == "title" else 0)
        if count != 1:
            wrong.append(f"{count} of <{tag}>")
    if re.search("<th[^>]*></th>", text):
        wrong.append("a table's heading without words")
    if '<html lang="en">' not in text:
        wrong.append("no language")
    if any(after > before + 1 for before, after in zip([0] + reader.headings, reader.headings)):
        wrong.append(f"headings skip a level: {reader.headings}")
    return wrong


def main(files):
    status = 0
    for file in files:
        try:
            with open(file, encoding="utf-8") as page:
                wrong = problems_of(page.read())
        except (OSError, UnicodeDecodeError) as error:
            wrong = [str(error)]
        for sentence in sorted(set(wrong)):
            print(f"{file}: {sentence}")
            status = 1
    return status


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    sys.exit(main(sys.argv[1:]))
