#!/usr/bin/python3
"""Fails when a line that the sources write to the log is missing in docs/log-messages.md or differs
there, or when the document has one that is in no source.

usage: log_messages_test.py ROOT
"""

import pathlib
import sys

from log_messages import find_problems
from log_sites import read_sources

root = pathlib.Path(sys.argv[1])
problems = find_problems(read_sources(root),
                         (root / "docs/log-messages.md").read_text(encoding="utf-8"))
print("\n".join(problems))
sys.exit(1 if problems else 0)
