#!/usr/bin/python3
"""What becomes of small pieces of source."""

import pathlib
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "docs"))

from mutations import mutations_of  # noqa: E402


def in_a_function(body):
    return f"void F() {{\n{body}\n}}\n"


class MutationsTest(unittest.TestCase):
    def changes(self, text):
        return {(m.old, m.new) for m in mutations_of("a.cc", text)}

    def results(self, text):
        return {m.applied_to(text) for m in mutations_of("a.cc", text)}

    def test_changes_operators_but_not_what_looks_like_them(self):
        self.assertEqual(self.changes("std::vector<A> a = b < c && d;  // x == y\n"),
                         {("<", "<="), ("<", ">="), ("&&", "||")})
        self.assertEqual(self.changes("A&& a; B* b; const C& c = &d;\n"), set())
        self.assertEqual(self.changes("bool a = !b; ++i;\n"), {("!", "nothing"), ("++", "--")})

    def test_changes_constants(self):
        self.assertEqual(self.changes('a(0, 1U, true, "x", \'c\', nullptr);\n'),
                         {("0", "1"), ("1U", "2U"), ("1U", "0U"), ("true", "false"),
                          ('"x"', '"x~"'), ("'c'", "'~'")})
        self.assertEqual(self.changes('extern "C" {}\n'), set())

    def test_negates_a_condition_once(self):
        self.assertIn("!(a && b)", {new for _, new in self.changes("if (a && b) {}\n")})
        self.assertEqual(self.changes("if (F()) {}\n"), {("F()", "!(F())")})
        self.assertEqual(self.changes("if (a == b) {}\n"), {("==", "!=")})
        self.assertEqual(self.changes("if (!a) {}\n"), {("!", "nothing")})
        self.assertEqual(self.results("if (A* a = F()) {}\n"), {"if (A* a = F(); !a) {}\n"})
        self.assertEqual(self.results("if (A a(b); a.ok) {}\n"), {"if (A a(b); !(a.ok)) {}\n"})

    def test_swaps_alternatives(self):
        self.assertEqual(self.results("G(a ? b(c, d) : e, f);\n"), {"G(a ? e : b(c, d), f);\n"})

    def test_removes_and_swaps_statements(self):
        self.assertEqual(self.changes(in_a_function("a();\nb();")),
                         {("a();", "nothing"), ("b();", "nothing"), ("a(); b();", "swapped")})
        self.assertIn("void F() {\nb(); a();\n}\n", self.results(in_a_function("a();\nb();")))

    def test_leaves_statements_that_cannot_go(self):
        self.assertEqual(self.changes(in_a_function("A a(b);\na.c();")), {("a.c();", "nothing")})
        self.assertEqual(self.changes(in_a_function("a();\nreturn b;")), {("a();", "nothing")})
        self.assertEqual(self.changes(in_a_function("std::string a;\nb();\na.c();")),
                         {("b();", "nothing"), ("a.c();", "nothing"), ("b(); a.c();", "swapped")})
        self.assertEqual(self.changes("struct A {\n  B b;\n  C c;\n};\n"), set())

    def test_removes_what_is_only_there_to_live(self):
        self.assertIn(("A a(b);", "nothing"), self.changes(in_a_function("A a(b);\nc();")))

    def test_takes_a_lambda_for_a_part_of_its_statement(self):
        self.assertEqual(self.changes(in_a_function("F([] {\na();\n});")),
                         {("F([] { a(); });", "nothing"), ("a();", "nothing")})

    def test_leaves_the_head_of_a_loop_together(self):
        self.assertEqual(self.changes(in_a_function("for (A i = b; i < c; d()) {\n}")),
                         {("<", "<="), ("<", ">=")})

    def test_tells_those_apart_that_look_the_same(self):
        first, second = mutations_of("a.cc", "a + b + c;\n")
        self.assertEqual(first.key, "a.cc: a + b + c;\n+ -> -")
        self.assertEqual(second.key, "a.cc: a + b + c;\n+ -> - #2")


if __name__ == "__main__":
    unittest.main()
