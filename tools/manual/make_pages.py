#!/usr/bin/env python3
"""make_pages.py FOLDER VERSION COMMAND ...: writes a manual page for each command and for each of its subcommands.

What a page says is what --help prints, so that no option can be missing from it.
"""
import datetime
import os
import re
import subprocess
import sys

NAME_COLUMNS = 30  # of --help: where descriptions begin

ENVIRONMENT = """.SH ENVIRONMENT
.TP
.BR XDG_CACHE_HOME ", " HOME
Compiled shader programs are kept in
.I noxel/
below the first, or in
.I .cache/noxel/
below the second.
.TP
.B TMPDIR
Where an MP4 from a pipe is spooled when its index is at its end; else
.IR /tmp .
.TP
.BR EGL_PLATFORM ", " WAYLAND_DISPLAY ", " DISPLAY
Choose the EGL display. Without them frames are rendered on Mesa's surfaceless platform.
"""


def escape(text):
    text = text.replace("\\", "\\e").replace("-", "\\-").replace("'", "\\(aq").replace("`", "\\(ga")
    return re.sub(r"^\.", r"\\&.", text, flags=re.MULTILINE)


def help_of(command):
    return subprocess.run(command + ["--help"], check=True, capture_output=True, text=True).stdout


class Help:
    """--help as CLI11 prints it: description, usage, sections of names with descriptions, and a text behind them."""

    def __init__(self, text):
        head, tail = text.split("Usage: ", 1)
        self.description = " ".join(head.split()).rstrip(".")
        usage, tail = tail.split("\n", 1)
        self.usage = usage.split()
        self.sections = []  # (title, [(name, description)])
        lines = tail.split("\n")
        while lines:
            if not lines[0].strip():
                lines.pop(0)
                continue
            title = re.fullmatch(r"(\S.*):", lines[0])
            listed = title and len(lines) > 1 and lines[1].startswith("  ")
            if not listed or not (title[1] in ("Positionals", "Options", "Subcommands") or lines[1].startswith("  -")):
                break
            lines.pop(0)
            entries = []
            while lines and lines[0].startswith("  "):
                entries.append(self.entry(lines))
            self.sections.append((title[1], entries))
        self.text = "\n".join(lines).strip("\n")

    @staticmethod
    def entry(lines):
        line = lines.pop(0)
        wrapped = bool(lines) and lines[0].startswith(" " * NAME_COLUMNS)
        if wrapped and (len(line) >= NAME_COLUMNS or not line[NAME_COLUMNS - 1 :].strip()):
            name, parts = line.strip(), []
        else:
            name, parts = line[:NAME_COLUMNS].strip(), [line[NAME_COLUMNS:].strip()]
        while lines and lines[0].startswith(" " * NAME_COLUMNS):
            parts.append(lines.pop(0).strip())
        return name, " ".join(part for part in parts if part)


def option(name, description):
    """One .TP: `--strength INT:INT in [0 - 100]=50` is a name, a placeholder and what is added to the description."""
    flags, _, rest = name.partition(" ")
    facts = []
    related = re.search(r"\s*(Excludes|Needs): (.*)$", rest)
    if related:
        word = "Not with" if related[1] == "Excludes" else "Only with"
        facts.append(f"{word} {', '.join(related[2].split())}.")
        rest = rest[: related.start()]
    required = re.search(r"\s*REQUIRED$", rest)
    if required:
        rest = rest[: required.start()]
    kind, _, default = rest.partition("=")
    choices = re.search(r":\{(.*)\}", kind)
    limits = re.search(r":\w+ in \[(\S+) - (\S+)\]", kind)
    if choices:
        facts.insert(0, "One of " + ", ".join(choices[1].split(",")) + ".")
    if limits and int(float(limits[2])) < 2**31 - 1:
        facts.insert(0, f"From {limits[1]} to {limits[2]}.")
    if default:
        facts.append(f"Default: {default}.")
    elif required and flags.startswith("-"):
        facts.append("Required.")
    placeholder = re.sub(r"[: ].*", "", kind.strip())
    if placeholder in ("INT", "UINT", "FLOAT"):
        placeholder = "N"
    elif placeholder == "TEXT":
        placeholder = "NAME"
    tag = ", ".join(f"\\fB{escape(flag)}\\fR" for flag in flags.split(","))
    if not flags.startswith("-"):
        tag = f"\\fI{escape(flags)}\\fR"
    elif placeholder:
        tag += f" \\fI{escape(placeholder)}\\fR"
    if description and description[-1] not in ".:":
        description += "."
    return f".TP\n{tag}\n{escape(' '.join([description] + facts))}\n"


def block(lines):
    """A paragraph of the text behind the options: a list of terms, lines to keep as they are, or prose."""
    indent = len(lines[0]) - len(lines[0].lstrip())
    items = []
    for line in lines:
        term = re.match(r" {%d}(\S(?:\S| (?! ))*)  +(\S.*)" % indent, line)
        if term:
            items.append([term[1], term[2]])
        elif items and len(line) - len(line.lstrip()) > indent:
            items[-1][1] += " " + line.strip()
        else:
            items = []
            break
    if items:
        return "".join(f".TP\n\\fB{escape(term)}\\fR\n{escape(text)}\n" for term, text in items)
    if indent:
        return ".PP\n.RS 4\n.nf\n" + "".join(escape(line[indent:]) + "\n" for line in lines) + ".fi\n.RE\n"
    return ".PP\n" + "".join(escape(line) + "\n" for line in lines)


def behind(text):
    """The prose, and the sections under short headings."""
    prose, headed = "", ""
    for paragraph in re.split(r"\n\s*\n", text):
        lines = paragraph.split("\n")
        while lines:
            heading = re.fullmatch(r"([A-Z]\w*(?: \w+)?):", lines[0])
            depth = bool(re.match(r" ", lines[0]))
            run = [lines.pop(0)]
            while lines and (lines[0].startswith(" ") == depth or (re.match(r"\S+  ", run[0]) and depth is False)):
                if heading:
                    break
                run.append(lines.pop(0))
            if heading:
                headed += f".SH {heading[1].upper().replace('EXIT CODES', 'EXIT STATUS')}\n"
                while lines and lines[0].startswith(" "):
                    run.append(lines.pop(0))
                headed += block(run[1:])
            else:
                prose += block(run)
    return prose, headed


def page(name, parsed, version, date, also):
    synopsis = " ".join(
        f"\\fB{escape(word)}\\fR" if word in name.replace("-", " ").split() + [name] else f"\\fI{escape(word)}\\fR"
        for word in parsed.usage)
    prose, headed = behind(parsed.text)
    summary = parsed.description[0].lower() + parsed.description[1:]
    if parsed.description.split()[0] == "Noxel":  # a name keeps its capital
        summary = parsed.description
    text = f'.TH {name.upper()} 1 "{date}" "Noxel {version}" "User Commands"\n'
    text += f".SH NAME\n{escape(name)} \\- {escape(summary)}\n.SH SYNOPSIS\n{synopsis}\n"
    text += f".SH DESCRIPTION\n{escape(parsed.description)}.\n{prose}"
    in_options = False
    for title, entries in parsed.sections:
        if title == "Subcommands":
            text += ".SH COMMANDS\n"
            for sub, description in entries:
                see = escape(f"{name}-{sub}")
                text += f".TP\n\\fB{escape(sub)}\\fR\n{escape(description)}; see \\fB{see}\\fR(1).\n"
            continue
        if not in_options:
            text += ".SH OPTIONS\n"
            in_options = True
        if title not in ("Positionals", "Options"):
            text += f".SS {escape(title)}\n"
        text += "".join(option(*entry) for entry in entries)
    text += headed
    if "-" not in name:
        text += ENVIRONMENT
    others = ",\n".join(f".BR {escape(other)} (1)" for other in also if other != name)
    return text + ".SH SEE ALSO\n" + others + "\n"


def main():
    folder, version, *commands = sys.argv[1:]
    os.makedirs(folder, exist_ok=True)
    stamp = os.environ.get("SOURCE_DATE_EPOCH")
    now = datetime.datetime.now(datetime.timezone.utc)
    date = (datetime.datetime.fromtimestamp(int(stamp), datetime.timezone.utc) if stamp else now).strftime("%Y-%m-%d")
    pages = {}
    for command in commands:
        name = os.path.basename(command)
        pages[name] = Help(help_of([command]))
        for title, entries in pages[name].sections:
            for sub, _ in entries if title == "Subcommands" else []:
                pages[f"{name}-{sub}"] = Help(help_of([command, sub]))
    for name, parsed in pages.items():
        path = os.path.join(folder, name + ".1")
        with open(path, "w", encoding="utf-8") as file:
            file.write(page(name, parsed, version, date, sorted(pages)))


main()
