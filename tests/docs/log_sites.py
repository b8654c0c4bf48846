"""Finds every line that the sources write to the log.

A line is written by one of a few calls (`PRIMITIVES`). Its origin, priority, code and text are
arguments of that call, or of a call of the function that the call stands in, or of one that calls
that, and so on: such functions are found, and every call of theirs is followed. Whatever cannot be
followed raises `Unclear`; nothing is passed over.
"""

import dataclasses
import itertools
import pathlib
import re

from cxx import File, Function, Unclear, end_of, is_sign, shown, split

NOT_INSTALLED = {"tests", "bench", "build", "examples"}
SUFFIXES = {".h", ".hpp", ".inc", ".c", ".cc", ".cpp"}

# The calls that write to the log, and which argument is what. "text" and what comes behind it are
# printf's; the text begins with the origin where "line" comes later.
PRIMITIVES = {
    "maillog": {"priority": 0, "text": 1, "file": 2, "line": 3, "values": 4},
    "syslog": {"priority": 0, "text": 1, "file": 2, "line": 3, "values": 4},
    "LogWithOrigin": {"priority": 0, "file": 1, "line": 2, "text": 3, "values": 4},
    "LogException": {"code": 0, "text": 1, "priority": 2, "file": 3, "line": 4},
}

# Where these are made of one another, and whatever they are given is passed on.
OF_THE_LOG_ITSELF = {
    "include/velamailserver/log_exception.h",
    "lib-webapi/log_exception.cc",
    "lib-webapi/origin_log.h",
    "platform/include/velamailserver/maillog.h",
    "platform/linux/log/maillog.cc",
}

# Other ways to write to a log; there is none so far.
UNKNOWN_CALLS = {"vsyslog", "sd_journal_print", "sd_journal_send", "perror", "warn", "warnx"}

PRIORITIES = ["emerg", "alert", "crit", "err", "warning", "notice", "info", "debug"]
SYSLOG_NAMES = dict(zip(["LOG_EMERG", "LOG_ALERT", "LOG_CRIT", "LOG_ERR", "LOG_WARNING",
                         "LOG_NOTICE", "LOG_INFO", "LOG_DEBUG"], PRIORITIES))

HOLE = "<>"


class NeedsCaller(Exception):
    """The value is a parameter of this function."""

    def __init__(self, function):
        super().__init__(function.name)
        self.function = function


# ---- Values

@dataclasses.dataclass(frozen=True, eq=False)
class Scope:
    """Where tokens stand: what the names in them mean there."""

    file: File
    function: Function | None
    arguments: dict | None  # parameter: Value; None while nobody has called the function

    def value(self, tokens):
        return Value(self, tokens)


@dataclasses.dataclass(frozen=True, eq=False)
class Value:
    scope: Scope
    tokens: list

    def followed(self):
        """What the value is in the end: a literal, a constant or an expression. Raises
        `NeedsCaller` when that is a caller's business."""
        tokens = self.unwrapped()
        words = [t for t in tokens if not is_sign(t, "::")]
        if not words or any(t.kind != "word" for t in words) or (
                len(words) != len(tokens) // 2 + 1):
            return self._followed_member(tokens)
        return self._followed_name(words[-1].text)

    def unwrapped(self):
        tokens = self.tokens
        while tokens and is_sign(tokens[0], "(") and end_of(tokens, 0) == len(tokens) - 1:
            tokens = tokens[1:-1]
        return tokens

    def _followed_name(self, name):
        scope = self.scope
        function = scope.function
        if function is not None and name in function.parameters:
            if scope.arguments is None:
                raise NeedsCaller(function)
            return scope.arguments[name].followed()
        if name in scope.file.constants:
            return Value(Scope(scope.file, None, {}), scope.file.constants[name])
        if name.endswith("_"):
            return self._followed_field(name)
        return self

    def _followed_field(self, name):
        """A field's value is an argument of its object's constructor."""
        if self.scope.arguments and name in self.scope.arguments:
            return self.scope.arguments[name].followed()
        makers = [f for f in self.scope.file.functions
                  if name in f.members and len(f.members[name]) == 1]
        if len(makers) != 1 or makers[0].members[name][0].text not in makers[0].parameters:
            return self
        raise NeedsCaller(makers[0])

    def _followed_member(self, tokens):
        """OBJECT.MEMBER of an object that is written out as {…}."""
        if len(tokens) != 3 or not is_sign(tokens[1], "."):
            return self
        member = Value(self.scope, tokens[:1]).followed().member(tokens[2].text)
        return member.followed() if member else self

    def member(self, wanted):
        """The member of an object that is written out as {…}; None of any other."""
        tokens = self.unwrapped()
        if not tokens or not is_sign(tokens[0], "{"):
            return None
        parts = split(tokens[1:-1], ",")
        if is_sign(parts[0][0], "."):
            for part in parts:
                if part and part[1].text == wanted:
                    return Value(self.scope, part[3:])
            return None
        for names in self.scope.file.structs.values():
            if wanted in names and len(names) == len(parts):
                return Value(self.scope, parts[names.index(wanted)])
        return None


def followed_or_hole(value):
    """Nothing for what only a caller knows."""
    try:
        return value.followed()
    except NeedsCaller:
        return Value(Scope(value.scope.file, None, {}), [])


def conditions_in(value):
    """The conditions of `A ? B : C` in a value, and in what it is followed to."""
    value = followed_or_hole(value)
    tokens = value.unwrapped()
    condition = question(tokens)
    call = call_in(tokens)
    found, parts = set(), []
    if condition:
        found.add(shown(condition[0]))
        parts = condition[1:]
    elif len(split(tokens, "+")) > 1:
        parts = split(tokens, "+")
    elif call and call[0] == "format":
        parts = call[1]
    for part in parts:
        found |= conditions_in(Value(value.scope, part))
    return found


def require_known(value):
    """Raises `NeedsCaller` for a value, one of whose alternatives is a caller's business."""
    value = value.followed()
    for part in (question(value.unwrapped()) or [])[1:]:
        require_known(Value(value.scope, part))


def question(tokens):
    """(condition, yes, no) of `condition ? yes : no`."""
    parts = split(tokens, "?")
    if len(parts) < 2:
        return None
    condition = parts[0]
    rest = tokens[len(condition) + 1:]
    yes = split(rest, ":")[0]
    return condition, yes, rest[len(yes) + 1:]


def call_in(tokens):
    """(name, arguments) of `a::b::name(arguments)`."""
    for i, token in enumerate(tokens):
        if is_sign(token, "("):
            is_name = i > 0 and all(t.kind == "word" or is_sign(t, "::") for t in tokens[:i])
            if is_name and end_of(tokens, i) == len(tokens) - 1:
                return tokens[i - 1].text, split(tokens[i + 1:-1], ",")
            return None
    return None


class Reader:
    """Reads values, with an answer to every condition."""

    def __init__(self, answers):
        self.answers = answers

    def settled(self, value):
        value = followed_or_hole(value)
        condition = question(value.unwrapped())
        if condition:
            return self.settled(
                Value(value.scope, condition[1 if self.answers[shown(condition[0])] else 2]))
        return value

    def text(self, value):
        value = self.settled(value)
        tokens = value.unwrapped()
        if len(tokens) == 1 and tokens[0].kind == "text":
            return tokens[0].text
        parts = split(tokens, "+")
        if len(parts) > 1:
            return "".join(self.text(Value(value.scope, part)) for part in parts)
        call = call_in(tokens)
        if call and call[0] == "string" and len(call[1]) == 1:
            return self.text(Value(value.scope, call[1][0]))
        if call and call[0] == "format":
            return self.formatted([Value(value.scope, part) for part in call[1]])
        return HOLE

    def formatted(self, values):
        """fmt::format(…)"""
        texts = [self.text(value) for value in values]
        rest = iter(texts[1:])

        def field(match):
            if match[0] in ("{{", "}}"):
                return match[0][0]
            number = re.match(r"\d+", match[1])
            return texts[1 + int(number[0])] if number else next(rest, HOLE)

        return re.sub(r"\{\{|\}\}|\{([^{}]*)\}", field, texts[0])

    def printed(self, value, values, has_origin):
        """printf(…), without the origin that the text may begin with."""
        origin = "%s:%d "
        text = self.text(value)
        if has_origin and not text.startswith(origin):
            raise Unclear(f'the text does not begin with "{origin}": [{text}]')
        rest = iter(values)

        def field(match):
            if match[0] == "%%":
                return "%"
            following = next(rest, None)
            return self.text(following) if following and match[0] == "%s" else HOLE

        return re.sub(r"%%|%[-+ #0-9.*]*(?:hh|h|ll|l|z|j|t)?[a-zA-Z]", field,
                      text[len(origin) if has_origin else 0:])

    def number(self, value, what):
        value = self.settled(value)
        tokens = value.unwrapped()
        if len(tokens) != 1 or tokens[0].kind != "number":
            raise Unclear(f"{what} is no constant but [{shown(tokens)}]")
        return int(tokens[0].text.replace("'", ""))

    def priority(self, value):
        value = self.settled(value)
        names = [t.text for t in value.unwrapped() if t.kind == "word"]
        if not names:
            return PRIORITIES[self.number(value, "the priority")]
        level = [SYSLOG_NAMES[name] for name in names if name in SYSLOG_NAMES]
        facility = [name[4:].lower() for name in names if name not in SYSLOG_NAMES]
        if len(level) != 1 or facility not in ([], ["auth"]):
            raise Unclear(f"not a priority: [{shown(value.unwrapped())}]")
        return level[0] + (f" to {facility[0]}" if facility else "")

    def code(self, value):
        value = self.settled(value)
        name = value.unwrapped()[-1].text if value.unwrapped() else ""
        if not name.startswith("ERR_"):
            raise Unclear(f"the code is no constant but [{shown(value.unwrapped())}]")
        return name


# ---- Sites

@dataclasses.dataclass(frozen=True, order=True)
class Line:
    """A line as it is written; what differs from time to time is a `HOLE`."""

    source: str
    line: int
    priority: str
    code: str  # "" without one
    text: str


def squeezed(text):
    return re.sub(f"(?:{HOLE})+", HOLE, text)


def read_sources(root):
    """The texts of all sources that may write to the log, by path."""
    root = pathlib.Path(root)
    folders = [folder for folder in sorted(root.iterdir())
               if folder.is_dir() and folder.name not in NOT_INSTALLED
               and not folder.name.startswith(".")]
    return {str(path.relative_to(root)): path.read_text(encoding="utf-8")
            for folder in folders for path in sorted(folder.rglob("*")) if path.suffix in SUFFIXES}


def origin_numbers(name, value):
    """The tokens of a constant that are lines of origins."""
    if re.fullmatch(r"k\w+Line", name) and len(value) == 1:
        return [token for token in value if token.kind == "number"]
    return [value[i + 2] for i, token in enumerate(value) if token.text.endswith("_line")]


class Sources:
    """The lines of sources, given as texts by path."""

    def __init__(self, texts):
        self.lines = set()
        self._places = {}  # (source, line): the numbers in the sources that it comes from
        self._files = [File(path, text) for path, text in texts.items()
                       if path not in OF_THE_LOG_ITSELF]
        for file in self._files:
            self._read_file(file)

    def origin_problems(self):
        """What keeps an origin from naming one place, and origins that nothing is written with, as
        texts."""
        problems = [f"{source}:{line}: {len(places)} places have this origin"
                    for (source, line), places in self._places.items() if len(places) > 1]
        reached = set().union(*self._places.values())
        for file in self._files:
            for name, value in file.constants.items():
                numbers = origin_numbers(name, value)
                uses = sum(t.kind == "word" and t.text == name for t in file.tokens) - 1
                if numbers and uses != 1:
                    problems.append(f"{file.path}: {name} is used {uses} times, not once")
                problems += [f"{file.path}: {name}: nothing is written with {number.text}"
                             for number in numbers if (file.path, number.at) not in reached]
        return problems

    def _read_file(self, file):
        for i, token in enumerate(file.tokens):
            if token.kind == "macro" and re.search("|".join(PRIMITIVES), token.text):
                raise Unclear(f"{file.path}: a macro that writes to the log: {token.text}")
            if token.kind == "word" and token.text in UNKNOWN_CALLS:
                raise Unclear(f"{file.path}: {token.text} is no known way to write to the log")
            if token.kind != "word" or token.text not in PRIMITIVES:
                continue
            try:
                self._read_primitive(file, i)
            except Unclear as error:
                raise Unclear(f"{file.path}: {token.text}: {error}") from error

    def _read_primitive(self, file, at):
        name = file.tokens[at].text
        following = file.tokens[at + 1]
        if name == "LogException" and (following.text in ("&", ";") or
                                       shown(file.tokens[at - 1:at]) == "class"):
            return  # a reference, a using declaration, a forward declaration
        if name == "LogWithOrigin" and following.text == ";":
            return
        if not is_sign(following, "("):
            raise Unclear(f"is used in another way than by a call: {following.text}")
        arguments = split(file.tokens[at + 2:end_of(file.tokens, at + 1)], ",")
        places = PRIMITIVES[name]
        if len(arguments) <= max(v for k, v in places.items() if k != "values"):
            raise Unclear("a call without an origin")
        scope = Scope(file, file.function_at(at), None)
        values = {what: scope.value(arguments[place])
                  for what, place in places.items() if what != "values"}
        further = [scope.value(a) for a in arguments[places.get("values", 99):]]
        self._expand(name, values, further, 0)

    def _expand(self, name, values, further, depth):
        if depth > 8:
            raise Unclear("a chain of calls without an end")
        try:
            for what in values:
                if what != "text":
                    require_known(values[what])
        except NeedsCaller as need:
            self._expand_callers(need.function, name, values, further, depth)
            return
        self._record(name, values, further)

    def _expand_callers(self, function, name, values, further, depth):
        calls = list(self._calls_of(function))
        if not calls:
            raise Unclear(f"nobody calls {function.name}, which is given the origin")
        for scope, arguments in calls:
            bound = self._bind(function, scope, arguments)

            def at_call(value):
                return self._rebound(value, function, bound)

            self._expand(name, {what: at_call(value) for what, value in values.items()},
                         [at_call(value) for value in further] + bound.get("args...", []),
                         depth + 1)

    @staticmethod
    def _bind(function, scope, arguments):
        bound = {}
        values = [scope.value(a) for a in arguments]
        for i, (parameter, default) in enumerate(function.parameters.items()):
            if parameter == "args":
                bound["args..."] = values[i:]
                continue
            if i < len(values):
                bound[parameter] = values[i]
            elif default is not None:
                bound[parameter] = Scope(function.file, None, {}).value(default)
            else:
                raise Unclear(f"{function.name} is called with {len(values)} arguments "
                              f"in {scope.file.path}")
        for member, tokens in function.members.items():
            if len(tokens) == 1 and tokens[0].text in bound:
                bound[member] = bound[tokens[0].text]
        return bound

    def _rebound(self, value, function, bound):
        scope = value.scope
        if scope.arguments is None:
            arguments = dict(bound) if scope.function is function else {
                k: v for k, v in bound.items() if k.endswith("_")}
            if scope.function is not None and scope.function is not function:
                # A method of an object that `function` makes: its own parameters stay holes.
                for parameter in scope.function.parameters:
                    arguments.setdefault(parameter, Scope(scope.file, None, {}).value([]))
            return Value(Scope(scope.file, scope.function, arguments), value.tokens)
        arguments = {}
        for name, argument in scope.arguments.items():
            arguments[name] = argument if isinstance(argument, list) else self._rebound(
                argument, function, bound)
        return Value(Scope(scope.file, scope.function, arguments), value.tokens)

    def _calls_of(self, function):
        """(scope, arguments) of every call; in all files when the function lies in a header."""
        files = self._files if function.file.path.endswith(".h") else [function.file]
        for file in files:
            for i, token in enumerate(file.tokens):
                if token.kind != "word" or token.text != function.name:
                    continue
                opening = i + 1
                if file.tokens[opening].kind == "word":  # an object with a name
                    opening += 1
                caller = file.function_at(i)
                if caller is None or not is_sign(file.tokens[opening], "("):
                    continue
                arguments = split(file.tokens[opening + 1:end_of(file.tokens, opening)], ",")
                yield Scope(file, caller, None), arguments

    def _record(self, name, values, further):
        conditions = set().union(*(conditions_in(v) for v in [*values.values(), *further]))
        for answers in itertools.product([True, False], repeat=len(conditions)):
            reader = Reader(dict(zip(conditions, answers)))
            self._record_one(name, values, further, reader)

    def _record_one(self, name, values, further, reader):
        source = reader.text(values["file"])
        if HOLE in source:
            raise Unclear(f"the source is no constant: [{shown(values['file'].tokens)}]")
        line = reader.number(values["line"], "the line")
        place = reader.settled(values["line"])
        self._places.setdefault((source, line), set()).add(
            (place.scope.file.path, place.unwrapped()[0].at))
        text = reader.text(values["text"])
        if name == "LogException":
            code = reader.code(values["code"])
        else:
            code = ""
            text = reader.printed(values["text"], further, has_origin=name != "LogWithOrigin")
        self.lines.add(Line(source, line, reader.priority(values["priority"]), code,
                            squeezed(text)))
