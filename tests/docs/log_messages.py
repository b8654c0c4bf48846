"""Compares docs/log-messages.md with the sources."""

import dataclasses
import re

from cxx import Unclear
from log_sites import HOLE, Sources, squeezed

CODES = "include/velamailserver/log_exception.h"
MESSAGES = "lib-webapi/log_exception.cc"

SECTION = re.compile(r"## (.+)")
ENTRY = re.compile(r"### `(?P<source>\S+):(?P<line>\d+)` (?P<priority>\w+(?: to \w+)?)")
TEXT = re.compile(r"- `(?P<text>.*)`")
CODE_ROW = re.compile(
    r"\| (?P<number>\d+) \| `(?P<name>\w+)` \| (?P<message>.+?) \| (?P<use>.+?) \|")
UNUSED = "not used here"


@dataclasses.dataclass
class Entry:
    section: str
    source: str
    line: int
    priority: str
    texts: list
    prose: str

    @property
    def origin(self):
        return f"{self.source}:{self.line}"


@dataclasses.dataclass
class Document:
    codes: dict  # name: (number, message)
    unused: set  # names
    entries: list


def read_document(text):
    document = Document({}, set(), [])
    section = ""
    for line in text.splitlines():
        if row := CODE_ROW.fullmatch(line):
            if row["name"] in document.codes:
                raise ValueError(f"{row['name']} is in the table twice")
            document.codes[row["name"]] = (int(row["number"]), row["message"])
            if row["use"] == UNUSED:
                document.unused.add(row["name"])
        elif entry := ENTRY.fullmatch(line):
            document.entries.append(Entry(section, entry["source"], int(entry["line"]),
                                          entry["priority"], [], ""))
        elif line.startswith("### "):
            raise ValueError(f"not an origin and a priority: {line}")
        elif heading := SECTION.fullmatch(line):
            section = heading[1]
        elif document.entries and section == document.entries[-1].section:
            if found := TEXT.fullmatch(line):
                document.entries[-1].texts.append(found["text"])
            else:
                document.entries[-1].prose += line + "\n"
    return document


def codes_in_sources(sources):
    numbers = dict(re.findall(r"^\s*(ERR_\w+) = (\d+),", sources[CODES], re.MULTILINE))
    enumerators = re.search(r"enum ErrorCode[^{]*\{(.*?)\}", sources[CODES], re.DOTALL)[1]
    messages = dict(re.findall(r"case (ERR_\w+):\s*return \"(.*)\";", sources[MESSAGES]))
    names = re.findall(r"\bERR_\w+", enumerators)
    return {name: (int(numbers[name]) if name in numbers else None, messages.get(name))
            for name in names}


def printed(line, codes):
    """What stands behind the origin of a line, the priority, and whether it has a code."""
    if not line.code:
        return line.text
    number, message = codes[line.code]
    return squeezed(f"({number}) {message}: {line.text}").rstrip()


def template(text):
    """A text of the document, in which <this> stands for what differs from time to time."""
    return squeezed(re.sub(r"<[^<>]+>", HOLE, text)).rstrip()


def differences(left, right, say):
    return [say(item) for item in sorted(left - right)]


def code_problems(document, codes, used):
    problems = differences(set(codes), set(document.codes), "{} is not in the table".format)
    problems += differences(set(document.codes), set(codes), "{} is in no source".format)
    for name in sorted(set(codes) & set(document.codes)):
        if document.codes[name] != codes[name]:
            problems.append(f"{name} is {codes[name]}, and not {document.codes[name]}")
        if (name in document.unused) == (name in used):
            problems.append(f"{name} is {'used' if name in used else UNUSED}")
    return problems


def entry_problems(entries):
    problems = []
    parts = {}
    seen = set()
    for entry in entries:
        if (entry.origin, entry.priority) in seen:
            problems.append(f"{entry.origin}: is in the document twice")
        seen.add((entry.origin, entry.priority))
        parts.setdefault(entry.source.split("/")[0], set()).add(entry.section)
        if not re.search(r"\S\n\*\*Do:\*\* \S", entry.prose):
            problems.append(f"{entry.origin}: has to say when it appears, and then **Do:**")
    for part, sections in parts.items():
        if len(sections) > 1:
            problems.append(f"{part} is in several sections: {sorted(sections)}")
    for one, next_one in zip(entries, entries[1:]):
        if one.section == next_one.section and (
                (one.source, one.line) > (next_one.source, next_one.line)):
            problems.append(f"{next_one.origin}: not in the order of the origins")
    return problems


def find_problems(sources, text):
    """Everything in which the document and the sources differ, as texts."""
    try:
        document = read_document(text)
        found = Sources(sources)
    except (Unclear, ValueError) as error:
        return [str(error)]
    codes = codes_in_sources(sources)
    written = {(f"{line.source}:{line.line}", line.priority, printed(line, codes))
               for line in found.lines}
    described = {(entry.origin, entry.priority, template(text))
                 for entry in document.entries for text in entry.texts}
    problems = found.origin_problems()
    problems += code_problems(document, codes, {line.code for line in found.lines})
    problems += differences(written, described, "not in the document: {0}".format)
    problems += differences(described, written, "in no source: {0}".format)
    problems += [f"{entry.origin}: has no text" for entry in document.entries if not entry.texts]
    return problems + entry_problems(document.entries)
