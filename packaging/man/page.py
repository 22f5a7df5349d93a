#!/usr/bin/env python3
"""Writes a man page from a Markdown template and what a program's --help tells: page.py PROGRAM TEMPLATE VERSION.

A line of the template that is one of these words is replaced:
  @SYNOPSIS@      the usage line
  @OPTIONS@       the options
  @FILE_OPTIONS@  those that may stand in an option file, without their dashes
  @ARGUMENTS@     what is not an option
  @COMMANDS@      every command with its arguments and options
  @SECTION FILE: HEADING@  the section of a document of this project
  @KEYS FILE@     the sections and keys of an example, with what its comments tell of them
@SUMMARY@ and @VERSION@ may stand within a line.
"""
import pathlib
import re
import subprocess
import sys

import help_tree

PROJECT = pathlib.Path(__file__).resolve().parents[2]
INSTALLED = "/usr/share/doc/nasctrl"
NOT_IN_FILE = {"--help", "--version", "--config"}


def plain(text):
    return re.sub(r"([\\`*_\[\]<>|#~^=])", r"\\\1", text)


def definition(head, *paragraphs):
    first, *rest = (paragraph for paragraph in paragraphs if paragraph)
    return "\n".join([head, f":   {first}", *(f"\n    {paragraph}" for paragraph in rest), "", ""])


def option_head(option):
    names = ", ".join(f"`{name}`" for name in option.names)
    value, required = re.subn(r" ?REQUIRED$", "", option.value)
    return names + (f" *{plain(value)}*" if value else "") + (" (required)" if required else "")


def options(command):
    return "".join(definition(option_head(option), plain(option.text)) for option in command.options)


def file_options(command):
    rows = [option for option in command.options if option.names[-1] not in NOT_IN_FILE]
    return "".join(definition(f"`{row.names[-1].removeprefix('--')}` = *{plain(row.value or 'true|false')}*",
                              plain(row.text)) for row in rows)


def argument_head(argument):
    return f"*{plain(re.sub(r'( [.]{3})?( REQUIRED)?$', '', argument.head))}*"


def arguments(command):
    return "".join(definition(argument_head(row), plain(row.text)) for row in command.positionals)


def leaf(command):
    rows = [f"{argument_head(row)}: {plain(row.text)}" for row in command.positionals]
    rows += [f"{option_head(row)}: {plain(row.text)}" for row in command.options if "--help" not in row.names]
    usage = re.sub(r"\[OPTIONS\] ?", "", command.usage).strip()
    return definition(f"`{usage}`", plain(command.summary), *rows)


def commands(command):
    text = "".join(leaf(sub) for sub in command.subcommands if not sub.subcommands)
    for family in command.subcommands:
        if family.subcommands:
            text += f"## nasctl {' '.join(family.words)}\n\n{plain(family.summary)}.\n\n{commands(family)}"
    return text


def cells(row):
    return [cell.strip().replace(r"\|", "|") for cell in re.split(r"(?<!\\)\|", row.strip("|"))]


def definitions(table):
    """The rows of a table as definitions, because a page is too narrow for its columns."""
    headings, _, *rows = (cells(row) for row in table[0].splitlines())
    text = ""
    for head, first, *others in rows:
        more = [f"{title.capitalize()}: {cell}" for title, cell in zip(headings[2:], others) if cell]
        text += definition(head, first, *more)
    return text


def section(file, heading):
    text = (PROJECT / file).read_text()
    found = re.search(rf"^(#+) {re.escape(heading)}\n(.*?)(?=^#{{1,2}} |\Z)", text, re.M | re.S)
    if not found:
        raise SystemExit(f"page.py: {file} has no section {heading}")
    text = re.sub(r"^###", "##", found[2].strip(), flags=re.M) + "\n"
    text = re.sub(r"\b(?:docs/(?=\w)|(?=examples/))", f"{INSTALLED}/", text)
    return re.sub(r"(^\|.*\n)+", definitions, text, flags=re.M)


def keys(file):
    """An example of [sections] with blocks of keys, each block below a comment that tells of its keys."""
    text = ""
    for block in re.split(r"\n{2,}", (PROJECT / file).read_text().strip()):
        lines = block.splitlines()
        told = " ".join(line.lstrip("# ") for line in lines if line.startswith("#"))
        pairs = [line for line in lines if re.match(r"\w", line)]
        if pairs:
            text += definition(", ".join(f"`{pair.split(' = ')[0]}`" for pair in pairs), plain(told),
                               "Example: " + ", ".join(f"`{pair}`" for pair in pairs))
        elif block.startswith("["):
            text += f"## Section {plain(block.strip('[]'))}\n\n"
    return text


def fill(line, command):
    words = {"@SYNOPSIS@": lambda: f"`{command.usage}`\n", "@OPTIONS@": lambda: options(command),
             "@FILE_OPTIONS@": lambda: file_options(command), "@COMMANDS@": lambda: commands(command),
             "@ARGUMENTS@": lambda: arguments(command)}
    wanted = re.fullmatch(r"@SECTION (.*): (.*)@", line)
    if wanted:
        return section(wanted[1], wanted[2])
    listed = re.fullmatch(r"@KEYS (.*)@", line)
    return keys(listed[1]) if listed else words[line]() if line in words else line


def main(program, template, version):
    command = help_tree.read(program)
    text = pathlib.Path(template).read_text().replace("@VERSION@", version).replace("@SUMMARY@", command.summary)
    filled = "\n".join(fill(line, command) for line in text.splitlines()) + "\n"
    roff = subprocess.run(["lowdown", "-s", "-Tman", "--out-no-smarty"], input=filled, check=True,
                          capture_output=True, text=True).stdout
    # Words to type are bold in a man page; the constant-width font that lowdown asks for exists on printers only.
    sys.stdout.write(roff.replace(r"\fC", r"\fB"))


main(*sys.argv[1:])
