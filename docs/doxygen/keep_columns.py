#!/usr/bin/env python3
"""keep_columns.py HEADER: the header for Doxygen, with the comments' columns kept.

A paragraph of a comment with a name and its meaning in columns, as arguments, results and tables have, becomes
verbatim. A header's first comment tells of the file.
"""
import re
import sys


def kept(body):
    """The lines of a comment, columns marked."""
    result = []
    for number, paragraph in enumerate(re.split(r"\n(?:[ \t]*\n)+", body.rstrip())):
        lines = paragraph.split("\n")
        columns = number > 0 and any(re.match(r"\s*\S+(?: \S+)*   *\S", line) for line in lines)
        indented = all(line.startswith("    ") for line in lines)
        if columns and not indented:
            paragraph = f"@verbatim\n{paragraph}\n@endverbatim"
        result.append(paragraph)
    return "\n\n".join(result)


def block(match):
    start, inside = match[1], match[2]
    lines = [re.sub(r"^ ?\* ?", "", line.rstrip()) for line in inside.split("\n")]
    return f"{start}{kept(chr(10).join(lines))} */"


with open(sys.argv[1], encoding="utf-8") as file:
    text = file.read()
text = re.sub(r"\A/\* ", "/** @file\n * ", text)
text = re.sub(r"(/\*\*)((?!<)(?:[^*]|\*(?!/))*?\n(?:[^*]|\*(?!/))*)\*/", block, text)
sys.stdout.write(text)
