#pragma once
/// @file
/// Message catalogues: the texts behind the numbers.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "KVT/Api.h"

namespace KVT::Language_Support {

class ZQ_API CLanguageSupport {
 public:
  /// A message catalogue in one language. The file is UTF-8 text, one message a line as `NUMBER = TEXT`;
  /// lines that begin with `;` and blank lines are passed over, "\n" and "\\" are understood in a text.
  /// It is looked for in ZQ_CATALOG_DIR (unless that is unset or empty, or the program runs with more rights
  /// than whoever started it), else in the folder that the libraries were installed with (PREFIX/share/zq); a
  /// folder named by the language code ("en") in there comes first.
  class ZQ_API CLngFile {
   public:
    /// @param fileName catalogue's name, such as "piRVX.nls"
    /// @param language two-character code held in one 16-bit value, first character in the low byte
    /// @param encoding "utf-8" is the only one known
    /// @param fallback texts 0, 1, ... that are there when the file is not
    CLngFile(std::string fileName, std::uint16_t language, std::string encoding,
             std::vector<std::string> fallback);

    /// Reads the catalogue; false when there is none or it is in another encoding. Unreadable lines are
    /// passed over and counted by `GetRejectedLines`.
    bool Load();
    /// The text behind a number: the catalogue's, else the fallback's, else none.
    std::optional<std::string> GetText(unsigned int number) const;
    std::size_t GetRejectedLines() const { return m_RejectedLines; }

   private:
    std::string m_FileName;
    std::uint16_t m_Language;
    std::string m_Encoding;
    std::vector<std::string> m_Fallback;
    std::map<unsigned int, std::string> m_Texts;
    std::size_t m_RejectedLines{0};
  };
};

}  // namespace KVT::Language_Support
