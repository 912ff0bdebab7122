#pragma once
/// @file
/// The real standard output, kept from the plug-in, and the person in front of it.

#include <cstdio>
#include <string>

namespace Host {

struct SScreenSize {
  std::size_t m_Columns;
  std::size_t m_Rows;
};

/// The text in place of what the screen shows: lines are cut at its edge, where ">" stands then, and where
/// they are too many the last one tells how many are not shown. Zeros are no limit.
std::string Screen(const std::string& text, SScreenSize size);

/// Standard output. The plug-in gets another one: it prints a line of its own when it initialises.
class CTerminal {
 public:
  /// Opens what is missing of the three standard descriptors first: a disk that got number 1 would take what
  /// the plug-in prints.
  explicit CTerminal(bool tracing);
  ~CTerminal();
  CTerminal(const CTerminal&) = delete;
  CTerminal& operator=(const CTerminal&) = delete;
  /// Throws CError when the program was started without a standard output: nothing that it does could be
  /// told.
  void RequireOpen() const;
  /// Throws CError when the text cannot be written; with EXIT_SIGNAL + SIGPIPE when its reader has gone.
  void Print(const std::string& text);
  /// A document for programs. On a terminal a person reads it: what that would obey or hide is "?" there.
  void PrintDocument(const std::string& text);
  bool HasPrinted() const { return m_HasPrinted; }
  bool IsTerminal() const { return m_IsTerminal; }
  /// The terminal as it is now; zeros when it is none or does not tell.
  SScreenSize Size() const;
  std::size_t Width() const { return Size().m_Columns; }

 private:
  std::FILE* m_File{nullptr};
  bool m_HasPrinted{false};
  bool m_IsTerminal{false};
};

/// Asks the person. Throws CError(EXIT_NOT_CONFIRMED) on anything but yes, or without a terminal.
void Confirm(const std::string& question);

}  // namespace Host
