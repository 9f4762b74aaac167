#!/usr/bin/env python3
"""Checks the pages of an archive: check_pages.py FOLDER

Every page is well formed, made of known elements and attributes, without anything that a browser would run or
load from elsewhere; every relative link leads to a file inside the folder; the feed is XML; file names are plain.
Prints what is wrong; exit status 1 then.
"""
import html.parser
import os
import pathlib
import re
import sys
import urllib.parse
import xml.etree.ElementTree

VOID = {"meta", "link", "input", "br"}
ELEMENTS = VOID | set(
    "html head title body header main footer nav article h1 h2 p a ul ol li dl dt dd div span bdi time table tr th td "
    "details summary blockquote form label button noscript script mark".split())
ATTRIBUTES = set(
    "lang charset http-equiv content name rel href type title class id tabindex aria-label aria-current datetime dir "
    "download scope role method action for maxlength autocomplete hidden src defer data-shards".split())
BAD = re.compile("[\x00-\x08\x0b-\x1f\x7f-\x9f\u202a-\u202e\u2066-\u2069\ufeff]")
NAME = re.compile(r"[A-Za-z0-9_-]{1,90}\.[a-z0-9]{2,5}")
ADDRESS = re.compile(r"[\w.+-]@[\w-]{1,60}\.\w")  # a hidden one has "…" before its '@'


class Page(html.parser.HTMLParser):
    def __init__(self, path, top):
        super().__init__(convert_charrefs=True)
        self.path, self.top = path, top
        self.open, self.problems, self.ids = [], [], set()
        self.seen = {}

    def problem(self, text):
        self.problems.append(f"{self.path.relative_to(self.top)}:{self.getpos()[0]}: {text}")

    def handle_starttag(self, tag, attributes):
        self.seen[tag] = self.seen.get(tag, 0) + 1
        if tag not in ELEMENTS:
            self.problem(f"element {tag}")
        for name, value in attributes:
            if name not in ATTRIBUTES:
                self.problem(f"attribute {name} of {tag}")
            if name == "id":
                if value in self.ids:
                    self.problem(f"id {value} twice")
                self.ids.add(value)
            if name in ("href", "src", "action"):
                self.target(tag, value)
        if tag == "script" and dict(attributes) != {"src": "search.js", "defer": None}:
            self.problem("a script")
        if tag not in VOID:
            self.open.append(tag)

    def handle_endtag(self, tag):
        if not self.open or self.open.pop() != tag:
            self.problem(f"</{tag}> closes nothing")

    def handle_comment(self, data):
        self.problem("comment")

    def handle_pi(self, data):
        self.problem("processing instruction")

    def unknown_decl(self, data):
        self.problem("declaration")

    def handle_data(self, data):
        for found in ADDRESS.findall(data):
            self.problem(f"shows the address {found}")

    def target(self, tag, value):
        if re.match(r"https?://", value):
            if tag != "a":
                self.problem(f"{tag} loads {value}")
            return
        parts = urllib.parse.urlsplit(value)
        if parts.scheme or parts.netloc or value.startswith("/"):
            self.problem(f"leads to {value}")
            return
        target = pathlib.Path(os.path.normpath(self.path.parent / parts.path)) if parts.path else self.path
        if self.top not in target.parents:
            self.problem(f"leads outside: {value}")
        elif not target.is_file():
            self.problem(f"leads nowhere: {value}")


def check_page(path, top):
    text = path.read_bytes().decode("utf-8")
    page = Page(path, top)
    page.feed(text)
    page.close()
    if page.open:
        page.problem(f"still open: {page.open}")
    for tag in ("html", "head", "title", "main", "h1"):
        if page.seen.get(tag) != 1:
            page.problem(f"{page.seen.get(tag, 0)} of {tag}")
    if not text.startswith("<!DOCTYPE html>\n") or "Content-Security-Policy" not in text:
        page.problem("no doctype or policy")
    return page.problems, text


def main():
    top = pathlib.Path(sys.argv[1]).resolve()
    problems, count = [], 0
    for path in sorted(top.rglob("*")):
        if path.is_symlink() or not (path.is_dir() or path.is_file()):
            problems.append(f"{path}: no plain file")
        if not path.is_file():
            continue
        count += 1
        where = path.relative_to(top)
        if not NAME.fullmatch(path.name):
            problems.append(f"{where}: file name")
        own = where.parts[0] in ("p",) and len(where.parts) == 4
        if own:
            if path.suffix in (".html", ".htm", ".svg", ".js", ".xml", ".xhtml", ".mjs", ".css", ".php"):
                problems.append(f"{where}: attachment with an active type")
            continue
        text = ""
        if path.suffix == ".html":
            found, text = check_page(path, top)
            problems += found
        elif path.suffix == ".xml":
            text = path.read_text("utf-8")
            xml.etree.ElementTree.parse(path)
        elif where.parts[0] == "search":
            text = path.read_text("ascii")
            if not re.fullmatch(r'addPostings\(\d+,\[(\n\[("[^"\\<>]*(\\u[0-9a-f]{4}[^"\\<>]*)*",?){6}\],?)*\n\]\);\n', text):
                problems.append(f"{where}: no shard")
        elif path.name not in ("style.css", "icon.svg", "search.js"):
            problems.append(f"{where}: what is this")
        if BAD.search(text):
            problems.append(f"{where}: a control or direction character")
    print("\n".join(problems[:40]))
    print(f"{count} files checked, {len(problems)} problems")
    sys.exit(1 if problems or count == 0 else 0)


main()
