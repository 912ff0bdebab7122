#include "host/Table.h"

#include <algorithm>

namespace rvxctl {

namespace {

/// Columns that a text takes: colours and the bytes that continue a character take none.
std::size_t Width(const std::string& text) {
  std::size_t width = 0;
  bool color = false;
  for (const char character : text) {
    if (character == '\033') color = true;
    if (!color && (static_cast<unsigned char>(character) & 0xC0) != 0x80) ++width;
    if (color && character == 'm') color = false;
  }
  return width;
}

std::string Padded(const std::string& text, std::size_t width) {
  return text + std::string(width - std::min(width, Width(text)), ' ');
}

}  // namespace

std::string Table(const std::vector<std::string>& heading,
                  const std::vector<std::vector<std::string>>& rows) {
  std::vector<std::size_t> widths;
  for (const std::string& title : heading) widths.push_back(Width(title));
  for (const auto& row : rows)
    for (std::size_t column = 0; column < row.size(); ++column)
      widths[column] = std::max(widths[column], Width(row[column]));
  std::string text;
  const auto add = [&](const std::vector<std::string>& row) {
    std::string line;
    for (std::size_t column = 0; column < row.size(); ++column)
      line += column + 1 == row.size() ? row[column] : Padded(row[column], widths[column]) + "  ";
    text += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
  };
  add(heading);
  for (const auto& row : rows) add(row);
  return text;
}

std::string Pairs(const std::vector<std::pair<std::string, std::string>>& pairs) {
  std::size_t width = 0;
  for (const auto& [label, value] : pairs) width = std::max(width, Width(label));
  std::string text;
  for (const auto& [label, value] : pairs) text += Padded(label, width) + "  " + value + "\n";
  return text;
}

}  // namespace rvxctl
