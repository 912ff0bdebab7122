#include "host/Printable.h"

#include <algorithm>
#include <boost/locale/utf.hpp>
#include <cwchar>
#include <iterator>

namespace Host {

namespace {

using CharOfUtf8 = boost::locale::utf::utf_traits<char>;
using boost::locale::utf::code_point;

constexpr char ESCAPE = '\033';

/// What a terminal takes for no column although it is no control to the C library, or hides.
constexpr struct SRange {
  code_point m_First;
  code_point m_Last;
} HIDDEN[] = {{0x00AD, 0x00AD},   {0x034F, 0x034F},  {0x061C, 0x061C}, {0x115F, 0x1160}, {0x17B4, 0x17B5},
              {0x180B, 0x180F},   {0x200B, 0x200F},  {0x2028, 0x202E}, {0x2060, 0x206F}, {0x3164, 0x3164},
              {0xFE00, 0xFE0F},   {0xFEFF, 0xFEFF},  {0xFFA0, 0xFFA0}, {0xFFF0, 0xFFFB}, {0x1BCA0, 0x1BCA3},
              {0x1D173, 0x1D17A}, {0xE0000, 0xE0FFF}};

/// Columns of a character, -1 for one that is not to be shown.
int ColumnsOf(code_point character) {
  const auto holds = [&](const SRange& range) {
    return character >= range.m_First && character <= range.m_Last;
  };
  if (std::ranges::any_of(HIDDEN, holds)) return -1;
  return ::wcwidth(static_cast<wchar_t>(character));
}

/// The end of one of our own colours that begins here; its beginning when none does.
std::string::const_iterator EndOfColor(std::string::const_iterator at, std::string::const_iterator end) {
  if (*at != ESCAPE) return at;
  const auto last = std::find(at, end, 'm');
  return last == end ? at : last + 1;
}

}  // namespace

CUtf8::CUtf8()
    : m_Before(::uselocale([] {
        static const locale_t utf8 = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
        return utf8;
      }())) {}

CUtf8::~CUtf8() { ::uselocale(m_Before); }

std::string Printable(const std::string& text, bool lines) {
  const CUtf8 utf8;
  std::string printable;
  for (auto at = text.begin(); at != text.end();) {
    auto next = at;
    const code_point character = CharOfUtf8::decode(next, text.end());
    const bool broken =
        character == boost::locale::utf::illegal || character == boost::locale::utf::incomplete;
    if (broken) next = at + 1;
    if (!broken && (ColumnsOf(character) >= 0 || (lines && character == '\n')) && character != 0)
      printable.append(at, next);
    else
      printable += '?';
    at = next;
  }
  return printable;
}

std::size_t WidthOf(const std::string& text) {
  const CUtf8 utf8;
  std::size_t width = 0;
  for (auto at = text.begin(); at != text.end();) {
    if (const auto behind = EndOfColor(at, text.end()); behind != at)
      at = behind;
    else
      width += static_cast<std::size_t>(std::max(ColumnsOf(CharOfUtf8::decode(at, text.end())), 0));
  }
  return width;
}

std::string Cut(const std::string& text, std::size_t columns) {
  const CUtf8 utf8;
  std::string cut;
  bool isFull = false;
  for (auto at = text.begin(); at != text.end();) {
    auto next = EndOfColor(at, text.end());
    if (next != at) {
      cut.append(at, next);
    } else {
      const auto width =
          static_cast<std::size_t>(std::max(ColumnsOf(CharOfUtf8::decode(next, text.end())), 0));
      isFull = isFull || width > columns;
      if (!isFull) {
        cut.append(at, next);
        columns -= width;
      }
    }
    at = next;
  }
  return cut;
}

}  // namespace Host
