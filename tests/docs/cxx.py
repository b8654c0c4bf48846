"""Reads as much of C++ as is needed to find calls and what they are given: tokens, functions with
their parameters, constants, and the members of structs."""

import dataclasses
import re


class Unclear(Exception):
    """The sources are written in a way that this does not understand."""


# ---- Tokens

TOKEN = re.compile(r"""
    (?P<skip>\s+|//[^\n]*|/\*.*?\*/|^[ \t]*\#(?:[^\n\\]|\\.|\\\n)*)
  | R"\((?P<raw>.*?)\)"
  | (?:u8|u|U|L)?"(?P<text>(?:[^"\\\n]|\\.)*)"
  | (?P<char>'(?:[^'\\\n]|\\.)+')
  | (?P<word>[A-Za-z_]\w*)
  | (?P<number>\d(?:[\w.]|'\d)*)
  | (?P<sign>::|->|\+\+|--|&&|\|\||[-+*/%&|^=!<>]=|<<|.)
""", re.VERBOSE | re.DOTALL | re.MULTILINE)

ESCAPES = {"n": "\n", "t": "\t", "\\": "\\", '"': '"', "'": "'", "r": "\r", "0": "\0"}


@dataclasses.dataclass(frozen=True)
class Token:
    kind: str
    text: str
    at: int  # its index in the file


def unescape(text):
    return re.sub(r"\\(x[0-9a-fA-F]+|.)", lambda m: ESCAPES.get(m[1], m[0]), text)


def tokens_of(source):
    tokens = []
    for match in TOKEN.finditer(source):
        kind, text = match.lastgroup, match[match.lastgroup]
        if kind == "skip":
            if re.match(r"\s*#\s*define", text):
                tokens.append(Token("macro", text.strip(), len(tokens)))
            continue
        if kind in ("text", "raw"):
            text = unescape(text) if kind == "text" else text
            if tokens and tokens[-1].kind == "text":  # literals side by side are one
                tokens[-1] = Token("text", tokens[-1].text + text, tokens[-1].at)
                continue
            kind = "text"
        tokens.append(Token(kind, text, len(tokens)))
    return tokens


OPENING = {"(": ")", "[": "]", "{": "}"}
CLOSING = set(OPENING.values())


def is_sign(token, text):
    return token.kind == "sign" and token.text == text


def end_of(tokens, start):
    """The index of the bracket that closes the one at `start`."""
    depth = 0
    for i in range(start, len(tokens)):
        if tokens[i].kind == "sign":
            depth += (tokens[i].text in OPENING) - (tokens[i].text in CLOSING)
            if depth == 0:
                return i
    raise Unclear("a bracket is not closed")


def split(tokens, sign):
    """The parts between signs that stand outside of all brackets."""
    parts, depth = [[]], 0
    for token in tokens:
        if token.kind == "sign":
            depth += (token.text in OPENING) - (token.text in CLOSING)
        if depth == 0 and is_sign(token, sign):
            parts.append([])
        else:
            parts[-1].append(token)
    return [] if parts == [[]] else parts


def shown(tokens):
    return " ".join(token.text for token in tokens)


# ---- What a file consists of

@dataclasses.dataclass(eq=False)
class Function:
    file: "File"
    name: str
    parameters: dict  # name: default as tokens, or None
    header: range
    members: dict  # what its initialisers set: member: tokens
    body: range


def name_and_default(parameter):
    declared, *default = split(parameter, "=")
    words = [token for token in declared if token.kind == "word"]
    return (words[-1].text if len(words) > 1 else "", default[0] if default else None)


class File:
    def __init__(self, path, source):
        self.path = path
        try:
            self.tokens = tokens_of(source)
        except Unclear as error:
            raise Unclear(f"{path}: {error}") from error
        self.functions = []
        self.constants = {}  # name: tokens of the value
        self.structs = {}  # name: the members' names in order
        self._read_scope(0, len(self.tokens))
        self._read_constants()

    def _read_scope(self, begin, end):
        statement = i = begin
        while i < end:
            token = self.tokens[i]
            if is_sign(token, ";"):
                statement = i + 1
            elif is_sign(token, ":") and self.tokens[i - 1].text in ("public", "private",
                                                                    "protected"):
                statement = i + 1
            elif is_sign(token, "("):
                i = end_of(self.tokens, i)
            elif is_sign(token, "{"):
                close = end_of(self.tokens, i)
                i = self._read_block(statement, i, close)
                statement = i + 1
            i += 1

    def _read_block(self, statement, brace, close):
        """Reads what stands in front of the brace, and answers where it ends."""
        head = self.tokens[statement:brace]
        words = {token.text for token in head if token.kind == "word"}
        opening = self._parameters_of(statement, brace)
        is_scope = opening is None and words & {"class", "struct", "namespace", "union"}
        if is_scope or shown(head) == "extern C":
            if "struct" in words:
                self._read_struct(head, self.tokens[brace + 1:close])
            self._read_scope(brace + 1, close)
            return close
        if opening is not None and not any(is_sign(t, "=") for t in head[:opening - statement]):
            return self._read_function(statement, opening, brace)
        while close + 1 < len(self.tokens) and not is_sign(self.tokens[close], ";"):
            close += 1  # a value
        return close

    def _parameters_of(self, statement, brace):
        """The bracket of the parameters, or None for what is no function."""
        angles = 0
        for i in range(statement, brace):
            token = self.tokens[i]
            if is_sign(token, "<"):
                angles += 1
            elif is_sign(token, ">"):
                angles -= 1
            elif is_sign(token, "(") and angles <= 0 and self.tokens[i - 1].kind == "word":
                return i
        return None

    def _read_function(self, statement, opening, brace):
        closing = end_of(self.tokens, opening)
        parameters = dict(name_and_default(p)
                          for p in split(self.tokens[opening + 1:closing], ","))
        members = {}
        i = closing + 1
        while not is_sign(self.tokens[i], "{") and not is_sign(self.tokens[i], ":"):
            i += 1
        if is_sign(self.tokens[i], ":"):
            i += 1
            while self.tokens[i].kind == "word":  # NAME(VALUE), or NAME{VALUE}, or the body
                value = i + 1
                while self.tokens[value].text not in ("(", "{"):
                    value += 1
                end = end_of(self.tokens, value)
                members[self.tokens[i].text] = self.tokens[value + 1:end]
                i = end + (2 if is_sign(self.tokens[end + 1], ",") else 1)
        end = end_of(self.tokens, i)
        self.functions.append(Function(self, self.tokens[opening - 1].text, parameters,
                                       range(statement, closing), members,
                                       range(closing, end)))
        return end

    def _read_struct(self, head, body):
        name = [token.text for token in head if token.kind == "word"][-1]
        if is_sign(head[-1], ">"):
            return
        self.structs[name] = [[t.text for t in split(member, "=")[0] if t.kind == "word"][-1]
                              for member in split(body, ";")
                              if member and any(t.kind == "word" for t in member)]

    def _read_constants(self):
        for i, token in enumerate(self.tokens):
            if token.text != "constexpr" or token.kind != "word":
                continue
            for end in range(i, len(self.tokens)):
                if is_sign(self.tokens[end], ";") or is_sign(self.tokens[end], "("):
                    break
            declared, *value = split(self.tokens[i:end], "=")
            names = [t for t in declared if t.kind == "word"]
            if value and names:
                if names[-1].text in self.constants and names[-1].text == "kSourceFile":
                    raise Unclear(f"{self.path}: two constants kSourceFile")
                self.constants[names[-1].text] = value[0] if len(value) == 1 else sum(value, [])

    def function_at(self, at):
        found = [f for f in self.functions if at in f.body]
        return found[-1] if found else None
