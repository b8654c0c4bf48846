#!/usr/bin/python3
"""Fails when docs/security.md names a test that there is none of, or an attack without one.

usage: named_tests_test.py ROOT
"""

import pathlib
import re
import sys

TEST = re.compile(r"^TEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\)", re.MULTILINE)
NAMED = re.compile(r"`(\w+\.[A-Z]\w+)`")

root = pathlib.Path(sys.argv[1])
tests = {f"{suite}.{name}"
         for path in (root / "tests").rglob("*.cc")
         for suite, name in TEST.findall(path.read_text(encoding="utf-8"))}
text = (root / "docs/security.md").read_text(encoding="utf-8")
attacks = [paragraph for section in text.split("\n## ") if section.startswith("From ")
           for paragraph in section.split("\n\n") if paragraph.startswith("**")]

problems = [f"there is no test {name}" for name in sorted(set(NAMED.findall(text)) - tests)]
problems += [f"no test is named for: {paragraph[:60]}" for paragraph in attacks
             if not NAMED.search(paragraph)]
if len(attacks) < 10:
    problems.append(f"only {len(attacks)} attacks were found")
print("\n".join(problems))
sys.exit(1 if problems else 0)
