#!/usr/bin/python3
"""Changes the library in one place after the other and runs its unit tests on what comes of it: they
ought to fail.

usage: run.py [--sample COUNT | --only TEXT] ROOT BUILD OUT

BUILD holds the programs of the unit tests and knows how the library is built; OUT is where everything
goes that is made here. The sources are changed in copies. A mutant that no test notices survives; one
that nothing can notice is in equivalent.txt, with the reason why.
"""

import argparse
import collections
import concurrent.futures
import hashlib
import json
import os
import pathlib
import queue
import re
import resource
import shlex
import shutil
import signal
import subprocess
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "docs"))  # where cxx.py is

from mutations import mutations_of  # noqa: E402

LIBRARY = "lib-webapi"
SHARED_OBJECT = "libmailserver-webapi.so"
LEAST_KILLED = 0.9

# Quick ones first. The pages are sorted in every way that there is, which takes a while.
ROUNDS = [("lib-webapi-test", "-NoOwnerPagesTest.*"),
          ("memory-test", "*"),
          ("lib-webapi-test", "NoOwnerPagesTest.*")]

# A mutant may loop, allocate and write without end, or wait for what never comes.
MEMORY = 2 << 30
WRITTEN = 16 << 20
WAIT = 180  # seconds, of a machine that has other work, too

KILLED, SURVIVED, NOT_COMPILED = "killed", "survived", "not compiled"


class Failed(Exception):
    """The guard itself cannot do its work."""


def without_cache():
    return os.environ | {"CCACHE_DISABLE": "1"}


def compile_commands(root, build):
    """How each source of the library is compiled: unoptimised, without warnings, and without where
    it is and where its object goes."""
    commands = {}
    for entry in json.loads((build / "compile_commands.json").read_text()):
        path = pathlib.Path(entry["file"])
        if path.parent != root / LIBRARY and path.parent != root / LIBRARY / "account":
            continue
        words = shlex.split(entry["command"])
        while not words[0].endswith("c++") and not words[0].endswith("g++"):
            words.pop(0)  # a launcher
        kept, skip = [], False
        for word in words:
            if skip:
                skip = False
            elif word in ("-o", "-c"):
                skip = True
            elif not re.fullmatch(r"-O.|-g\d?|-W.*", word):
                kept.append(word)
        commands[str(path.relative_to(root))] = [*kept, "-O0", "-w"]
    if not commands:
        raise Failed(f"{build} does not say how {LIBRARY} is compiled")
    return commands


def link_command(build):
    """What links the library: all but its objects and its name."""
    lines = subprocess.run(["ninja", "-C", str(build), "-t", "commands",
                            f"{LIBRARY}/{SHARED_OBJECT}"],
                           check=True, capture_output=True, text=True).stdout.splitlines()
    line = next(line for line in lines if " -shared " in line)
    words = shlex.split(line.replace(": &&", "").replace("&& :", ""))
    output = words.index("-o")
    del words[output:output + 2]
    return [word for word in words if not word.endswith(".o") and not word.startswith("-O")]


def includes(path, header, sources):
    """Whether a source includes a header of the library, through others or by itself."""
    names = re.findall(r'#include "([^"]+)"', sources[path])
    found = [f"{LIBRARY}/{name}" for name in names]
    return header in found or any(includes(name, header, sources) for name in found)


class Library:
    """How to build the library, a mutant or not."""

    def __init__(self, root, build, out):
        self.root, self.build, self.out = root, build, out
        self.sources = {str(path.relative_to(root)): path.read_text()
                        for pattern in ("*.cc", "*.h") for path in (root / LIBRARY).rglob(pattern)}
        self.compile = compile_commands(root, build)
        self.link = link_command(build)
        for program in {program for program, _ in ROUNDS}:  # whoever builds meanwhile is no matter
            shutil.copy2(build / "tests" / LIBRARY / program, out)
        self._make_prelude()
        self.objects = {path: self._compile(path, root, out / "objects") for path in self.compile}

    def _make_prelude(self):
        """What the sources include from elsewhere, compiled in advance, as no mutant changes it."""
        lines = sorted({line for text in self.sources.values()
                        for line in re.findall(r"#include <[^>]+>", text)})
        self.prelude = self.out / "prelude.h"
        self.prelude.write_text("\n".join(lines) + "\n")
        command = self.compile[f"{LIBRARY}/utils.cc"]
        subprocess.run([*command, "-x", "c++-header", "-o", f"{self.prelude}.gch", self.prelude],
                       check=True, cwd=self.build, env=without_cache())

    def _compile(self, path, tree, objects):
        """Compiles a source of a copy of the tree; None when that fails."""
        result = objects / (path.replace("/", "-") + ".o")
        command = [word.replace(f"-I{self.root}/{LIBRARY}", f"-I{tree}/{LIBRARY}")
                   for word in self.compile[path]]
        objects.mkdir(parents=True, exist_ok=True)
        done = subprocess.run([*command, "-include", self.prelude, "-o", result, "-c", tree / path],
                              cwd=self.build, env=without_cache(), capture_output=True, check=False)
        return result if done.returncode == 0 else None

    def build_in(self, place, changed):
        """Links the library with what changed in the copy; false when it does not compile."""
        objects = dict(self.objects)
        for path in self.compile:
            if path == changed or changed and includes(path, changed, self.sources):
                objects[path] = self._compile(path, place, place / "objects")
                if objects[path] is None:
                    return False
        done = subprocess.run([*self.link, "-o", place / f"{SHARED_OBJECT}.0", *objects.values()],
                              cwd=self.build, capture_output=True, check=False)
        return done.returncode == 0


class Place:
    """A copy of the library's sources, in which one mutant at a time is made and tried."""

    def __init__(self, library, number):
        self.library = library
        self.folder = library.out / f"place-{number}"
        shutil.copytree(library.root / LIBRARY, self.folder / LIBRARY)
        (self.folder / "work").mkdir()

    def try_mutant(self, mutation, seconds):
        path = self.folder / mutation.file
        source = self.library.sources[mutation.file]
        path.write_text(mutation.applied_to(source))
        try:
            if not self.library.build_in(self.folder, mutation.file):
                return NOT_COMPILED, ""
            return self.run_tests(seconds)
        finally:
            path.write_text(source)

    def run_tests(self, seconds):
        for program, tests in ROUNDS:
            ended = self._run(program, tests, seconds)
            if ended != 0:
                return KILLED, f"{program} {tests}: {ended}"
        return SURVIVED, ""

    def _run(self, program, tests, seconds):
        path = self.library.out / program
        environment = os.environ | {"LD_LIBRARY_PATH": str(self.folder)}
        with subprocess.Popen(
                ["prlimit", f"--cpu={seconds}", f"--as={MEMORY}", f"--fsize={WRITTEN}", "--core=0",
                 str(path), f"--gtest_filter={tests}", "--gtest_fail_fast"],
                cwd=self.folder / "work", env=environment, start_new_session=True,
                stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                stderr=subprocess.DEVNULL) as process:
            try:
                return process.wait(WAIT)
            except subprocess.TimeoutExpired:
                return "no end"
            finally:
                try:  # what it left behind, too
                    os.killpg(process.pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass


def read_equivalent(path):
    """The keys of the mutants that nothing can notice. A block is the two lines of a key and the
    reason."""
    keys = set()
    text = re.sub(r"^#.*\n", "", path.read_text(), flags=re.MULTILINE)
    for block in filter(None, re.split(r"\n\s*\n", text.strip())):
        lines = block.splitlines()
        if len(lines) < 3:
            raise Failed(f"{path.name}: two lines and a reason are wanted: {block}")
        keys.add("\n".join(lines[:2]))
    return keys


def sample(mutations, count):
    """Those whose keys come first in an order that looks random, and is the same every time."""
    return sorted(mutations, key=lambda m: hashlib.sha256(m.key.encode()).digest())[:count]


def try_all(library, mutations, seconds):
    """Tells what became of each, one by one."""
    workers = os.cpu_count()
    places = queue.Queue()
    for number in range(workers):
        places.put(Place(library, number))

    def try_one(mutation):
        place = places.get()
        try:
            return place.try_mutant(mutation, seconds)
        finally:
            places.put(place)

    with concurrent.futures.ThreadPoolExecutor(workers) as pool:
        yield from zip(mutations, pool.map(try_one, mutations))


def cpu_seconds():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def try_original(library):
    """The library unchanged passes. Answers the seconds of CPU time that a program may take."""
    place = Place(library, "original")
    if not library.build_in(place.folder, None):
        raise Failed("the library does not build")
    before = cpu_seconds()
    outcome, why = place.run_tests(600)
    if outcome != SURVIVED:
        raise Failed(f"the tests fail without a change: {why}")
    return 3 + round(4 * (cpu_seconds() - before))


def report(outcomes, equivalent, out):
    """Prints the outcome and answers whether it is good enough."""
    counts = collections.Counter()
    by_file = collections.defaultdict(collections.Counter)
    survivors, wrong = [], []
    with (out / "report.txt").open("w") as log:
        for mutation, (outcome, why) in outcomes:
            is_listed = mutation.key in equivalent
            if is_listed and outcome != SURVIVED:
                wrong.append(mutation)
            name = "equivalent" if is_listed and outcome == SURVIVED else outcome
            counts[name] += 1
            by_file[mutation.file][name] += 1
            if name == SURVIVED:
                survivors.append(mutation)
            log.write(f"{name} {mutation.file}:{mutation.line} {why}\n{mutation.key}\n\n")
            log.flush()
    print(f"{'':34}{'killed':>8}{'survived':>10}{'equivalent':>12}{'not compiled':>14}")
    for name, row in [*sorted(by_file.items()), ("all", counts)]:
        print(f"{name:34}{row[KILLED]:8}{row[SURVIVED]:10}{row['equivalent']:12}"
              f"{row[NOT_COMPILED]:14}")
    for mutation in survivors:
        print(f"survived: {mutation.file}:{mutation.line}\n{mutation.key}\n")
    for mutation in wrong:
        print(f"called equivalent, but is not:\n{mutation.key}\n")
    killed = counts[KILLED] / max(1, counts[KILLED] + counts[SURVIVED])
    print(f"{killed:.1%} of {counts[KILLED] + counts[SURVIVED]} mutants killed, at least "
          f"{LEAST_KILLED:.0%} are wanted")
    return killed >= LEAST_KILLED and not wrong


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--sample", type=int)
    parser.add_argument("--only", default="")
    for folder in ("root", "build", "out"):
        parser.add_argument(folder, type=lambda path: pathlib.Path(path).resolve())
    wanted = parser.parse_args()
    shutil.rmtree(wanted.out, ignore_errors=True)
    wanted.out.mkdir(parents=True)

    library = Library(wanted.root, wanted.build, wanted.out)
    mutations = [mutation for path, text in sorted(library.sources.items())
                 for mutation in mutations_of(path, text)]
    equivalent = read_equivalent(HERE / "equivalent.txt")
    if gone := equivalent - {mutation.key for mutation in mutations}:
        raise Failed("equivalent.txt lists what is no mutant (any more):\n" + "\n\n".join(gone))
    chosen = [mutation for mutation in mutations if wanted.only in mutation.key]
    if wanted.sample:
        chosen = sample(chosen, wanted.sample)

    seconds = try_original(library)
    begun = time.monotonic()
    is_good = report(try_all(library, chosen, seconds), equivalent, wanted.out)
    print(f"{len(chosen)} of {len(mutations)} mutants in {time.monotonic() - begun:.0f} seconds, "
          f"{seconds} seconds of CPU time for each program")
    return is_good


if __name__ == "__main__":
    try:
        sys.exit(0 if main() else 1)
    except Failed as error:
        sys.exit(f"run.py: {error}")
