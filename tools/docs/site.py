#!/usr/bin/env python3
"""Makes one static site of the documents in Markdown, beside the reference that Doxygen has written
into its directory api/, and checks every link of every page.
"""

import argparse
import html
import re
import shutil
import subprocess
import sys
import urllib.parse
import xml.etree.ElementTree
from html.parser import HTMLParser
from pathlib import Path

HERE = Path(__file__).parent


def documents(source):
    """The documents, the README first and then in the order in which it names them."""
    readme = source / "README.md"
    named = [source / name for name in re.findall(r"\]\(([\w/.-]+\.md)\)", readme.read_text())]
    rest = sorted([*(source / "docs").glob("*.md"), *source.glob("*.md")])
    return list(dict.fromkeys([readme, *named, *rest]))


def page_name(document):
    return "index.html" if document.name == "README.md" else f"{document.stem.lower()}.html"


def title(document):
    return re.match(r"# (.*)", document.read_text())[1]


class Site:
    def __init__(self, source, out, version):
        self.source, self.out, self.version = source, out, version
        self.documents = documents(source)
        self.headers = self.reference_pages()

    def reference_pages(self):
        """The page of the reference for each public header, by its name in an #include."""
        tags = xml.etree.ElementTree.parse(self.out / "api/tags.xml")
        pages = {}
        for file in tags.iterfind("compound[@kind='file']"):
            pages[f"{file.findtext('path')}{file.findtext('name')}"] = file.findtext("filename")
        return pages

    def target(self, document, link):
        """A link as the site has it: documents as pages, files of the examples as they are."""
        if re.match(r"\w+:|#", link):
            return link
        path, _, anchor = link.partition("#")
        file = (document.parent / path).resolve()
        anchor = f"#{anchor}" if anchor else ""
        if file in self.documents:
            return page_name(file) + anchor
        relative = file.relative_to(self.source)
        if relative.parts[0] != "examples" or not file.is_file():
            raise SystemExit(f"site: {document.name} links to {link}, which the site does not have")
        copy = self.out / f"{relative}.txt"
        copy.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(file, copy)
        return f"{relative}.txt"

    def link_headers(self, text):
        """Names of public headers that stand in a page as code, as links to the reference."""
        def linked(found):
            page = self.headers.get(html.unescape(found[1]))
            return f'<a href="api/{page}">{found[0]}</a>' if page else found[0]
        return re.sub(r"<code>([\w/]+\.h)</code>", linked, text)

    def navigation(self, current):
        lines = [f'<a href="{page_name(document)}"'
                 + (' class="current"' if document == current else "")
                 + f">{html.escape(title(document))}</a>" for document in self.documents]
        return "\n".join([*lines, '<a href="api/index.html">Reference</a>'])

    def write_page(self, document):
        text = re.sub(r"(?<=\]\()[^)\s]+(?=\))", lambda link: self.target(document, link[0]),
                      document.read_text())
        page = subprocess.run(
            ["pandoc", "-s", "-f", "gfm", "-t", "html5", "--template", HERE / "page.html",
             "--css", "style.css", "-M", f"pagetitle={title(document)}",
             "-V", f"navigation={self.navigation(document)}", "-V", f"version={self.version}"],
            input=text, check=True, text=True, stdout=subprocess.PIPE).stdout
        (self.out / page_name(document)).write_text(self.link_headers(page))

    def write(self):
        shutil.copyfile(HERE / "style.css", self.out / "style.css")
        for document in self.documents:
            self.write_page(document)


class Links(HTMLParser):
    """What a page refers to, and the anchors that it has."""

    def __init__(self, page):
        super().__init__()
        self.targets, self.anchors = [], set()
        self.feed(page.read_text(errors="replace"))

    def handle_starttag(self, tag, attrs):
        for name, value in attrs:
            if name in ("href", "src") and value:
                self.targets.append(value)
            elif name == "id" or (name == "name" and tag == "a"):
                self.anchors.add(value)


def broken_links(out):
    """Each link that leads nowhere within the site, and each page that no link leads to."""
    pages = {page: Links(page) for page in out.rglob("*.html")}
    reached = {out / "index.html"}
    for page, links in pages.items():
        for target in links.targets:
            if re.match(r"(https?|mailto|javascript):", target):
                continue
            path, _, anchor = urllib.parse.unquote(target).partition("#")
            file = (page.parent / path).resolve() if path else page
            reached.add(file)
            if not file.is_file():
                yield f"{page.relative_to(out)}: no such file: {target}"
            elif anchor and file in pages and anchor not in pages[file].anchors:
                yield f"{page.relative_to(out)}: no such place: {target}"
    for page in sorted(set(out.glob("*.html")) - reached):
        yield f"{page.relative_to(out)}: no page links to it"


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--source", type=Path, required=True)
    parser.add_argument("--out", type=Path, required=True)
    parser.add_argument("--version", required=True)
    options = parser.parse_args()
    out = options.out.resolve()
    Site(options.source.resolve(), out, options.version).write()
    broken = sorted(set(broken_links(out)))
    print("\n".join(broken), file=sys.stderr)
    sys.exit(1 if broken else 0)


if __name__ == "__main__":
    main()
