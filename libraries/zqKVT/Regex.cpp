#include "KVT/Regex.h"

#include <regex.h>

#include <clocale>
#include <new>
#include <stdexcept>

namespace KVT {
namespace {

/// Length of a class name such as "[:digit:]" at the beginning of `text`; 0 when there is none.
std::size_t ClassLength(std::string_view text) {
  constexpr std::string_view LETTERS = "abcdefghijklmnopqrstuvwxyz";
  if (!text.starts_with("[:")) return 0;
  const std::size_t end = text.find_first_not_of(LETTERS, 2);
  return end != std::string_view::npos && text.substr(end).starts_with(":]") ? end + 2 : 0;
}

/// Length of a bracket list such as "[]a-f[:digit:]]" at the beginning of `text`; of all of it when the list
/// has no end (the compiler then says so).
std::size_t ListLength(std::string_view text) {
  std::size_t at = text.starts_with("[^") ? 2 : 1;
  if (at < text.size() && text[at] == ']') ++at;  // as the first character it is an ordinary one
  while (at < text.size() && text[at] != ']') {
    const std::size_t length = ClassLength(text.substr(at));
    at += length != 0 ? length : 1;
  }
  return std::min(at + 1, text.size());
}

/// The toolkit's syntax in the library's: a class name that stands by itself gets its brackets.
std::string Translate(std::string_view pattern) {
  std::string result;
  while (!pattern.empty()) {
    std::size_t length = ClassLength(pattern);
    if (length != 0) {
      result.append("[").append(pattern.substr(0, length)).append("]");
    } else {
      length = pattern[0] == '[' ? ListLength(pattern) : pattern[0] == '\\' ? 2 : 1;
      result.append(pattern.substr(0, length));
    }
    pattern.remove_prefix(std::min(length, pattern.size()));
  }
  return result;
}

/// Ranges and classes are those of ASCII for as long as it lives, whatever locale the server has set.
class CPlainLocale {
 public:
  CPlainLocale() {
    static locale_t const plain = newlocale(LC_ALL_MASK, "C", nullptr);
    m_Before = uselocale(plain);
  }
  ~CPlainLocale() { uselocale(m_Before); }
  CPlainLocale(const CPlainLocale&) = delete;
  CPlainLocale& operator=(const CPlainLocale&) = delete;

 private:
  locale_t m_Before;
};

}  // namespace

struct Regex::SImplementation {
  explicit SImplementation(const std::string& pattern) {
    const CPlainLocale plain;
    m_Error = regcomp(&m_Pattern, Translate(pattern).c_str(), REG_EXTENDED);
  }
  ~SImplementation() {
    if (m_Error == 0) regfree(&m_Pattern);
  }
  SImplementation(const SImplementation&) = delete;
  SImplementation& operator=(const SImplementation&) = delete;

  regex_t m_Pattern{};
  int m_Error{0};
};

Regex::Regex(const std::string& pattern) : m_Implementation(std::make_unique<SImplementation>(pattern)) {
  if (m_Implementation->m_Error == 0) return;
  if (m_Implementation->m_Error == REG_ESPACE) throw std::bad_alloc();
  char why[128] = "";
  regerror(m_Implementation->m_Error, &m_Implementation->m_Pattern, why, sizeof(why));
  throw std::invalid_argument("pattern \"" + pattern + "\": " + why);
}

Regex::~Regex() = default;

std::optional<std::vector<std::string>> Regex::Match(const std::string& text) const {
  const regex_t& pattern = m_Implementation->m_Pattern;
  std::vector<regmatch_t> found(pattern.re_nsub + 1);
  const CPlainLocale plain;
  const int error = regexec(&pattern, text.c_str(), found.size(), found.data(), 0);
  if (error == REG_ESPACE) throw std::bad_alloc();
  // The leftmost and longest match: when the pattern can match all of the text, that is it.
  if (error != 0 || found[0].rm_so != 0 || found[0].rm_eo != static_cast<regoff_t>(text.size()))
    return std::nullopt;
  std::vector<std::string> groups;
  for (std::size_t i = 1; i < found.size(); ++i) {
    const auto begin = static_cast<std::size_t>(found[i].rm_so);
    groups.push_back(
        found[i].rm_so < 0 ? "" : text.substr(begin, static_cast<std::size_t>(found[i].rm_eo) - begin));
  }
  return groups;
}

}  // namespace KVT
