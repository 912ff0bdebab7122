#include "KVT/Language.h"

#include <strings.h>

#include <algorithm>
#include <boost/locale/utf.hpp>
#include <charconv>
#include <fstream>

#include "libraries/common/Environment.h"

namespace KVT::Language_Support {
namespace {

constexpr char BLANKS[] = " \t\f\v\r";

bool IsUtf8(const std::string& text) {
  using boost::locale::utf::utf_traits;
  for (auto at = text.begin(); at != text.end();)
    if (!boost::locale::utf::is_valid_codepoint(utf_traits<char>::decode(at, text.end()))) return false;
  return true;
}

/// The catalogue of a language, else the one without a language.
std::ifstream OpenCatalogue(const std::string& file, std::uint16_t language) {
  const char* chosen = Internal::FindVariable("ZQ_CATALOG_DIR");
  const std::string folder = std::string(chosen != nullptr ? chosen : ZQ_CATALOG_FOLDER) + '/';
  const std::string code{static_cast<char>(language & 0xFF), static_cast<char>(language >> 8)};
  std::ifstream stream(folder + code + '/' + file);
  return stream ? std::move(stream) : std::ifstream(folder + file);
}

std::string Unescape(const std::string& text) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char next = i + 1 < text.size() ? text[i + 1] : '\0';
    const bool escape = text[i] == '\\' && (next == 'n' || next == '\\');
    result += !escape ? text[i] : next == 'n' ? '\n' : '\\';
    if (escape) ++i;
  }
  return result;
}

}  // namespace

CLanguageSupport::CLngFile::CLngFile(std::string fileName, std::uint16_t language, std::string encoding,
                                     std::vector<std::string> fallback)
    : m_FileName(std::move(fileName)),
      m_Language(language),
      m_Encoding(std::move(encoding)),
      m_Fallback(std::move(fallback)) {}

bool CLanguageSupport::CLngFile::Load() {
  if (strcasecmp(m_Encoding.c_str(), "utf-8") != 0) return false;
  std::ifstream stream = OpenCatalogue(m_FileName, m_Language);
  if (!stream) return false;
  m_Texts.clear();
  m_RejectedLines = 0;
  for (std::string line; std::getline(stream, line);) {
    if (line.ends_with('\r')) line.pop_back();
    const std::size_t begin = line.find_first_not_of(BLANKS);
    if (begin == std::string::npos || line[begin] == ';') continue;
    unsigned int number = 0;
    const char* const end = line.data() + line.size();
    const auto read = std::from_chars(line.data() + begin, end, number);
    const std::size_t sign = line.find_first_not_of(BLANKS, static_cast<std::size_t>(read.ptr - line.data()));
    if (read.ec == std::errc() && sign != std::string::npos && line[sign] == '=' && IsUtf8(line))
      m_Texts[number] = Unescape(line.substr(std::min(line.find_first_not_of(" \t", sign + 1), line.size())));
    else
      ++m_RejectedLines;
  }
  return true;
}

std::optional<std::string> CLanguageSupport::CLngFile::GetText(unsigned int number) const {
  if (const auto found = m_Texts.find(number); found != m_Texts.end()) return found->second;
  if (number < m_Fallback.size()) return m_Fallback[number];
  return std::nullopt;
}

}  // namespace KVT::Language_Support
