#!/usr/bin/env python3
"""What a page must not have is found by page_check.py."""

import unittest

import page_check

GOOD = """<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8"/><meta http-equiv="Content-Security-Policy" content="default-src 'none'; \
style-src 'unsafe-inline'"/><title>t</title><style>a { color: red; }</style></head><body><header><h1>t</h1></header><main>
<h2 id="a">h</h2><a href="#a">l</a><figure><svg role="img" aria-labelledby="b c"><title id="b">t</title><desc id="c">d</desc>\
<svg viewBox="0 0 1 1"><path d="M0 0"/></svg></svg></figure></main><footer>f</footer></body></html>
"""

BAD = [
    ("<h2 id", "<script>1</script><h2 id"),
    ("<h2 id", "<img src='x'/><h2 id"),
    ("<h2 id", "<link rel='stylesheet' href='x'/><h2 id"),
    ("<h2 id", "<iframe></iframe><h2 id"),
    ('<h2 id="a"', '<h2 id="a" onclick="1"'),
    ('<h2 id="a"', '<h2 id="a" style="color: red"'),
    ('href="#a"', 'href="https://example.com/"'),
    ('href="#a"', 'href="javascript:1"'),
    ('href="#a"', 'href="#b2"'),
    ("color: red", "background: url(x)"),
    ("a { color: red; }", "@import 'x';"),
    ("default-src 'none'; ", ""),
    ('charset="utf-8"', 'http-equiv="refresh" content="0; x"'),
    ('<title id="b">t</title>', ""),
    ('<desc id="c">d</desc>', ""),
    ('role="img" ', ""),
    ("</main>", ""),
    ("</figure>", "</div>"),
    ("<footer>f</footer>", "<footer>f & g</footer>"),
    ("<footer>f</footer>", "<footer>\u202e</footer>"),
    ("<footer>f</footer>", "<footer><!-- c --></footer>"),
    ("<h2", "<h3"),
    ("<h2 id", '<table><tr><th scope="col"></th></tr></table><h2 id'),
    ('lang="en"', 'lang=""'),
    ('<desc id="c">', '<desc id="b">'),
]


class PageCheckTest(unittest.TestCase):
    def test_good_page_is_good(self):
        self.assertEqual(page_check.problems_of(GOOD), [])

    def test_each_fault_is_found(self):
        for before, after in BAD:
            with self.subTest(after=after, before=before):
                self.assertIn(before, GOOD)
                self.assertNotEqual(page_check.problems_of(GOOD.replace(before, after, 1)), [])


if __name__ == "__main__":
    unittest.main()
