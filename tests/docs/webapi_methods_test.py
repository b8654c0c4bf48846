#!/usr/bin/python3
"""Fails when docs/webapi.md lacks a method that the sources register, or has one that they do not;
when it differs from them in a method's parameters or in who may call it; or when a method has no
example.

usage: webapi_methods_test.py ROOT
"""

import pathlib
import re
import sys

REGISTERED = re.compile(r'APIRunner::Register\((\w+), (\w+), "(\w+)",\s*([\w<>:]+)\)')
OF_THE_HOST = re.compile(r'apis\["([\w.]+)"\]\[(\d+)\]\["(\w+)"\] = handler\(([\w:]+)\)')
CONSTANT = re.compile(r'constexpr \w+ (k\w+)(?:\[\])? = "?([\w.]+)"?;')
FUNCTION = re.compile(r"^[\w:]+ (\w+)\(const Json::Value& params[^)]*\) \{\n(.*?)^\}", re.M | re.S)
KNOWN = re.compile(r"(?:Parameters(?: parameters)?|RefuseUnknownMembers)\(params, \{(.*?)\}\)")
CALLED = re.compile(r"\b(\w+)\(params\b")
MONITORS = re.compile(r'Method\{"([\w.]+)", "(\w+)"\}')

SECTION = re.compile(r"^### ([\w.]+\.\w+) (\w+)\n(.*?)(?=^##|\Z)", re.M | re.S)
ROLES = {"for monitors, too": True, "for admins only": False}
HEAD = re.compile(r"^Version (\d+), (for monitors, too|for admins only)\.", re.M)
PARAMETERS = re.compile(r"^\| parameter \|.*\n\|[-|]+\n((?:\|.*\n)+)", re.M)


def read_folder(folder):
    return [path.read_text(encoding="utf-8") for path in sorted(folder.glob("*.cc"))]


def functions_in(text):
    """The bodies of functions with "params" by name; overloads are one."""
    functions = {}
    for name, body in FUNCTION.findall(text):
        functions[name] = functions.get(name, "") + body
    return functions


def known_parameters(name, functions):
    """Those that a function refuses no call for, or one that it passes "params" on to."""
    known = KNOWN.search(functions[name])
    if known:
        return set(re.findall(r'"(\w+)"', known[1]))
    for called in CALLED.findall(functions[name]):
        if called != name:
            return known_parameters(called, functions)
    sys.exit(f"nobody can tell the parameters of {name}")


def registered(folder, pattern, calls):
    """Each method that the folder's files register, with its version and its parameters."""
    sources = read_folder(folder)
    of_all = functions_in("\n".join(sources))
    methods = {}
    for source in sources:
        constants = dict(CONSTANT.findall(source))
        functions = of_all | functions_in(source)
        for api, version, method, function in pattern.findall(source):
            name = function.split("<")[0].split("::")[-1]
            methods[constants.get(api, api), method] = (constants.get(version, version),
                                                        known_parameters(name, functions))
    expected = sum(source.count(calls) for source in sources)
    if len(methods) != expected or not methods:
        sys.exit(f"{folder}: {expected} registrations, of which {len(methods)} were understood")
    return methods


def documented(text):
    """The same of the document; None for what it does not say."""
    methods = {}
    for api, method, section in SECTION.findall(text):
        head = HEAD.search(section)
        table = PARAMETERS.search(section)
        parameters = set()
        if table:
            parameters = set(re.findall(r"^\| `(\w+)` \|", table[1], re.M))
        elif "\nIt has no parameters.\n" not in section:
            parameters = None
        methods[api, method] = (head and head[1], parameters, head and ROLES[head[2]],
                                section.count("```json\n"))
    return methods


def problems_of(name, source, documented_as, monitors):
    version, parameters = source
    its_version, its_parameters, is_for_monitors, blocks = documented_as
    if its_version != version:
        yield f"{name}: version {its_version} in the document, {version} in the sources"
    if its_parameters != parameters:
        yield f"{name}: parameters {its_parameters} in the document, {parameters} in the sources"
    if is_for_monitors != (name in monitors):
        yield f"{name}: who may call it"
    if blocks == 0 or blocks % 2:
        yield f"{name}: there must be examples, each a request and its answer"


root = pathlib.Path(sys.argv[1])
methods = (registered(root / "handlers", REGISTERED, "APIRunner::Register(")
           | registered(root / "platform/linux/webapi", OF_THE_HOST, 'apis["'))
worker = (root / "apps/quillon-webapid/worker.cc").read_text(encoding="utf-8")
monitors = set(MONITORS.findall(worker))
document = documented((root / "docs/webapi.md").read_text(encoding="utf-8"))

problems = [f"not documented: {name}" for name in sorted(methods.keys() - document.keys())]
problems += [f"not registered: {name}" for name in sorted(document.keys() - methods.keys())]
problems += [f"for monitors, but not registered: {name}" for name in monitors - methods.keys()]
for name in sorted(methods.keys() & document.keys()):
    problems += problems_of(name, methods[name], document[name], monitors)
print("\n".join(problems))
sys.exit(1 if problems else 0)
