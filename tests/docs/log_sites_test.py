#!/usr/bin/python3
"""A small world of sources and its document, and what the comparison says when one of them
changes."""

import unittest

from log_messages import CODES, MESSAGES, find_problems

SOURCES = {
    CODES: """
enum ErrorCode : std::int32_t {
  ERR_ONE = 1001,
  ERR_TWO = 1002,  // a comment, "with a quote
};
""",
    MESSAGES: """
const char* Message(ErrorCode code) {
  switch (code) {
    case ERR_ONE:
      return "one failed";
    case ERR_TWO:
      return "SDK two failed";
  }
  return "unknown error";
}
""",
    "platform/direct.cc": """
#include <velamailserver/maillog.h>

namespace quillon::platform {
namespace {
constexpr char kSourceFile[] = "platform/direct";
constexpr int kPlainLine = 11;
constexpr int kThrownLine = 22;
constexpr int kChosenLine = 33;
constexpr int kOtherLine = 44;
}  // namespace

void Write(int left, const std::string& path) {
  // maillog(3, "%s:%d in a comment", kSourceFile, kPlainLine);
  maillog(LOG_WARNING, "%s:%d %d left in %s, " "100%%", kSourceFile, kPlainLine, left,
          path.c_str());
  throw LogException(ERR_ONE, "cannot read " + path + ": " + Reason(errno), 3, kSourceFile,
                     kThrownLine);
}

template <typename Work>
auto Choose(const Work& work) -> decltype(work()) {
  try {
    return work();
  } catch (const LogException&) {
    throw;
  } catch (const std::runtime_error& error) {
    throw velamailserver::LogException(
        is_new ? ERR_ONE : velamailserver::ERR_TWO,
        fmt::format("{{store}} [{}]: cannot {}: {:02x}", name, is_new ? "create it" : "change it",
                    error.what()),
        3, kSourceFile, is_new ? kChosenLine : kOtherLine);
  }
}
}  // namespace quillon::platform
""",
    "platform/helpers.h": """
struct Lookup {
  ErrorCode code;
  const char* subject;
  const char* source_file;
  int absent_line;
};

template <typename Key>
void Require(const Lookup& lookup, const Key& key) {
  throw LogException(lookup.code, fmt::format("no {} [{}]", lookup.subject, key), 3,
                     lookup.source_file, lookup.absent_line);
}
""",
    "platform/helped.cc": """
namespace {
constexpr char kSourceFile[] = "platform/helped";
constexpr int kFirstLine = 5;
constexpr int kSecondLine = 7;
constexpr int kTaskLine = 9;
constexpr Lookup kByName = {
    .code = ERR_TWO, .subject = "user", .source_file = kSourceFile, .absent_line = 3};

[[noreturn]] void Fail(int line, const std::string& reason, ErrorCode code = ERR_ONE) {
  throw LogException(code, reason + "!", 3, kSourceFile, line);
}

struct Task {
  ErrorCode code;
  const char* verb;
};
}  // namespace

class Store {
 public:
  Store(const std::string& name) : name_(name), user_(Require(kByName, name)) {}
  void Read() { Run({ERR_ONE, "read"}, [] { return 1; }); }
  void Change() { Run({ERR_TWO, "change"}, [] { return 2; }); }

 private:
  void Run(const Task& task, const Work& work) {
    throw LogException(task.code, std::string("cannot ") + task.verb, 3, kSourceFile, kTaskLine);
  }
};

void Use(const std::string& path) {
  if (path.empty()) {
    Fail(kFirstLine, "no path");
  }
  Fail(kSecondLine, path, ERR_TWO);
}
""",
    "lib-webapi/two_steps.cc": """
namespace {
constexpr char kSourceFile[] = "lib-webapi/two_steps";
constexpr int kLoggedLine = 50;
constexpr int kScopeLine = 60;

template <typename... Args>
void Log(int line, const char* message, Args... args) {
  velamailserver::LogWithOrigin(3, kSourceFile, line, message, args...);
}

class Scope {
 public:
  Scope(int uid, const char* file, int line) : uid_(uid), file_(file), line_(line) {
    ::syslog(LOG_AUTH | LOG_ERR, "%s:%d ERROR: %s(%d)", file_, line_, kName, uid_);
  }
  Scope(const Scope&) = delete;
  ~Scope() { ::syslog(LOG_AUTH | LOG_CRIT, "%s:%d ERROR: ~%s(%d)", file_, line_, kName, uid_); }

 private:
  static constexpr char kName[] = "SCOPE";
  const int uid_;
};
}  // namespace

void Run(const std::string& url) {
  Log(kLoggedLine, "no answer of %s", url.c_str());
  const Scope scope(0, kSourceFile, kScopeLine);
}
""",
}

DOCUMENT = """
# The log

| code | name | message | where |
|---|---|---|---|
| 1001 | `ERR_ONE` | one failed | here |
| 1002 | `ERR_TWO` | SDK two failed | there |

## Library
### `lib-webapi/two_steps:50` err
- `no answer of <url>`

When. Do: below.
**Do:** wait.

### `lib-webapi/two_steps:60` err to auth
- `ERROR: SCOPE(<uid>)`

When.
**Do:** wait.

### `lib-webapi/two_steps:60` crit to auth
- `ERROR: ~SCOPE(<uid>)`

When.
**Do:** wait.

## Platform
### `platform/direct:11` warning
- `<number> left in <path>, 100%`

When.
**Do:** wait.

### `platform/direct:22` err
- `(1001) one failed: cannot read <path>: <reason>`

When.
**Do:** wait.

### `platform/direct:33` err
- `(1001) one failed: {store} [<name>]: cannot create it: <reason>`

When.
**Do:** wait.

### `platform/direct:44` err
- `(1002) SDK two failed: {store} [<name>]: cannot change it: <reason>`

When.
**Do:** wait.

### `platform/helped:3` err
- `(1002) SDK two failed: no user [<name>]`

When.
**Do:** wait.

### `platform/helped:5` err
- `(1001) one failed: no path!`

When.
**Do:** wait.

### `platform/helped:7` err
- `(1002) SDK two failed: <path>!`

When.
**Do:** wait.

### `platform/helped:9` err
- `(1001) one failed: cannot read`
- `(1002) SDK two failed: cannot change`

When.
**Do:** wait.
"""


class LogSitesTest(unittest.TestCase):
    def setUp(self):
        self.sources = dict(SOURCES)
        self.document = DOCUMENT

    def change(self, path, old, new):
        self.assertEqual(self.sources[path].count(old), 1, old)
        self.sources[path] = self.sources[path].replace(old, new)

    def change_document(self, old, new):
        self.assertEqual(self.document.count(old), 1, old)
        self.document = self.document.replace(old, new)

    def assert_says(self, *expected):
        """The problems, in any order; of each its beginning."""
        problems = find_problems(self.sources, self.document)
        self.assertEqual(len(problems), len(expected), problems)
        for beginning in expected:
            self.assertTrue(any(p.startswith(beginning) for p in problems), (beginning, problems))

    def test_nothing_when_they_agree(self):
        self.assert_says()

    def test_new_site(self):
        self.change("platform/direct.cc", "void Write(",
                    'constexpr int kNewLine = 55;\n'
                    'void New() { maillog(3, "%s:%d new", kSourceFile, kNewLine); }\nvoid Write(')
        self.assert_says("not in the document: ('platform/direct:55', 'err', 'new')")

    def test_new_site_in_a_new_folder(self):
        self.sources["new/more.cc"] = (
            'constexpr char kSourceFile[] = "new/more";\nconstexpr int kNewLine = 1;\n'
            'void New() { ::maillog(6, "%s:%d new", kSourceFile, kNewLine); }\n')
        self.assert_says("not in the document: ('new/more:1', 'info', 'new')")

    def test_new_call_of_a_helper(self):
        self.change("platform/helped.cc", "void Use(",
                    'constexpr int kNewLine = 55;\n'
                    'void New() { Fail(kNewLine, "new"); }\nvoid Use(')
        self.assert_says(
            "not in the document: ('platform/helped:55', 'err', '(1001) one failed: new!')")

    def test_changed_text(self):
        self.change("platform/direct.cc", "left in", "left over in")
        self.assert_says("not in the document: ('platform/direct:11', 'warning', '<> left over",
                         "in no source: ('platform/direct:11', 'warning', '<> left in")

    def test_changed_text_in_a_helper(self):
        self.change("platform/helpers.h", "no {} [{}]", "no {} called [{}]")
        self.assert_says("not in the document: ('platform/helped:3'",
                         "in no source: ('platform/helped:3'")

    def test_changed_text_of_a_choice(self):
        self.change("platform/direct.cc", '"change it"', '"upgrade it"')
        self.assert_says("not in the document: ('platform/direct:44'",
                         "in no source: ('platform/direct:44'")

    def test_changed_line(self):
        self.change("lib-webapi/two_steps.cc", "kLoggedLine = 50", "kLoggedLine = 51")
        self.assert_says("not in the document: ('lib-webapi/two_steps:51'",
                         "in no source: ('lib-webapi/two_steps:50'")

    def test_changed_line_of_a_lookup(self):
        self.change("platform/helped.cc", ".absent_line = 3", ".absent_line = 4")
        self.assert_says("not in the document: ('platform/helped:4'",
                         "in no source: ('platform/helped:3'")

    def test_changed_source(self):
        self.change("platform/direct.cc", '"platform/direct"', '"platform/straight"')
        problems = find_problems(self.sources, self.document)
        self.assertEqual(len([p for p in problems if "platform/straight" in p]), 4, problems)

    def test_changed_priority(self):
        self.change("platform/direct.cc", "LOG_WARNING", "LOG_NOTICE")
        self.assert_says("not in the document: ('platform/direct:11', 'notice'",
                         "in no source: ('platform/direct:11', 'warning'")

    def test_changed_priority_of_an_exception(self):
        self.change("platform/helped.cc", 'reason + "!", 3', 'reason + "!", 2')
        self.assert_says("not in the document: ('platform/helped:5', 'crit'",
                         "not in the document: ('platform/helped:7', 'crit'",
                         "in no source: ('platform/helped:5', 'err'",
                         "in no source: ('platform/helped:7', 'err'")

    def test_changed_code(self):
        self.change("platform/helped.cc", "path, ERR_TWO", "path, ERR_ONE")
        self.assert_says("not in the document: ('platform/helped:7', 'err', '(1001)",
                         "in no source: ('platform/helped:7', 'err', '(1002)")

    def test_removed_site(self):
        self.change("lib-webapi/two_steps.cc",
                    '  Log(kLoggedLine, "no answer of %s", url.c_str());\n', "")
        self.change("lib-webapi/two_steps.cc", "constexpr int kLoggedLine = 50;\n", "")
        self.change("lib-webapi/two_steps.cc", "velamailserver::LogWithOrigin(3, kSourceFile, line"
                    ", message, args...);", "")
        self.assert_says("in no source: ('lib-webapi/two_steps:50'")

    def test_new_code(self):
        self.change(CODES, "ERR_TWO = 1002,", "ERR_TWO = 1002,\n  ERR_THREE,")
        self.assert_says("ERR_THREE is not in the table")

    def test_changed_number_of_a_code(self):
        self.change(CODES, "ERR_TWO = 1002", "ERR_TWO = 1003")
        problems = find_problems(self.sources, self.document)
        self.assertIn("ERR_TWO is (1003, 'SDK two failed'), and not (1002, 'SDK two failed')",
                      problems)

    def test_changed_message_of_a_code(self):
        self.change(MESSAGES, "SDK two failed", "two failed")
        problems = find_problems(self.sources, self.document)
        self.assertIn("ERR_TWO is (1002, 'two failed'), and not (1002, 'SDK two failed')", problems)

    def test_code_that_is_called_unused(self):
        self.change_document("| one failed | here |", "| one failed | not used here |")
        self.assert_says("ERR_ONE is used")

    def test_entry_that_is_missing(self):
        self.change_document("### `platform/direct:22` err\n"
                             "- `(1001) one failed: cannot read <path>: <reason>`\n\n"
                             "When.\n**Do:** wait.\n", "")
        self.assert_says("not in the document: ('platform/direct:22'")

    def test_text_that_is_missing(self):
        self.change_document("- `(1002) SDK two failed: cannot change`\n", "")
        self.assert_says("not in the document: ('platform/helped:9'")

    def test_entry_without_advice(self):
        self.change_document("100%`\n\nWhen.\n**Do:** wait.\n", "100%`\n\nWhen.\n")
        self.assert_says("platform/direct:11: has to say")

    def test_entry_in_another_place(self):
        self.change_document("### `platform/direct:11` warning", "### `platform/direct:99` warning")
        self.assert_says("platform/direct:22: not in the order", "not in the document: ",
                         "in no source: ")

    def test_entry_that_is_there_twice(self):
        entry = ("### `platform/helped:5` err\n- `(1001) one failed: no path!`\n\n"
                 "When.\n**Do:** wait.\n")
        self.change_document(entry, entry + entry)
        self.assert_says("platform/helped:5: is in the document twice")

    def test_two_places_with_one_constant(self):
        self.change("platform/helped.cc", "Fail(kSecondLine, path, ERR_TWO);",
                    "Fail(kSecondLine, path, ERR_TWO);\n  Fail(kSecondLine, path, ERR_TWO);")
        self.assert_says("platform/helped.cc: kSecondLine is used 2 times, not once")

    def test_two_places_with_one_number(self):
        self.change("platform/helped.cc", "kSecondLine = 7", "kSecondLine = 5")
        self.change_document("### `platform/helped:7` err\n", "")
        self.change_document("**Do:** wait.\n\n- `(1002) SDK two failed: <path>!`\n\nWhen.\n",
                             "- `(1002) SDK two failed: <path>!`\n")
        self.assert_says("platform/helped:5: 2 places have this origin")

    def test_constant_that_nothing_is_written_with(self):
        self.change("platform/helped.cc", "void Use(",
                    "constexpr int kNewLine = 55;\n"
                    "void New() { elsewhere.Fail2(kNewLine); }\nvoid Use(")
        self.assert_says("platform/helped.cc: kNewLine: nothing is written with 55")

    def test_line_that_is_no_constant(self):
        self.change("platform/direct.cc", "kThrownLine);", "__LINE__);")
        self.assert_says("platform/direct.cc: LogException: the line is no constant")

    def test_text_without_the_origin(self):
        self.change("platform/direct.cc", '"%s:%d %d left', '"%d left')
        self.assert_says("platform/direct.cc: maillog: the text does not begin with")

    def test_call_without_an_origin(self):
        self.change("platform/direct.cc", "void Write(",
                    'void New() { maillog(3, "new"); }\nvoid Write(')
        self.assert_says("platform/direct.cc: maillog: a call without an origin")

    def test_use_that_is_no_call(self):
        for use in ["auto* log = &maillog;", "std::make_exception_ptr<LogException>(code);",
                    "class Worse : public LogException {};", "LogException error(code);",
                    "LogException{code};"]:
            with self.subTest(use):
                self.sources = dict(SOURCES)
                self.change("platform/direct.cc", "void Write(", use + "\nvoid Write(")
                problems = find_problems(self.sources, self.document)
                self.assertEqual(len(problems), 1, problems)
                self.assertIn("is used in another way than by a call", problems[0])

    def test_macro(self):
        self.change("platform/direct.cc", "void Write(",
                    "#define LOG(text) \\\n  maillog(3, text, kSourceFile, 1)\nvoid Write(")
        self.assert_says("platform/direct.cc: a macro that writes to the log")

    def test_another_way_to_log(self):
        self.change("platform/direct.cc", "void Write(",
                    "void New() { ::vsyslog(3, format, list); }\nvoid Write(")
        self.assert_says("platform/direct.cc: vsyslog is no known way")

    def test_helper_that_nobody_calls(self):
        self.change("platform/helped.cc",
                    '  if (path.empty()) {\n    Fail(kFirstLine, "no path");\n  }\n'
                    "  Fail(kSecondLine, path, ERR_TWO);\n", "")
        self.assert_says("platform/helped.cc: LogException: nobody calls Fail")


if __name__ == "__main__":
    unittest.main()
