#include "KVT/Language.h"

#include <re2/re2.h>
#include <strings.h>

#include <fstream>

#include "libraries/common/Environment.h"

namespace KVT::Language_Support {
namespace {

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
  // A dot of RE2 is one whole UTF-8 character: a line with broken ones does not match.
  static const RE2 MESSAGE(R"(\s*(\d+)\s*=[ \t]*(.*?)\r?)");
  static const RE2 PASSED_OVER(R"(\s*(;.*)?)");
  m_Texts.clear();
  m_RejectedLines = 0;
  std::string text;
  unsigned int number = 0;
  for (std::string line; std::getline(stream, line);) {
    if (RE2::FullMatch(line, MESSAGE, &number, &text))
      m_Texts[number] = Unescape(text);
    else if (!RE2::FullMatch(line, PASSED_OVER))
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
