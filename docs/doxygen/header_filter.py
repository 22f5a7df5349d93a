"""Turns a public header into what Doxygen reads: its plain comments become documentation.

Usage: header_filter.py HEADER

The headers keep to plain comments, because they are read as they stand far more often than as a reference. The rules:
  - the first comment tells of the file;
  - a comment on lines of its own tells of all that follows up to the next empty line or comment, one at the end of a
    line tells of that line;
  - "---- title ----" begins a section; the comment's remaining text tells of the section;
  - an object that is declared with its record is told of by the record's comment too;
  - a field named reserved, pad or zero, with or without a number, tells of itself.
Every line stays on its number, so that Doxygen's complaints point into the header.
"""

import re
import sys

RESERVED_FIELD = re.compile(r"\b(reserved|pad|zero|opaque)\d*(\[\w+\])?[;,]")
TWO_FIELDS = re.compile(r"^(\s*\w+ )(\w+), (\w+);$")
OPENS_RECORD = re.compile(r"^[^#].*\{\s*$")
OBJECT_WITH_RECORD = re.compile(r"^extern NASCTRL_API struct (\w+) \{$")
ENDS_DECLARATION = re.compile(r"[;{}]\s*$")
CODE_AND_COMMENT = re.compile(r"^(.*\S)\s*/\*(.*)\*/\s*$")
NO_DECLARATION = re.compile(r"^\s*($|\}|NASCTRL_\w+_DECLS|#(if|e|i))")
SECTION = re.compile(r"^---- (.*?) ----\s*(.*)$")


def text_of(comment):
    """The words of a comment, in one line."""
    inner = re.sub(r"^\s*/\*+|\*/\s*$", "", "\n".join(comment))
    return " ".join(re.sub(r"^\s*\*+ ?", "", line).strip() for line in inner.split("\n")).strip()


class Header:
    def __init__(self):
        self.out = []
        self.shared = ""  # what the comment above tells of the lines that follow
        self.object = ""  # the declaration of the object whose record is open, up to its name
        self.in_section = False
        self.in_declaration = False  # that has several lines

    def emit(self, text, lines=1):
        self.out.append(text + "\n" * (lines - 1 - text.count("\n")))

    def take_comment(self, comment):
        text = text_of(comment)
        section = SECTION.match(text)
        if not self.out:
            self.emit(f"/** @file\n{text} */", len(comment))
        elif section:
            close = "/** @} */ " if self.in_section else ""
            told = f"\n{section[2]}" if section[2] else ""
            self.emit(f"{close}/** @name {section[1]}{told} */ /** @{{ */", len(comment))
            self.in_section = True
            self.shared = ""
        else:
            self.emit("", len(comment))
            self.shared = text

    def told_of(self, line, own):
        if own:
            return own[2].strip()
        return "Not used." if RESERVED_FIELD.search(line) else self.shared

    def take_code(self, line):
        own = CODE_AND_COMMENT.match(line)
        told = self.told_of(line, own)
        line = own[1] if own else line
        with_record = OBJECT_WITH_RECORD.match(line)
        if with_record:
            line = f"struct {with_record[1]} {{"
            self.object = f"/** {told} */ extern struct {with_record[1]}" if told else ""
        elif line.startswith("}") and self.object:
            line = line.replace("} ", f"}}; {self.object} ", 1)
            self.object = ""
        self.emit(self.decorate(line, told))
        if not line.strip() or OPENS_RECORD.search(line):
            self.shared = ""
        self.in_declaration = bool(line.strip()) and not line.startswith("#") and not ENDS_DECLARATION.search(line)

    def decorate(self, line, told):
        if line.startswith("NASCTRL_END_DECLS") and self.in_section:
            return f"/** @}} */ {line}"
        if not told or self.in_declaration or NO_DECLARATION.match(line):
            return line
        return f"/** {told} */ " + TWO_FIELDS.sub(rf"\1\2; /** {told} */ \1\3;", line)


def convert(lines):
    header, comment = Header(), []
    for line in lines:
        starts = line.lstrip().startswith("/*") and not re.search(r"\*/\s*\S", line)
        if comment or starts:
            comment.append(line)
            if "*/" in line:
                header.take_comment(comment)
                comment = []
        else:
            header.take_code(line)
    return "\n".join(header.out) + "\n"


with open(sys.argv[1], encoding="utf-8") as source:
    sys.stdout.write(convert(source.read().splitlines()))
