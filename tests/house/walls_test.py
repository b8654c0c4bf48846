#!/usr/bin/python3
"""Fails when a source includes what is behind a wall of the house.

usage: walls_test.py ROOT
"""

import sys

from walls import PARTS, THIRD_PARTY, find_problems, read_sources

sources = read_sources(sys.argv[1])
problems = find_problems(sources)
problems += [f"walls.py: there is nothing in {part.folder}" for part in PARTS
             if not any(path.startswith(part.folder) for path in sources)]
problems += [f"walls.py: {package} may be known in {place}, where there is nothing"
             for package, places in THIRD_PARTY.items() for place in places
             if not any(path.startswith(place) for path in sources)]
print("\n".join(problems))
sys.exit(1 if problems else 0)
