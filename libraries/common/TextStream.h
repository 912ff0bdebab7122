#pragma once

#include <locale>
#include <sstream>
#include <string>

namespace KVT::Internal {

/// A text as a stream that reads it alike whatever global locale the server has set.
inline std::istringstream TextStream(const std::string& text) {
  std::istringstream stream(text);
  stream.imbue(std::locale::classic());
  return stream;
}

}  // namespace KVT::Internal
