#include "host/Table.h"

#include <libsmartcols.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <new>
#include <sstream>

#include "host/Printable.h"

namespace Host {

namespace {

/// Columns below which a text is easier to read when the terminal breaks it.
constexpr std::size_t LEAST_ROOM = 6;

using CTable = std::unique_ptr<libscols_table, decltype(&scols_unref_table)>;

void Require(int error) {
  if (error != 0) throw std::bad_alloc();
}

CTable Filled(const std::vector<SHeading>& heading, const Rows& rows, std::size_t width) {
  CTable table(scols_new_table(), &scols_unref_table);
  if (!table) throw std::bad_alloc();
  scols_table_set_column_separator(table.get(), "  ");
  scols_table_enable_colors(table.get(), 1);
  scols_table_enable_noheadings(table.get(), heading.empty() ? 1 : 0);
  scols_table_set_termforce(table.get(), width == 0 ? SCOLS_TERMFORCE_NEVER : SCOLS_TERMFORCE_ALWAYS);
  scols_table_set_termwidth(table.get(), width);
  const std::size_t columns = rows.empty() ? 0 : rows.front().size();
  for (std::size_t column = 0; column < columns; ++column) {
    const SHeading title = heading.empty() ? SHeading("") : heading[column];
    const int flags = (column + 1 == columns ? SCOLS_FL_WRAP : 0) | (title.m_Shrinks ? SCOLS_FL_TRUNC : 0);
    if (scols_table_new_column(table.get(), title.m_Text, 0, flags) == nullptr) throw std::bad_alloc();
  }
  for (const auto& row : rows) {
    libscols_line* const line = scols_table_new_line(table.get(), nullptr);
    if (line == nullptr) throw std::bad_alloc();
    for (std::size_t column = 0; column < row.size(); ++column) {
      Require(scols_line_set_data(line, column, Printable(row[column].m_Text).c_str()));
      if (*row[column].m_Color != '\0')
        Require(scols_cell_set_color(scols_line_get_cell(line, column), row[column].m_Color));
    }
  }
  return table;
}

/// Its lines, without the blanks that fill the last columns.
std::string Printed(const CTable& table) {
  char* printed = nullptr;
  Require(scols_print_table_to_string(table.get(), &printed));
  const std::unique_ptr<char, decltype(&std::free)> owner(printed, &std::free);
  std::istringstream lines(printed == nullptr ? "" : printed);
  std::string text;
  for (std::string line; std::getline(lines, line);)
    text += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
  return text;
}

bool IsOpenQuote(const std::string& word) { return word.starts_with("'") && word.find('\'', 1) == word.npos; }

/// Breaks the last cells between words: left to itself, libsmartcols does so within them.
void WrapWords(const CTable& table, const Rows& rows, libscols_column* column) {
  const std::size_t last = rows.front().size() - 1;
  const std::size_t room = scols_column_get_width(column);
  scols_column_set_safechars(column, "\n");
  scols_column_set_wrapfunc(column, scols_wrapnl_chunksize, scols_wrapnl_nextchunk, nullptr);
  for (std::size_t row = 0; row < rows.size(); ++row)
    if (const std::string text = Printable(rows[row][last].m_Text); WidthOf(text) > room)
      Require(scols_line_set_data(scols_table_get_line(table.get(), row), last, Wrapped(text, room).c_str()));
}

}  // namespace

std::string Table(const std::vector<SHeading>& heading, const Rows& rows, std::size_t width) {
  const CUtf8 utf8;
  const CTable table = Filled(heading, rows, width);
  std::string text = Printed(table);
  if (width == 0 || rows.empty()) return text;
  // Its width is known now.
  libscols_column* const column = scols_table_get_column(table.get(), rows.front().size() - 1);
  std::size_t longest = 0;
  for (const auto& row : rows) longest = std::max(longest, WidthOf(Printable(row.back().m_Text)));
  if (scols_column_get_width(column) < std::min(LEAST_ROOM, longest))
    return Printed(Filled(heading, rows, 0));
  WrapWords(table, rows, column);
  return Printed(table);
}

std::string Wrapped(const std::string& text, std::size_t room) {
  std::istringstream words(text);
  std::string wrapped;
  std::size_t taken = 0;
  for (std::string word, more; words >> word;) {
    while (IsOpenQuote(word) && words >> more) word += " " + more;
    const std::size_t width = WidthOf(word);
    const bool fits = taken == 0 || taken + 1 + width <= room;
    if (!wrapped.empty()) wrapped += fits ? ' ' : '\n';
    taken = (fits && taken != 0 ? taken + 1 : 0) + width;
    wrapped += word;
  }
  return wrapped;
}

std::string Colored(const SCell& cell) {
  const std::string text = Printable(cell.m_Text);
  return *cell.m_Color == '\0' ? text : cell.m_Color + text + "\033[0m";
}

}  // namespace Host
