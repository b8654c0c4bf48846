"""Small changes of C++ sources, each of which some test ought to notice.

It reads sources that clang-format has formatted: an operator between two operands has a space on both
sides, what a template is given has not, and every branch and loop has its braces."""

import collections
import dataclasses
import re

from cxx import TOKEN


@dataclasses.dataclass(frozen=True)
class Mutation:
    file: str
    line: int  # where it is now; of no meaning to anybody else
    text: str  # the line that it begins in, which stands for the place
    old: str
    new: str
    nth: int  # of those that look the same in the file, from 1
    begin: int
    end: int
    replacement: str

    @property
    def key(self):
        """What names it, whatever moves around it."""
        nth = f" #{self.nth}" if self.nth > 1 else ""
        return f"{self.file}: {self.text}\n{self.old} -> {self.new}{nth}"

    def applied_to(self, source):
        return source[:self.begin] + self.replacement + source[self.end:]


@dataclasses.dataclass(frozen=True)
class Lexeme:
    kind: str
    text: str
    begin: int
    end: int


OPENING = {"(": ")", "[": "]", "{": "}"}
CLOSING = {close: opening for opening, close in OPENING.items()}

OPERATORS = {
    "==": ["!="], "!=": ["=="],
    "<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="], ">=": [">", "<"],
    "&&": ["||"], "||": ["&&"],
    "+": ["-"], "-": ["+"], "*": ["/"], "/": ["*"], "+=": ["-="], "-=": ["+="],
    "<<": [">>"], ">>": ["<<"], "|": ["&"], "&": ["|"],
}
COMPARISONS = {"==", "!=", "<", "<=", ">", ">="}
STEPS = {"++": "--", "--": "++"}
FLIPPED = {"true": "false", "false": "true"}
# What may stand before the brace of a function's, a lambda's, a branch's or a loop's body.
BEFORE_A_BODY = {")", "]", "const", "noexcept", "mutable", "else", "try", "do"}
LEAVING = {"return", "throw", "break", "continue"}
NO_STATEMENT = {"using", "struct", "class", "case", "default", "template", "static_assert"}


def one_line(text):
    return re.sub(r"\s+", " ", text).strip()


class Source:
    def __init__(self, path, text):
        self.path = path
        self.text = text
        self.lexemes = [Lexeme(m.lastgroup, m[0], m.start(), m.end())
                        for m in TOKEN.finditer(text) if m.lastgroup != "skip"]
        self.partner, self.around = self._brackets()
        self.changes = []  # begin, end, replacement, old, new

    def _brackets(self):
        """The other one of each bracket, and the bracket that each lexeme stands in."""
        partner, around, stack = {}, [], []
        for i, lexeme in enumerate(self.lexemes):
            if lexeme.kind == "sign" and lexeme.text in CLOSING:
                partner[i] = stack.pop()
                partner[partner[i]] = i
            around.append(stack[-1] if stack else None)
            if lexeme.kind == "sign" and lexeme.text in OPENING:
                stack.append(i)
        return partner, around

    def change(self, first, last, replacement, new=None):
        begin, end = self.lexemes[first].begin, self.lexemes[last].end
        old = self.text[begin:end]
        self.changes.append((begin, end, replacement, one_line(old),
                             one_line(replacement) if new is None else new))

    def is_sign(self, i, text):
        return (0 <= i < len(self.lexemes) and self.lexemes[i].kind == "sign"
                and self.lexemes[i].text == text)

    def slice(self, first, last):
        return self.text[self.lexemes[first].begin:self.lexemes[last].end]

    # ---- Operators and constants

    def change_operators(self):
        for i, lexeme in enumerate(self.lexemes):
            if lexeme.kind == "sign":
                spaced = (self.text[lexeme.begin - 1].isspace()
                          and self.text[lexeme.end:lexeme.end + 1].isspace())
                for other in OPERATORS.get(lexeme.text, []) if spaced else []:
                    self.change(i, i, other)
                if lexeme.text in STEPS:
                    self.change(i, i, STEPS[lexeme.text])
                if lexeme.text == "!":
                    self.change(i, i, "", new="nothing")

    def change_constants(self):
        for i, lexeme in enumerate(self.lexemes):
            if lexeme.kind == "number" and (match := re.fullmatch(r"(\d+)([uUlL]*)", lexeme.text)):
                number, suffix = int(match[1]), match[2]
                for other in [number + 1] + ([0] if number == 1 else []):
                    self.change(i, i, f"{other}{suffix}")
            elif lexeme.kind == "word" and lexeme.text in FLIPPED:
                self.change(i, i, FLIPPED[lexeme.text])
            elif lexeme.kind == "text" and not self._names_a_linkage(i):
                self.change(i, i, lexeme.text[:-1] + '~"')
            elif lexeme.kind == "char":
                self.change(i, i, "'~'")

    def _names_a_linkage(self, i):
        return i > 0 and self.lexemes[i - 1].text == "extern"

    # ---- Conditions

    def negate_conditions(self):
        for i, lexeme in enumerate(self.lexemes):
            if lexeme.text in ("if", "while") and self.is_sign(i + 1, "("):
                self._negate(i + 2, self.partner[i + 1] - 1)
            elif self.is_sign(i, "?"):
                self._swap_alternatives(i)

    def _at_depth(self, first, last, sign):
        found, i = [], first
        while i <= last:
            if self.is_sign(i, sign):
                found.append(i)
            i = self.partner[i] + 1 if self.lexemes[i].text in OPENING and i in self.partner else i + 1
        return found

    def _negate(self, first, last):
        if semicolons := self._at_depth(first, last, ";"):
            first = semicolons[-1] + 1
        condition = self.slice(first, last)
        within = [self.lexemes[i].text for i in range(first, last + 1)
                  if self.around[i] == self.around[first]]
        if not {"&&", "||"} & set(within) and (within[0] == "!" or COMPARISONS & set(within)):
            return  # another mutation does so
        if equals := self._at_depth(first, last, "="):  # declares what it tests
            name = self.lexemes[equals[0] - 1].text
            self.change(first, last, f"{condition}; !{name}")
        else:
            self.change(first, last, f"!({condition})")

    def _swap_alternatives(self, question):
        colon = next(i for i in self._at_depth(question + 1, len(self.lexemes) - 1, ":"))
        end = colon + 1
        while self.lexemes[end].text not in (";", ",", ")", "}", "]"):
            end = self.partner[end] + 1 if self.lexemes[end].text in OPENING else end + 1
        first, second = self.slice(question + 1, colon - 1), self.slice(colon + 1, end - 1)
        self.change(question + 1, end - 1, f"{second} : {first}")

    # ---- Statements

    def change_statements(self):
        previous = None
        for end, lexeme in enumerate(self.lexemes):
            begin = self._begin_of_statement(end) if self.is_sign(end, ";") else None
            if begin is None:
                continue
            word = self.lexemes[begin].text
            if word in NO_STATEMENT:
                continue
            if (word != "return" or end == begin + 1) and not self._is_needed(begin, end):
                self.change(begin, end, ";", new="nothing")
            if previous and previous[1] + 1 == begin and word not in LEAVING:
                self._swap(previous, (begin, end))
            previous = (begin, end)

    def _begin_of_statement(self, end):
        """Of the statement that a semicolon ends; None for what is none."""
        brace = self.around[end]
        if not self._opens_a_body(brace):
            return None
        i = end - 1
        while i != brace and not self.is_sign(i, ";") and not self._ends_a_block(i, end):
            i = self.partner[i] - 1 if self.lexemes[i].text in CLOSING else i - 1
        return i + 1 if i + 1 < end else None

    def _ends_a_block(self, i, end):
        """A brace after which something new begins, which is not so within an expression."""
        if not self.is_sign(i, "}"):
            return False
        return i + 1 < end and (self.lexemes[i + 1].kind != "sign"
                                or self.lexemes[i + 1].text in ("++", "--", "*", "::"))

    def _opens_a_body(self, i):
        return (i is not None and self.is_sign(i, "{")
                and self.lexemes[i - 1].text in BEFORE_A_BODY)

    def _declared(self, begin, end):
        """The name that a statement declares, or None."""
        i = begin
        while i < end and (self.lexemes[i].kind == "word"
                           or self.lexemes[i].text in ("::", "<", ">", "*", "&", ",")):
            i += 1
        is_name = i - 1 > begin and self.lexemes[i - 1].kind == "word"
        if not is_name or self.lexemes[i].text not in ("=", "(", "{", ";"):
            return None
        if self.lexemes[i - 2].text in ("::",) or self.lexemes[begin].text in LEAVING:
            return None
        return self.lexemes[i - 1].text

    def _is_needed(self, begin, end):
        """Whether the statement declares what is used after it: nothing compiles without it."""
        name = self._declared(begin, end)
        return name is not None and self._is_used(name, end + 1, self._end_of_block(end))

    def _end_of_block(self, i):
        while i < len(self.lexemes) and not self.is_sign(i, "}"):
            i = self.partner[i] + 1 if self.lexemes[i].text in OPENING else i + 1
        return i

    def _is_used(self, name, first, last):
        return any(lexeme.text == name for lexeme in self.lexemes[first:last])

    def _is_unseen(self, begin, end):
        """Whether nobody notices when it happens: it makes an empty thing of the C++ library's."""
        return (self.lexemes[begin].text == "std" and self._declared(begin, end) is not None
                and self.lexemes[end - 1].kind == "word")

    def _swap(self, one, other):
        if self._is_unseen(*one) or self._is_unseen(*other):
            return
        name = self._declared(*one)
        if name is not None and self._is_used(name, other[0], other[1]):
            return
        first, second = self.slice(*one), self.slice(*other)
        self.change(one[0], other[1], f"{second} {first}", new="swapped")


def mutations_of(path, text):
    source = Source(path, text)
    source.change_operators()
    source.change_constants()
    source.negate_conditions()
    source.change_statements()
    seen = collections.Counter()
    mutations = []
    for begin, end, replacement, old, new in sorted(source.changes):
        line = text.count("\n", 0, begin)
        line_text = text.split("\n")[line].strip()
        seen[line_text, old, new] += 1
        mutations.append(Mutation(path, line + 1, line_text, old, new, seen[line_text, old, new],
                                  begin, end, replacement))
    return mutations
