#include "KVT/Regex.h"

#include <re2/re2.h>

#include <stdexcept>

namespace KVT {
namespace {

/// Length of a class name such as "[:digit:]" at the beginning of `text`; 0 when there is none.
std::size_t ClassLength(std::string_view text) {
  static const RE2 CLASS(R"((\[:\^?[a-z]+:\]))");
  re2::StringPiece found;
  const re2::StringPiece input(text.data(), text.size());
  return CLASS.Match(input, 0, input.size(), RE2::ANCHOR_START, &found, 1) ? found.size() : 0;
}

/// Length of a bracket list such as "[]a-f[:digit:]]" at the beginning of `text`; of all of it when the list
/// has no end (the compiler then says so).
std::size_t ListLength(std::string_view text) {
  std::size_t at = text.starts_with("[^") ? 2 : 1;
  if (at < text.size() && text[at] == ']') ++at;  // as the first character it is an ordinary one
  while (at < text.size() && text[at] != ']') {
    const std::size_t length = ClassLength(text.substr(at));
    at += length != 0 ? length : text[at] == '\\' ? 2 : 1;
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

RE2::Options ExtendedSyntax() {
  RE2::Options options;
  options.set_posix_syntax(true);
  options.set_one_line(true);  // ^ and $ are the ends of the text, not of its lines
  options.set_log_errors(false);
  return options;
}

}  // namespace

struct Regex::SImplementation {
  explicit SImplementation(const std::string& pattern) : m_Pattern(Translate(pattern), ExtendedSyntax()) {}
  RE2 m_Pattern;
};

Regex::Regex(const std::string& pattern) : m_Implementation(std::make_unique<SImplementation>(pattern)) {
  const RE2& compiled = m_Implementation->m_Pattern;
  if (!compiled.ok()) throw std::invalid_argument("pattern \"" + pattern + "\": " + compiled.error());
}

Regex::~Regex() = default;

std::optional<std::vector<std::string>> Regex::Match(const std::string& text) const {
  const RE2& pattern = m_Implementation->m_Pattern;
  std::vector<re2::StringPiece> found(static_cast<std::size_t>(pattern.NumberOfCapturingGroups()) + 1);
  if (!pattern.Match(text, 0, text.size(), RE2::ANCHOR_BOTH, found.data(), static_cast<int>(found.size())))
    return std::nullopt;
  std::vector<std::string> groups;
  for (std::size_t i = 1; i < found.size(); ++i) groups.push_back(found[i].as_string());
  return groups;
}

}  // namespace KVT
