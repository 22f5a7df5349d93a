#!/usr/bin/env python3
"""Holds the man pages against what the programs tell by --help, and the pages of files against the example node, which
has every field and key, in both directions.
Usage: man_test.py DIRECTORY-OF-PAGES EXAMPLE-NODE NASCTL NASCTRLD NASSTORED HOSTCHECK
"""
import configparser
import json
import os
import re
import subprocess
import sys

pages, example, nasctl, nasctrld, nasstored, hostcheck = sys.argv[1:]
findings = []


def shown(page):
    """The page as a reader sees it, one blank between words; no line is so long that a word is cut."""
    result = subprocess.run(["man", "--warnings", "-l", f"{pages}/{page}.gz"], check=True, capture_output=True,
                            text=True, env={**os.environ, "MANWIDTH": "5000", "LC_ALL": "C.UTF-8", "MAN_KEEP_FORMATTING": ""})
    if result.stderr:
        findings.append(f"{page}: {result.stderr.strip()}")
    return re.sub(r"[ \t]+", " ", result.stdout)


def told(program, *words):
    return subprocess.run([program, *words, "--help"], check=True, capture_output=True, text=True).stdout


def everything_told(program, *words):
    """The help text of a command and of all below it."""
    text = told(program, *words)
    listed = text.partition("\nSubcommands:\n")[2].partition("\n\n")[0]
    below = re.findall(r"^  (\S+)", listed, re.M)
    return text + "".join(everything_told(program, *words, name) for name in below)


def long_options(text):
    return set(re.findall(r"--[a-z][a-z-]*[a-z]", text))


def same(what, ours, theirs):
    for name in sorted(ours - theirs):
        findings.append(f"{what}: {name} is told by --help alone")
    for name in sorted(theirs - ours):
        findings.append(f"{what}: {name} is on the page alone")


def texts(help_text):
    """What stands in the second column."""
    return {re.sub(r"\s+", " ", text) for text in re.findall(r"^(?=  ).{29} (\S.*)$", help_text, re.M)}


def sections(page_text, *names):
    return "".join(re.search(rf"^{name}\n(.*?)(?=^\S|\Z)", page_text, re.M | re.S)[1] for name in names)


def hold(page, program, *names):
    text, help_text = shown(page), everything_told(program)
    same(page, long_options(help_text), long_options(sections(text, *names)))
    for line in texts(help_text):
        if line not in text:
            findings.append(f"{page}: lacks the text: {line}")
    return text


page = hold("nasctl.1", nasctl, "OPTIONS", "COMMANDS")
for usage in re.findall(r"^Usage: nasctl (.*)", everything_told(nasctl), re.M):
    if "[SUBCOMMAND]" not in usage and "nasctl " + usage.replace("[OPTIONS] ", "").replace(" [OPTIONS]", "") not in page:
        findings.append(f"nasctl.1: lacks the command: {usage}")
hold("nasctrld.8", nasctrld, "OPTIONS")
hold("nasstored.8", nasstored, "OPTIONS")
hold("nasctrl-hostcheck.1", hostcheck, "OPTIONS")

in_file = {option[2:] for option in long_options(told(nasctrld))} - {"help", "version", "config"}
same("nasctrld.conf.5", in_file, set(re.findall(r"^ *(\S+) = ", sections(shown("nasctrld.conf.5"), "OPTIONS"), re.M)))

# The service refuses a field that it does not know, so the example has none; the page's are at the margin.
with open(f"{example}/storage.json", encoding="utf-8") as file:
    fields = set(json.load(file))
description = sections(shown("nasctrl-storage.json.5"), "DESCRIPTION")
listed = re.findall(r"^ ([a-z_]+(?:, [a-z_]+)*)$", description, re.M)
same("nasctrl-storage.json.5", fields, {name for names in listed for name in names.split(", ")})


def hold_keys(page, path):
    deployed = configparser.ConfigParser()
    deployed.read(f"{example}/opt/{path}", encoding="utf-8")
    for name in deployed.sections():
        text = re.search(rf"^ Section {name}\n(.*?)(?=^ Section |\Z)", sections(shown(page), "KEYS"), re.M | re.S)
        examples = re.findall(r"^ Example: (.*)$", text[1] if text else "", re.M)
        heads = re.findall(r"^ (\w+(?:, \w+)*)$", text[1] if text else "", re.M)
        same(f"{page}: {name}", set(deployed[name]), {key for line in heads for key in line.split(", ")})
        same(f"{page}: {name}", {f"{key} = {value}" for key, value in deployed[name].items()},
             {pair for line in examples for pair in re.split(r", (?=\w+ = )", line)})


hold_keys("dpc.conf.5", "marovesta/brisqueta/conf/dpc.conf")
hold_keys("EBSServer.cfg.5", "ostrak/eds/eds-f/conf/EBSServer.cfg")
if "ID;ADDRESS/LENGTH" not in shown("vpc.local.conf.5"):
    findings.append("vpc.local.conf.5: lacks the form of a line")

for finding in findings:
    print(finding)
sys.exit(1 if findings else 0)
