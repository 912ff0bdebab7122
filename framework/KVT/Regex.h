#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "KVT/Api.h"

namespace KVT {

/// A compiled pattern of the toolkit's syntax: extended regular expressions in which a character class such
/// as "[:digit:]" may also stand by itself, outside a bracket list, and then means one character of the
/// class.
class ZQ_API Regex {
 public:
  /// Throws std::invalid_argument for a pattern that cannot be compiled.
  explicit Regex(const std::string& pattern);
  ~Regex();
  Regex(const Regex&) = delete;
  Regex& operator=(const Regex&) = delete;

  /// Matches the whole text. The result holds the text of each group in order (none when it does not match).
  /// May be called from several threads at once.
  std::optional<std::vector<std::string>> Match(const std::string& text) const;

 private:
  struct SImplementation;
  std::unique_ptr<SImplementation> m_Implementation;
};

}  // namespace KVT
