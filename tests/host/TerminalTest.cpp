/// @file
/// What a terminal is given: nothing that it would obey, and no line that is longer than it is wide.

#include <gmock/gmock.h>

#include "Program.h"
#include "host/Printable.h"

namespace {

using namespace rvxctl;

TEST(Printable, NothingThatATerminalObeysOrHides) {
  const std::pair<std::string, const char*> cases[] = {
      {"plain \u00DCbergr\u00F6\u00DFe \u4E2D\u6587", "plain \u00DCbergr\u00F6\u00DFe \u4E2D\u6587"},
      {"\033]0;title\a\x7F\n\t", "?]0;title????"},
      {"\u0085\u009B31m", "??31m"},                        // controls of one character
      {"\u202Egnp.exe\u2066\u200F\u061C", "?gnp.exe???"},  // what turns the direction
      {"a\u200Bb\uFEFF\u00AD", "a?b??"},                   // what is not seen
      {"e\u0301", "e\u0301"},                              // an accent of its own is no such thing
      {"\xC3\xE4\xED\xA0\x80\xC0\x80\xF5", "????????"},    // cut, Latin-1, surrogate, overlong, too large
      {std::string("a\0b", 3), "a?b"}};
  for (const auto& [text, printable] : cases) EXPECT_EQ(Printable(text), printable);
  EXPECT_EQ(Printable("a\n\033", true), "a\n?");
}

TEST(Printable, IsMeasuredAndCutByWhatIsSeen) {
  EXPECT_EQ(WidthOf("\u4E2De\u0301\033[31mx\033[0m"), 4U);
  const std::tuple<std::string, std::size_t, const char*> cases[] = {
      {"\u4E2D\u6587", 3, "\u4E2D"},
      {"\u00FC\u00FC", 1, "\u00FC"},
      {"a\u4E2Db", 2, "a"},  // what comes after what does not fit is behind it
      {"\033[31mlong\033[0m", 2, "\033[31mlo\033[0m"}};
  for (const auto& [text, columns, cut] : cases) EXPECT_EQ(Cut(text, columns), cut);
}

}  // namespace
