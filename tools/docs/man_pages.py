#!/usr/bin/env python3
"""Writes the manual pages: of the program zarn and its subcommands from docs/zarn.md and from what
`zarn ... --help` prints, of the classes from Doxygen's.
"""

import argparse
import re
import subprocess
from pathlib import Path

# Text without the features of Markdown that would find something in ours that is not meant.
MARKDOWN = "markdown-smart-tex_math_dollars-citations-raw_tex-subscript-superscript-strikeout"


def run(*command, **options):
    return subprocess.run([str(part) for part in command], check=True, text=True,
                          stdout=subprocess.PIPE, **options).stdout


def sections(text):
    """A document as pairs of headline and text; what stands before the first one has none."""
    parts = re.split(r"^## (.*)$", text, flags=re.MULTILINE)
    return [("", re.sub(r"^# .*\n", "", parts[0])), *zip(parts[1::2], parts[2::2])]


def without_links(text):
    return re.sub(r"\[([^\]]+)\]\([^)]*\)", r"\1", text)


class Help:
    """What `zarn [SUBCOMMAND] --help` says."""

    def __init__(self, zarn, *subcommand):
        lines = run(zarn, *subcommand, "--help").splitlines()
        self.summary = lines[0].rstrip(".")
        self.usage = next(line for line in lines if line.startswith("Usage: "))[len("Usage: "):]
        self.lists, self.footer = {}, []
        current = None
        for line in lines[2:]:
            if line.endswith(":") and line != "Example:" and not self.footer:
                current = self.lists.setdefault(line[:-1], [])
            elif current is not None and line.startswith("  "):
                current.append(line)
            elif line.strip() or self.footer:
                current = None
                self.footer.append(line)

    def entries(self, name):
        """Pairs of what is typed and what it does."""
        result = []
        for line in self.lists.get(name, []):
            match = re.match(r"  (\S.*?)(?:  +(\S.*))?$", line)
            if match:
                result.append([match[1], match[2] or ""])
            else:
                result[-1][1] = f"{result[-1][1]} {line.strip()}".strip()
        return result

    def markdown(self, name):
        return "\n".join(f"**`{left}`**\n\n:   {escaped(right)}\n"
                         for left, right in self.entries(name))

    def options(self, heading):
        """All that may be typed; each group stands under a heading of its own."""
        text = self.markdown("Positionals") + "\n" + self.markdown("Options")
        for group in sorted(self.lists.keys() - {"Positionals", "Options", "Subcommands"}):
            text += f"\n{heading} {group}\n\n{self.markdown(group)}"
        return text


def escaped(text):
    return re.sub(r"([\\`*_<>\[\]#|~])", r"\\\1", text)


def code(lines):
    return "".join(f"    {line}\n" for line in lines)


def program_page(name, version, summary, usage, body):
    """A page of section 1 as troff."""
    text = f"# NAME\n\n{name} - {escaped(summary)}\n\n# SYNOPSIS\n\n{code([usage])}\n{body}"
    page = run("pandoc", "-s", "-f", MARKDOWN, "-t", "man", "-M", f"title={name.upper()}",
               "-M", "section=1", "-M", f"footer=zarn {version}", "-M", "header=zarn", input=text)
    # Pandoc's tables are wider than a terminal of 80 columns: let the last column take what is left.
    page = re.sub(r"\blw\([\d.]+n\)\.$", "lx.", page, flags=re.MULTILINE)
    return re.sub(r"\blw\([\d.]+n\)", "l", page)


def write_program_pages(options):
    texts = sections((options.source / "docs/zarn.md").read_text())
    top = Help(options.zarn)
    names = [name for name, _ in top.entries("Subcommands")]
    about = {title: without_links(text) for title, text in texts}
    undescribed = [name for name in names if f"zarn {name}" not in about]
    if undescribed:
        raise SystemExit(f"man_pages: docs/zarn.md has no section about: {', '.join(undescribed)}")
    for name in names:
        sub = Help(options.zarn, name)
        body = f"# DESCRIPTION\n\n{about[f'zarn {name}']}\n# OPTIONS\n\n"
        body += sub.options("##")
        if "Subcommands" in sub.lists:
            body += "\n# SUBCOMMANDS\n"
        places = ["x" for _ in sub.entries("Positionals")]
        for verb, summary in sub.entries("Subcommands"):
            each = Help(options.zarn, name, *places, verb)
            body += f"\n## {escaped(each.usage)}\n\n{escaped(summary).capitalize()}.\n\n{each.options('###')}"
        body += f"\n# EXAMPLES\n\n{code(line for line in sub.footer if line != 'Example:')}"
        body += "\n# SEE ALSO\n\n**zarn**(1)\n"
        (options.out / f"zarn-{name}.1").write_text(
            program_page(f"zarn-{name}", options.version, sub.summary, sub.usage, body))
    body = f"# DESCRIPTION\n\n{about['']}\n# OPTIONS\n\n{top.markdown('Options')}\n"
    for title, text in about.items():
        if title and title.removeprefix("zarn ") not in names:
            body += f"# {title.upper()}\n\n{text}\n"
    body += "# SEE ALSO\n\n" + ", ".join(f"**zarn-{name}**(1)" for name in names) + "\n"
    (options.out / "zarn.1").write_text(
        program_page("zarn", options.version, top.summary, top.usage, body))


def check_program_pages(out):
    """That they fit a terminal of 80 columns, which has no page for a table to cross the end of."""
    said = subprocess.run(["groff", "-t", "-man", "-Tutf8", "-rLL=78n", "-", *sorted(out.glob("*.1"))],
                          input=".pl 3000i\n", check=True, text=True, stdout=subprocess.DEVNULL,
                          stderr=subprocess.PIPE).stderr
    if said:
        raise SystemExit(f"man_pages: {said}")


def header_briefs(source):
    """What the first line of each public header says of it, by its name in an #include."""
    briefs = {}
    for folder in (source / "include", *source.glob("platform/*/include")):
        for header in folder.rglob("*.h"):
            paragraph = re.match(r"(?:// ?.*\n)+", header.read_text())[0].replace("\n// ", " ")
            brief = re.match(r"// \S+ - (.*)", paragraph)[1].split("\n")[0]
            briefs[str(header.relative_to(folder))] = re.split(r"[.:;](?: |$)", brief)[0]
    return briefs


def write_class_pages(options):
    """Doxygen's pages of classes, and of headers that declare functions, under their plain names
    and with the NAME that whatis reads."""
    briefs = header_briefs(options.source)
    written = set()
    for page in sorted(options.doxygen.glob("*.3")):
        text = page.read_text()
        title = re.match(r'\.TH "([^"]*)" 3 ', text)[1]
        included = re.search(r"^\\fC#include <(.*)>\\fP$", text, re.MULTILINE)
        header = included[1].replace("\\&", "") if included else ""
        if title in briefs and '.SS "Functions"' in text:
            name, header = title.split("/")[-1], title
        elif header in briefs and "<" not in title:
            name = title.split("::")[-1]
        else:
            continue
        # Of several classes of one name, and of those inside others, only the first has a page.
        if name in written or re.search(r"::[CI][A-Z]\w+::", title):
            continue
        written.add(name)
        text = re.sub(r"^\.TH .*$", f'.TH "{name}" 3 "" "zarnutils {options.version}" "zarnutils"',
                      text, count=1, flags=re.MULTILINE)
        text = re.sub(r"^(\.SH NAME\n).*$", lambda found: f"{found[1]}{name} \\- {briefs[header]}",
                      text, count=1, flags=re.MULTILINE)
        # A line that begins with a quotation mark would be a request.
        text = re.sub(r"^'", r"\\&'", text, flags=re.MULTILINE)
        (options.out / f"{name}.3").write_text(text)
    if not written:
        raise SystemExit("man_pages: Doxygen wrote no page of a class")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--source", type=Path, required=True)
    parser.add_argument("--zarn", type=Path, required=True, help="the program")
    parser.add_argument("--doxygen", type=Path, required=True, help="directory of Doxygen's pages")
    parser.add_argument("--version", required=True)
    parser.add_argument("--out", type=Path, required=True)
    options = parser.parse_args()
    options.out.mkdir(parents=True, exist_ok=True)
    for old in options.out.glob("*.[13]"):
        old.unlink()
    write_program_pages(options)
    check_program_pages(options.out)
    write_class_pages(options)


if __name__ == "__main__":
    main()
