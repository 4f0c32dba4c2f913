"""Shows a header to Doxygen with its comments as documentation: doxygen_filter.py HEADER

A comment before a declaration becomes "///", one after it "///<", the head of the file its
description. Indented text in a comment, such as an order of calls, is shown as it is.
"""

import re
import sys

COMMENT = re.compile(r"^(\s*)//(.*)$")
BEHIND = re.compile(r"^(.*[;,{}()\w])(\s\s+)// (.*)$")
# Doxygen would take these for commands, tags or links.
SPECIAL = re.compile(r"([\\@<>#&%])")


def escaped(text):
    """Escapes what is not between backticks."""
    pieces = text.split("`")
    if len(pieces) % 2 == 0:  # an unpaired backtick
        return SPECIAL.sub(r"\\\1", text)
    return "`".join(SPECIAL.sub(r"\\\1", piece) if i % 2 == 0 else piece
                    for i, piece in enumerate(pieces))


def shown(comments):
    """A block of comment lines, given as (indentation, text)."""
    is_code = False
    in_list = False
    for i, (indent, text) in enumerate(comments):
        body = text.strip()
        depth = len(text) - len(text.lstrip())
        if re.match(r" +- ", text):
            in_list = True
        elif depth <= 1:
            in_list = False
        wants_code = depth >= 3 and not in_list
        if not body and is_code:  # an empty line belongs to the code around it
            wants_code = any(len(t) - len(t.lstrip()) >= 3
                             for _, t in comments[i + 1:i + 2] if t.strip())
        if wants_code != is_code:
            yield f"{indent}/// " + ("~~~{.txt}" if wants_code else "~~~")
            is_code = wants_code
        yield f"{indent}/// {text[1:] if is_code else escaped(text[1:])}".rstrip()
    if is_code:
        yield f"{comments[-1][0]}/// ~~~"


def filtered(lines):
    name = re.match(r"// (\S+) - (.*)", lines[0])
    if name:
        lines = [f"// {name[2][0].upper()}{name[2][1:]}", *lines[1:]]
        yield f"/// @file {name[1]}"
    block = []
    column = None  # where the comment after a declaration began
    for line in lines:
        comment = COMMENT.match(line)
        if comment and column is not None and len(comment[1]) == column:
            yield f"{comment[1]}///< {escaped(comment[2].strip())}"
            continue
        column = None
        if comment:
            block.append((comment[1], comment[2]))
            continue
        yield from shown(block)
        block = []
        behind = BEHIND.match(line)
        if behind and not line.lstrip().startswith("#"):
            column = len(behind[1]) + len(behind[2])
            line = f"{behind[1]}{behind[2]}///< {escaped(behind[3])}"
        yield line
    yield from shown(block)


with open(sys.argv[1], encoding="utf-8") as file:
    print("\n".join(filtered(file.read().splitlines())))
