#pragma once
/// @file
/// Texts from disks, files and command lines on a terminal: a label may hold what moves its cursor, renames
/// its window or turns the direction of writing. All texts are UTF-8, whatever the person's language.

#include <clocale>
#include <string>

namespace Host {

/// While one exists, the thread's functions of characters read UTF-8: the catalogue is UTF-8 whatever the
/// person's language, and the process itself stays in the classic locale.
class CUtf8 {
 public:
  CUtf8();
  ~CUtf8();
  CUtf8(const CUtf8&) = delete;
  CUtf8& operator=(const CUtf8&) = delete;

 private:
  locale_t m_Before;
};

/// The text with "?" for each character that a terminal would obey or not show (controls, marks of direction,
/// what has no width of its own) and for each byte that is no UTF-8. Line breaks are such characters unless
/// `lines` says that the text has several.
std::string Printable(const std::string& text, bool lines = false);

/// How many columns a printable text takes: a Chinese character takes two, a combining accent none. Colours
/// of our own (host/Table.h) take none.
std::size_t WidthOf(const std::string& text);

/// As many whole characters of the printable text as fit into the columns. Colours stay whole and are ended.
std::string Cut(const std::string& text, std::size_t columns);

}  // namespace Host
