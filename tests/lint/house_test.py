#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Each check of house.py finds what it looks for, and finds nothing in a clean tree."""

import json
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True  # leave the work tree as it is
import house  # noqa: E402

SPDX = "// SPDX-License-Identifier: Apache-2.0\n"
ROOMS = """## Rooms

| folder | holds | may include | libraries |
|---|---|---|---|
""" + "".join(f"| `{room}/` | a room | {allowed} | {libraries} |\n" for room, allowed, libraries in [
    ("ntp", "`transport/`, `platform/`", "none"), ("transport", "`platform/`", "none"), ("platform", "none", "POSIX"),
    ("platform/linux", "`platform/`", "POSIX, Asio"), ("platform/files", "`platform/`", "spdlog"),
    ("netmodel", "`transport/ntp_packet.h`, `platform/`", "none"), ("sim", "`netmodel/`, `platform/`", "none"),
    ("apps", "everything but `sim/`", "POSIX"), ("testing", "everything", "any"), ("tests", "everything", "any")])


class HouseTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        house.ROOT = pathlib.Path(self.folder.name)
        subprocess.run(["git", "init", "-q"], cwd=house.ROOT, check=True)
        self.put("docs/architecture.md", ROOMS)
        for room in re.findall("`(.*?)/` |", ROOMS):
            self.put(f"{room}/.gitignore" if room else ".gitignore", "")
        self.put("LICENSE", "Apache License")
        self.put("transport/ntp_packet.h", SPDX)
        self.put("transport/other.h", SPDX)
        self.put("platform/time.h", SPDX)
        self.put("platform/linux/clock.h", SPDX)
        self.put("sim/world.h", SPDX)

    def put(self, path, text):
        target = house.ROOT / path
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_text(text)

    def find(self, check):
        return list(house.CHECKS[check]())

    def test_a_clean_tree_has_nothing_to_find(self):
        self.put("ntp/a.cc", SPDX + '#include <vector>\n#include "platform/time.h"\n')
        for check in house.CHECKS:
            if check != "headers":
                self.assertEqual(self.find(check), [], check)

    def test_an_arrow_against_the_table_is_found(self):
        for path, include in [("transport/a.cc", '"ntp/a.h"'), ("platform/a.cc", '"transport/ntp_packet.h"'),
                              ("ntp/a.cc", '"platform/linux/clock.h"'), ("netmodel/a.cc", '"transport/other.h"'),
                              ("apps/a.cc", '"sim/world.h"'), ("ntp/a.cc", "<unistd.h>"),
                              ("platform/a.cc", "<asio.hpp>"), ("ntp/a.cc", '"../platform/linux/clock.h"'),
                              ("ntp/a.cc", '"nowhere/a.h"'), ("elsewhere/a.cc", "<vector>")]:
            with self.subTest(path=path, include=include):
                self.put(path, f"#include {include}\n")
                self.assertEqual(len(self.find("arrows")), 1)
                (house.ROOT / path).unlink()

    def test_an_arrow_along_the_table_passes(self):
        for path, include in [("netmodel/a.cc", '"transport/ntp_packet.h"'), ("apps/a.cc", '"transport/other.h"'),
                              ("platform/linux/a.cc", "<asio.hpp>"),
                              ("platform/linux/a.cc", '"platform/linux/clock.h"'),
                              ("ntp/a.cc", '"../platform/time.h"'), ("tests/a.cc", '"gtest/gtest.h"')]:
            with self.subTest(path=path, include=include):
                self.put(path, f"#include {include}\n")
                self.assertEqual(self.find("arrows"), [])
                (house.ROOT / path).unlink()

    def test_a_missing_table_of_rooms_is_found(self):
        self.put("docs/architecture.md", "## Rooms\n")
        self.assertEqual(len(self.find("arrows")), 1)

    def test_long_files_and_functions_are_found_and_others_are_not(self):
        for lines, count in [(70, 0), (71, 1)]:
            for head in ["void F() {", "int F(int a,\n      int b) {", "TEST(Suite, Name) {"]:
                self.put("ntp/a.cc", head + "\n" + "  G();\n" * lines + "}\n")
                self.assertEqual(len(self.find("sizes")), count, head)
        self.put("ntp/a.cc", "class A {\n  int F() {\n" + "    G();\n" * 71 + "  }\n};\n")
        self.assertEqual(len(self.find("sizes")), 1)
        self.put("ntp/a.cc", "namespace a {\n" + "int a;\n" * 798 + "}\n")
        self.assertEqual(self.find("sizes"), [])
        self.put("ntp/a.cc", "int a;\n" * 801)
        self.assertEqual(len(self.find("sizes")), 1)

    def test_each_banned_call_is_found_in_product_code_only(self):
        for call in ["auto a = std::chrono::steady_clock::now();", "std::getenv(name);", "if_nametoindex(name);",
                     "usleep(1);", "nanosleep(&pause, nullptr);", "sleep(1);", "sleep(pause_s);",
                     "clock_nanosleep(CLOCK_BOOTTIME, 0, &pause, nullptr);", "std::this_thread::sleep_for(pause);",
                     "std::random_device device;", "rand();", "clock_gettime(CLOCK_REALTIME, &now);",
                     "gettimeofday(&now, nullptr);", "time(nullptr);"]:
            with self.subTest(call=call):
                self.put("ntp/a.cc", call)
                self.assertEqual(len(self.find("calls")), 1)
                self.put("ntp/a.cc", "// " + call)
                self.assertEqual(self.find("calls"), [])
                self.put("tests/a.cc", call)
                self.assertEqual(self.find("calls"), [])
        self.put("platform/linux/clock.cc", "clock_gettime(CLOCK_REALTIME, &now);")
        self.assertEqual(self.find("calls"), [])

    def test_steady_time_without_its_suffix_is_found(self):
        for line, count in [("const int64_t now_us = base::GetSteadyTimeTicks();", 1),
                            ("const int64_t now_ticks_us = base::GetSteadyTimeTicks();", 0),
                            ("int64_t steady_us_;", 1), ("int64_t system_offset_from_steady_us_;", 0),
                            ("int64_t wall_minus_steady_us = 0;", 0), ("int64_t sent_ticks;", 1),
                            ("if (wall_us < now_ticks_us) {", 1), ("x = now_ticks_us - wall_us;", 1),
                            ("x = now_ticks_us - begin_ticks_us;", 0)]:
            with self.subTest(line=line):
                self.put("ntp/a.cc", line)
                self.assertEqual(len(self.find("ticks")), count)

    def test_each_odd_word_is_found_in_any_case(self):
        remedies = set()
        for text in ["begins anew", "kept for ever", "foreverything", "a look-up", "two looked-ups", "whoever asks",
                     "it is willing", "refuses a thread", "refuses the thread"]:
            for line in [text, text.upper(), text.title()]:
                with self.subTest(line=line):
                    self.put("ntp/a.cc", f"// {line}\n")
                    found = self.find("words")
                    self.assertEqual(len(found), 1)
                    remedies.add(found[0].split("': ")[1])
        self.assertEqual(remedies, {remedy for _, remedy in house.WORDS})
        self.put("ntp/a.cc", "// again, forever; a lookup\n")
        self.assertEqual(self.find("words"), [])

    def test_prose_and_cmake_lines_that_are_too_wide_are_found(self):
        for path, line, count in [("docs/a.md", "é" * 120, 0), ("docs/a.md", "a" * 121, 1),
                                  ("docs/a.md", "|" + "a" * 120, 0),
                                  ("docs/a.md", "```sh\n" + "a" * 121 + "\n```", 0),
                                  ("docs/a.md", "```sh\na\n```\n" + "a" * 121, 1),
                                  ("CMakeLists.txt", "# " + "a" * 118, 0), ("CMakeLists.txt", "# " + "a" * 119, 1),
                                  ("CMakeLists.txt", "|" + "a" * 120, 1), ("cmake/a.cmake", "a" * 121, 1)]:
            with self.subTest(path=path, line=line):
                self.put(path, line + "\n")
                self.assertEqual(len(self.find("width")), count)
                (house.ROOT / path).unlink()

    def test_a_file_without_its_licence_line_is_found(self):
        self.put("ntp/a.cc", "int a;\n")
        self.put("ntp/b.cc", SPDX)
        self.assertEqual(len(self.find("licence")), 1)
        self.put("tests/a.c", "int a;\n")
        self.assertEqual(len(self.find("licence")), 2)
        self.put("tests/a.c", SPDX)
        self.put("cmake/a.map", "{\n};\n")
        self.put("cmake/b.map", "/* SPDX-License-Identifier: Apache-2.0 */\n{\n};\n")
        self.assertEqual(len(self.find("licence")), 2)
        self.put("LICENSE", "")
        self.assertEqual(len(self.find("licence")), 3)

    def test_what_documents_name_must_exist(self):
        self.put("tests/a_test.cc", "TEST_F(ManagerTest, AReplyIsUsedOnce) {}\n")
        for text, count in [("`sim/world.h` `sim/` [x](../LICENSE) [y](https://example.org) `ntp.sync_interval`", 0),
                            ("`sim/none.h`", 1), ("[x](none.md)", 1), ("`ManagerTest.AReplyIsUsedOnce`", 0),
                            ("`ManagerTest.AReplyIsUsedTwice`", 1)]:
            with self.subTest(text=text):
                self.put("docs/security.md", text)
                self.assertEqual(len(self.find("links")), count)

    def test_a_header_that_does_not_compile_alone_is_found(self):
        self.assertEqual(len(self.find("headers")), 1)  # no compilation database yet
        source = house.ROOT / "ntp/a.cc"
        self.put("build/dev/compile_commands.json", json.dumps([{
            "directory": str(house.ROOT / "build/dev"), "file": str(source),
            "command": f"{shutil.which('c++') or 'c++'} -I{house.ROOT} -o a.o -c {source}"}]))
        for path in ["transport/ntp_packet.h", "transport/other.h", "platform/time.h", "platform/linux/clock.h",
                     "sim/world.h"]:
            (house.ROOT / path).unlink()
        self.put("ntp/whole.h", "#include <vector>\nstd::vector<int> Whole();\n")
        self.assertEqual(self.find("headers"), [])
        self.put("ntp/lacking.h", "std::vector<int> Lacking();\n")
        found = self.find("headers")
        self.assertEqual(len(found), 1)
        self.assertIn("ntp/lacking.h: does not compile alone", found[0])


if __name__ == "__main__":
    unittest.main()
