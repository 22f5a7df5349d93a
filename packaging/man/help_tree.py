"""What a program tells of itself by --help, as a tree of its commands."""
import subprocess
from dataclasses import dataclass, field

TEXT_COLUMN = 30


@dataclass
class Entry:
    head: str  # as it stands there: "-h,--help", "--root DIR", "ADDR ... REQUIRED", "status"
    text: str

    @property
    def names(self):
        return self.head.split()[0].split(",")

    @property
    def value(self):
        return " ".join(self.head.split()[1:])


@dataclass
class Command:
    words: list
    summary: str = ""
    usage: str = ""
    positionals: list = field(default_factory=list)
    options: list = field(default_factory=list)
    subcommands: list = field(default_factory=list)  # Commands


def entries(lines):
    """Cuts lines of "  HEAD   TEXT"; the text of a long head is on a line of its own."""
    found, rest = [], list(lines)
    while rest:
        line = rest.pop(0)
        head, text = line[:TEXT_COLUMN], line[TEXT_COLUMN:]
        if rest and rest[0].startswith(" " * TEXT_COLUMN):
            head, text = line, rest.pop(0)
        if not text.strip():
            raise ValueError(f"{head.strip()}: --help tells nothing of it")
        found.append(Entry(head.strip(), text.strip()))
    return found


def read(program, words=()):
    """Asks the program, and for each of its subcommands again."""
    text = subprocess.run([program, *words, "--help"], check=True, capture_output=True, text=True).stdout
    command = Command(list(words))
    heading, sections = None, {None: []}
    for line in text.splitlines():
        if line.startswith("Usage: "):
            command.usage = line.removeprefix("Usage: ")
        elif line in ("Positionals:", "Options:", "Subcommands:"):
            heading = line[:-1]
            sections[heading] = []
        elif line and heading and not line.startswith(" "):
            break  # what stands below the entries
        elif line:
            sections[heading].append(line)
    rows = {name: entries(sections.get(name, [])) for name in ("Positionals", "Options", "Subcommands")}
    command.summary = " ".join(sections[None]).rstrip(".")
    command.positionals, command.options = rows["Positionals"], rows["Options"]
    command.subcommands = [read(program, [*words, row.head]) for row in rows["Subcommands"]]
    return command
