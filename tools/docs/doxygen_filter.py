#!/usr/bin/env python3
"""doxygen_filter.py FILE: prints a header with its plain comments turned into Doxygen's.

A comment that stands directly above a declaration describes it, one behind a declaration too; the
first comment of a file describes the file. Indented lines of a comment are code. Export macros and
specialisations of std::hash are left out.
"""

import html
import re
import sys

COMMENT = re.compile(r"^(\s*)//( ?.*)$")
# A declaration with a comment behind it: not a closing brace, a directive, or a comment in a string.
TRAILING = re.compile(r'^(\s*[^\s}#/"][^"]*?\s)//( .*)$')
EXPORT = re.compile(r"\b[A-Z]+_API ")
HEADLINE = re.compile(r"^ --- ")


def escape(text):
    """Text as Doxygen is to print it; what stands in backquotes is left as it is."""
    parts = text.split("`")
    for index in range(0, len(parts), 2):
        parts[index] = re.sub(r"([\\@<>#%*])", r"\\\1", parts[index])
    return "`".join(parts)


def code_markup(texts):
    """What begins and ends code, and how its lines are written: Doxygen's own command does not stand
    the end of a C comment."""
    if any("*/" in text for text in texts):
        return " <pre class=\"fragment\">", " </pre>", lambda text: html.escape(text, False).replace(
            "\\", "\\\\").replace("*/", "*&#47;")
    return " @code{.cpp}", " @endcode", lambda text: text


def block_lines(texts):
    """The lines of a comment, without their slashes, as Doxygen's markup."""
    in_code = False
    begin, end, write = code_markup(texts)
    for position, text in enumerate(texts):
        is_code = text.startswith("   ")
        blank = not text.strip()
        if blank and in_code:
            is_code = any(line.strip() for line in texts[position:]) and next(
                line for line in texts[position:] if line.strip()).startswith("   ")
        if is_code != in_code:
            yield begin if is_code else end
            in_code = is_code
        yield write(text[2:]) if is_code else escape(text)
    if in_code:
        yield end


def emit_block(indent, texts, is_first):
    if is_first:
        brief = re.sub(r"^ \S+ - ", " ", texts[0])
        print(f"{indent}/// @file")
        texts = [brief, *texts[1:]]
    for line in block_lines(texts):
        print(f"{indent}///{line}")


def without_hashes(lines):
    """The lines without specialisations of std::hash, which Doxygen looks for in vain in std."""
    inside = False
    for line, following in zip(lines, [*lines[1:], ""]):
        inside = inside or (line == "template <>" and following.startswith("struct std::hash<"))
        yield "" if inside else line
        inside = inside and line != "};"


def main(path):
    with open(path, encoding="utf-8") as file:
        lines = list(without_hashes(EXPORT.sub("", file.read()).splitlines()))
    position, seen_block, trailing_column = 0, False, None
    while position < len(lines):
        line = lines[position]
        comment = COMMENT.match(line)
        if not comment:
            trailing = TRAILING.match(line)
            trailing_column = trailing.start(2) if trailing else None
            print(f"{trailing[1]}///<{escape(trailing[2])}" if trailing else line)
            position += 1
            continue
        if trailing_column is not None and comment.start(2) == trailing_column:
            print(f"{comment[1]}///<{escape(comment[2])}")
            position += 1
            continue
        trailing_column = None
        end = position
        while end < len(lines) and COMMENT.match(lines[end]):
            end += 1
        texts = [COMMENT.match(text)[2] for text in lines[position:end]]
        follows = lines[end].strip() if end < len(lines) else ""
        is_first = not seen_block
        describes = follows and not follows.startswith(("}", "#")) and not HEADLINE.match(texts[0])
        if is_first or describes:
            emit_block(comment[1], texts, is_first)
        else:
            print("\n" * (end - position - 1))
        seen_block = True
        position = end


if __name__ == "__main__":
    main(sys.argv[1])
