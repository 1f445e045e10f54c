// SPDX-License-Identifier: Apache-2.0
#include "apps/skorra-ntp/terminal.h"

#include <gtest/gtest.h>

#include <string>

namespace skorra {
namespace {

// Every character of ASCII that is no control.
const std::string kAscii = [] {
  std::string text;
  for (char c = ' '; c <= '~'; ++c) {
    text += c;
  }
  return text;
}();

TEST(TerminalTest, ControlCharactersAndBytesThatAreNotUtf8AreEscaped) {
  struct Case {
    const char* what;
    std::string text;
    const char* shown;
  };
  const Case cases[] = {
      {"nothing", "", ""},
      {"ASCII, from the first to the last", " azAZ09'\"\\~", " azAZ09'\"\\~"},
      {"an escape sequence", "\x1b[31mred", R"(\x1b[31mred)"},
      {"the first and the last C0 control", std::string("\0", 1) + "\x1f", R"(\x00\x1f)"},
      {"ends of lines and tabs", "a\r\n\tb", R"(a\x0d\x0a\x09b)"},
      {"DEL", "\x7f", R"(\x7f)"},
      {"the first and the last C1 control", "\xc2\x80\xc2\x9f", R"(\xc2\x80\xc2\x9f)"},
      {"the first character after them", "\xc2\xa0", "\xc2\xa0"},
      {"letters of two bytes", "\xc3\xa9\xdf\xbf", "\xc3\xa9\xdf\xbf"},
      {"letters of three bytes", "\xe0\xa0\x80\xe6\x97\xa5\xef\xbf\xbd",
       "\xe0\xa0\x80\xe6\x97\xa5\xef\xbf\xbd"},
      {"letters of four bytes", "\xf0\x90\x80\x80\xf4\x8f\xbf\xbf", "\xf0\x90\x80\x80\xf4\x8f\xbf\xbf"},
      {"bytes that begin nothing", "\x80\xbf\xff\xfe", R"(\x80\xbf\xff\xfe)"},
      {"an 8-bit control on its own",
       "\x9b"
       "31m",
       R"(\x9b31m)"},
      {"two bytes for an ASCII character", "\xc0\x80\xc1\x9b", R"(\xc0\x80\xc1\x9b)"},
      {"three bytes where two are enough", "\xe0\x9f\xbf", R"(\xe0\x9f\xbf)"},
      {"four bytes where three are enough", "\xf0\x8f\xbf\xbf", R"(\xf0\x8f\xbf\xbf)"},
      {"a surrogate", "\xed\xa0\x80", R"(\xed\xa0\x80)"},
      {"the last character before the surrogates", "\xed\x9f\xbf", "\xed\x9f\xbf"},
      {"beyond U+10FFFF", "\xf4\x90\x80\x80\xf5\x80\x80\x80", R"(\xf4\x90\x80\x80\xf5\x80\x80\x80)"},
      {"five bytes", "\xf8\x88\x80\x80\x80", R"(\xf8\x88\x80\x80\x80)"},
      {"a letter that is cut off", "a\xe6\x97", R"(a\xe6\x97)"},
      {"a letter that another one cuts off", "\xe6\x97z", R"(\xe6\x97z)"},
      {"a letter that a control cuts off", "\xc3\x1b", R"(\xc3\x1b)"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Printable(c.text), c.shown) << c.what;
  }
}

TEST(TerminalTest, OfAnyTwoBytesOnlyLettersStayAndNoControl) {
  const auto is_shown = [](int byte) { return byte >= 0x20 && byte < 0x7f; };
  for (int first = 0; first < 256; ++first) {
    for (int second = 0; second < 256; ++second) {
      const std::string text{static_cast<char>(first), static_cast<char>(second)};
      const std::string shown = Printable(text);
      const bool is_letter =
          first >= 0xc2 && first <= 0xdf && second >= (first == 0xc2 ? 0xa0 : 0x80) && second <= 0xbf;
      if (is_letter) {
        EXPECT_EQ(shown, text) << first << ' ' << second;
      } else {
        const size_t escaped = (is_shown(first) ? 0u : 1u) + (is_shown(second) ? 0u : 1u);
        EXPECT_EQ(shown.size(), 2 + 3 * escaped) << first << ' ' << second;
        EXPECT_EQ(shown.find_first_not_of(kAscii), std::string::npos) << first << ' ' << second;
      }
    }
  }
}

std::string Captured(void (*print)()) {
  testing::internal::CaptureStderr();
  print();
  return testing::internal::GetCapturedStderr();
}

TEST(TerminalTest, EachWayToStandardErrorEscapesTextFromOutside) {
  EXPECT_EQ(Captured([] { PrintErrorLine("a\x1b[31m\nb"); }), "a\\x1b[31m\\x0ab\n");
  EXPECT_EQ(Captured([] { PrintErrorLine("\x9b", "\r\x1b[K"); }), "\r\x1b[K\\x9b\n") << "`before` is ours";
  EXPECT_EQ(Captured([] { PrintProblem("a\x1b\nb"); }), "sim_tests: a\\x1b\\x0ab\n");
  EXPECT_EQ(Captured([] { PrintProblem("a", "b\x1b\nc"); }), "sim_tests: a\nb\\x1b\\x0ac\n");
}

TEST(TerminalTest, AReportKeepsItsLinesAndJsonItsOwnEscapes) {
  testing::internal::CaptureStdout();
  EXPECT_TRUE(PrintText("a\x1b\nb\n"));
  EXPECT_TRUE(PrintJson("{\"a\": \"\\u001b\"}\n"));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "a\\x1b\nb\n{\"a\": \"\\u001b\"}\n");
}

}  // namespace
}  // namespace skorra
