#!/usr/bin/python3
"""A small house that keeps its walls, and what is said when a wrong include is planted in it."""

import unittest

from walls import find_problems

HOUSE = {
    "include/velamailserver/log_exception.h": "#pragma once\n#include <string>\n",
    "include/velamailserver/account/user.h":
        "#pragma once\n#include <json/value.h>\n#include <velamailserver/velasdk/vela_user.h>\n",
    "lib-webapi/account/records.h": "#pragma once\n#include <vector>\n",
    "lib-webapi/account/user.cc":
        '#include <velamailserver/account/user.h>\n#include <unistd.h>\n'
        '#include "account/records.h"\n',
    "platform/include/velamailserver/maillog.h": "#pragma once\n",
    "platform/include/velamailserver/velasdk/vela_user.h": "#pragma once\n#include <sys/types.h>\n",
    "platform/linux/include/quillon/platform/secret.h": "#pragma once\n#include <sys/stat.h>\n",
    "platform/linux/accounts/table.h": "#pragma once\n#include <string>\n",
    "platform/linux/accounts/table.cc":
        '#include "accounts/table.h"\n#include <pwd.h>\n'
        '#include <velamailserver/log_exception.h>\n#include "utils/decimal.h"\n',
    "platform/linux/backend/store.cc":
        '#include <hiredis/hiredis.h>\n#include <fmt/format.h>\n#include "accounts/table.h"\n',
    "platform/linux/utils/decimal.h": "#pragma once\n",
    "handlers/include/quillon/handlers/register.h": "#pragma once\n",
    "handlers/parameters.h": "#pragma once\n",
    "handlers/user_api.cc":
        '#include <velamailserver/account/user.h>\n#include "parameters.h"\n',
    "apps/quillonctl/table.h": "#pragma once\n",
    "apps/quillonctl/main.cc":
        '#include <CLI/CLI.hpp>\n#include <quillon/handlers/register.h>\n'
        '#include <quillon/platform/secret.h>\n#include "table.h"\n',
    "apps/quillon-webapid/http_front.cc":
        "#include <microhttpd.h>\n#include <velamailserver/maillog.h>\n",
    "apps/quillon-webapid/worker.cc": "#include <velamailserver/account/user.h>\n",
    "examples/handler/limit.cc": "#include <velamailserver/account/user.h>\n",
    "bench/main.cc": '#include <sqlite3.h>\n#include "support/program.h"\n',
    "tests/recording_platform/world.cc": "#include <gmock/gmock.h>\n",
    "tests/support/program.h": "#pragma once\n",
    "tests/platform/table_test.cc":
        '#include <gtest/gtest.h>\n#include "accounts/table.h"\n#include "support/program.h"\n',
}


class Planted(unittest.TestCase):
    def assert_refused(self, path, include, *said):
        """One more include in a file is one problem, which names the file."""
        text = HOUSE.get(path, "#pragma once\n" if path.endswith(".h") else "")
        problems = find_problems(HOUSE | {path: f"{text}#include {include}\n"})
        self.assertEqual(len(problems), 1, problems)
        for part in (path, *said):
            self.assertIn(part, problems[0])

    def assert_allowed(self, path, include):
        self.assertEqual(find_problems(HOUSE | {path: f"{HOUSE[path]}#include {include}\n"}), [])

    def test_house_as_it_is(self):
        self.assertEqual(find_problems(HOUSE), [])

    def test_library_knows_no_linux_component(self):
        for header in ["<quillon/platform/secret.h>", "<sys/socket.h>", "<pwd.h>",
                       "<hiredis/hiredis.h>", "<soci/soci.h>", "<curl/curl.h>", "<fmt/format.h>",
                       '"accounts/table.h"']:
            with self.subTest(header):
                self.assert_refused("lib-webapi/account/user.cc", header)

    def test_library_knows_no_handler(self):
        for path in ["lib-webapi/account/user.cc", "include/velamailserver/account/user.h"]:
            self.assert_refused(path, "<quillon/handlers/register.h>")

    def test_interfaces_know_neither_library_nor_linux(self):
        path = "platform/include/velamailserver/maillog.h"
        for header in ["<velamailserver/log_exception.h>", "<quillon/platform/secret.h>",
                       "<sys/stat.h>", "<hiredis/hiredis.h>"]:
            with self.subTest(header):
                self.assert_refused(path, header)

    def test_platform_knows_only_the_exception_of_the_library(self):
        path = "platform/linux/accounts/table.cc"
        self.assert_refused(path, "<velamailserver/account/user.h>", "platform/linux/ may not know")
        self.assert_refused(path, "<quillon/handlers/register.h>", "platform/linux/ may not know")
        self.assert_allowed("platform/linux/utils/decimal.h", "<velamailserver/log_exception.h>")

    def test_public_headers_bring_nothing_but_json(self):
        for path in ["include/velamailserver/log_exception.h",
                     "platform/linux/include/quillon/platform/secret.h",
                     "handlers/include/quillon/handlers/register.h"]:
            for header in ["<fmt/format.h>", "<openssl/evp.h>", "<gsasl.h>"]:
                with self.subTest(f"{path} {header}"):
                    self.assert_refused(path, header)
            self.assert_allowed(path, "<json/value.h>")

    def test_handlers_know_neither_linux_nor_transport(self):
        for header in ["<quillon/platform/secret.h>", "<sys/socket.h>", "<netinet/in.h>",
                       "<unistd.h>", "<microhttpd.h>", "<curl/curl.h>", "<CLI/CLI.hpp>",
                       "<fmt/format.h>"]:
            with self.subTest(header):
                self.assert_refused("handlers/user_api.cc", header)

    def test_private_headers_stay_in_their_folder(self):
        for path, header in [("handlers/user_api.cc", '"accounts/table.h"'),
                             ("apps/quillonctl/main.cc", '"parameters.h"'),
                             ("apps/quillon-webapid/worker.cc", '"table.h"'),
                             ("platform/linux/accounts/table.cc", '"account/records.h"'),
                             ("examples/handler/limit.cc", '"parameters.h"'),
                             ("bench/main.cc", '"parameters.h"')]:
            with self.subTest(f"{path} {header}"):
                self.assert_refused(path, header, "is no private header")

    def test_way_around_the_folders(self):
        path = "handlers/user_api.cc"
        self.assert_refused(path, '"../platform/linux/accounts/table.h"')
        self.assert_refused(path, "<../linux/accounts/table.h>")
        self.assert_refused(path, "<accounts/table.h>", "is in no list of headers")
        self.assert_refused("platform/linux/accounts/table.cc",
                            '"include/quillon/platform/secret.h"', "is public: it belongs in <>")

    def test_product_knows_no_tests(self):
        self.assert_refused("apps/quillonctl/main.cc", '"support/program.h"')
        self.assert_refused("platform/linux/accounts/table.cc", "<gtest/gtest.h>")

    def test_components_stay_where_they_belong(self):
        for path, header in [("platform/linux/accounts/table.cc", "<hiredis/hiredis.h>"),
                             ("platform/linux/accounts/table.cc", "<soci/soci.h>"),
                             ("platform/linux/backend/store.cc", "<curl/curl.h>"),
                             ("platform/linux/backend/store.cc", "<toml++/toml.h>"),
                             ("platform/linux/backend/store.cc", "<CLI/CLI.hpp>"),
                             ("apps/quillonctl/main.cc", "<hiredis/hiredis.h>"),
                             ("apps/quillon-webapid/worker.cc", "<microhttpd.h>"),
                             ("apps/quillon-webapid/http_front.cc", "<fmt/format.h>")]:
            with self.subTest(f"{path} {header}"):
                self.assert_refused(path, header)

    def test_front_runs_nothing_of_the_library(self):
        for header in ["<velamailserver/account/user.h>", "<quillon/handlers/register.h>",
                       "<velamailserver/velasdk/vela_user.h>"]:
            with self.subTest(header):
                self.assert_refused("apps/quillon-webapid/http_front.cc", header)

    def test_stand_in_platform_knows_no_other(self):
        self.assert_refused("tests/recording_platform/world.cc", "<quillon/platform/secret.h>")
        self.assert_refused("tests/recording_platform/world.cc", '"accounts/table.h"')
        self.assert_refused("tests/lib-webapi/user_test.cc", "<quillon/platform/secret.h>")

    def test_tests_of_the_whole_look_into_no_part(self):
        self.assert_refused("tests/system/world.cc", '"accounts/table.h"')

    def test_folders_of_the_platform_do_not_need_each_other(self):
        problems = find_problems(HOUSE | {
            "platform/linux/utils/decimal.h": '#pragma once\n#include "accounts/table.h"\n'})
        self.assertIn("platform/linux: utils and accounts need each other: "
                      "platform/linux/utils/decimal.h includes platform/linux/accounts/table.h",
                      problems)

    def test_folders_that_need_each_other_by_way_of_a_third(self):
        problems = find_problems(HOUSE | {
            "platform/linux/backend/store.h": "#pragma once\n",
            "platform/linux/backend/store.cc":
                HOUSE["platform/linux/backend/store.cc"].replace(
                    "#include", '#include "backend/store.h"\n#include', 1),
            "platform/linux/utils/decimal.h": '#pragma once\n#include "backend/store.h"\n'})
        self.assertTrue(any("utils and backend need each other" in problem for problem in problems),
                        problems)

    def test_header_that_is_in_no_list(self):
        self.assert_refused("platform/linux/accounts/table.cc", "<unheard_of.h>",
                            "is in no list of headers")

    def test_folder_without_a_wall(self):
        self.assertEqual(find_problems(HOUSE | {"extras/new.cc": ""}),
                         ["extras/new.cc: no wall is drawn around this folder"])

    def test_include_that_cannot_be_read(self):
        self.assert_refused("handlers/user_api.cc", "SECRET_HEADER", "is no name of a header")
        for line in ["#include_next <string>", "#import <string>",
                     "#if __has_include(<pwd.h>)\n#endif"]:
            with self.subTest(line):
                problems = find_problems(HOUSE | {"handlers/new.cc": line + "\n"})
                self.assertEqual(problems,
                                 ["handlers/new.cc: includes in another way than by #include"])

    def test_include_that_is_written_oddly(self):
        path = "handlers/user_api.cc"
        for line in ["#  include <pwd.h>", "  #include<pwd.h>", "#include /* here */ <pwd.h>",
                     "#include <pwd.h>  // for getpwnam"]:
            with self.subTest(line):
                problems = find_problems(HOUSE | {path: HOUSE[path] + line + "\n"})
                self.assertEqual(len(problems), 1, problems)

    def test_include_in_a_comment(self):
        path = "handlers/user_api.cc"
        for comment in ["// #include <pwd.h>\n", "/*\n#include <pwd.h>\n*/\n"]:
            self.assertEqual(find_problems(HOUSE | {path: HOUSE[path] + comment}), [])

    def test_header_without_a_guard(self):
        self.assertEqual(find_problems(HOUSE | {"handlers/parameters.h": "#include <string>\n"}),
                         ["handlers/parameters.h: does not begin with #pragma once"])

    def test_source_that_does_not_begin_with_its_header(self):
        path = "platform/linux/accounts/table.cc"
        for text in ['#include <pwd.h>\n#include "accounts/table.h"\n', "#include <pwd.h>\n", ""]:
            with self.subTest(text):
                problems = find_problems(HOUSE | {path: text})
                self.assertEqual(len(problems), 1, problems)
                self.assertIn("does not include platform/linux/accounts/table.h first", problems[0])


if __name__ == "__main__":
    unittest.main()
