#pragma once
/// @file
/// Texts in columns.

#include <string>
#include <utility>
#include <vector>

namespace Host {

/// What a text is laid out for.
struct SStyle {
  std::size_t m_Width{0};  ///< columns; 0: no limit
  bool m_Color{false};
};

/// Begins a colour on a terminal: an escape sequence, empty for none.
using Color = const char*;
constexpr Color RED = "\033[31m";
constexpr Color GREEN = "\033[32m";
constexpr Color YELLOW = "\033[33m";
constexpr Color PLAIN = "";

struct SCell {
  SCell(std::string text, Color color = PLAIN) : m_Text(std::move(text)), m_Color(color) {}
  SCell(const char* text) : m_Text(text) {}
  std::string m_Text;
  Color m_Color{PLAIN};
};
using Rows = std::vector<std::vector<SCell>>;

struct SHeading {
  SHeading(const char* text, bool shrinks = false) : m_Text(text), m_Shrinks(shrinks) {}
  const char* m_Text;
  bool m_Shrinks;  ///< its cells are cut, before anything else is, where the terminal is too narrow
};

/// Columns of equal width, below a heading unless that is empty, a line a row. On a terminal of `width`
/// columns a row that is too long goes on below its last cell; 0 is no limit. Cells are made printable.
std::string Table(const std::vector<SHeading>& heading, const Rows& rows, std::size_t width);

/// The words in lines of at most `room` columns each, but for a word that is longer; a command in quotes,
/// which people copy, is one word.
std::string Wrapped(const std::string& text, std::size_t room);

/// A text in a colour by itself, made printable.
std::string Colored(const SCell& cell);

}  // namespace Host
