#pragma once

#include <sstream>
#include <string>

#include "Src/piRVXTrace.h"
#include "tests/support/TemporaryFolder.h"

namespace NAMESPACE_piRVX {

/// Collects trace lines of the chosen classes in a file while it lives.
class CTraceCapture {
 public:
  explicit CTraceCapture(unsigned int classes) {
    KVT::Trace::SetOutput(KVT::Trace::EOutput::File, m_File);
    KVT_MODULE_INFO_piRVX.SetTraceClasses(classes);
  }
  ~CTraceCapture() {
    KVT_MODULE_INFO_piRVX.SetTraceClasses(0);
    KVT::Trace::SetOutput(KVT::Trace::EOutput::StandardError);
  }

  std::string Text() const { return ReadFile(m_File); }
  std::size_t Count(const std::string& part) const {
    return Lines([&](const std::string& line) { return line.find(part) != std::string::npos; });
  }
  /// Whether a line of this source tag ends with the text.
  bool Shows(const std::string& source, const std::string& text) const {
    return Lines([&](const std::string& line) {
             return line.ends_with(" " + text) && line.find(source + ":") != std::string::npos;
           }) != 0;
  }

 private:
  std::size_t Lines(auto which) const {
    std::istringstream lines(Text());
    std::size_t count = 0;
    for (std::string line; std::getline(lines, line);) count += which(line);
    return count;
  }
  const CTemporaryFolder m_Folder;
  const std::string m_File = m_Folder.Path("trace");
};

}  // namespace NAMESPACE_piRVX
