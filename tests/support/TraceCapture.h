#pragma once
/// @file

#include <boost/filesystem.hpp>
#include <boost/filesystem/string_file.hpp>
#include <string>

#include "Src/piRVXTrace.h"

namespace NAMESPACE_piRVX {

/// Collects trace lines of the chosen classes in a file while it lives.
class CTraceCapture {
 public:
  explicit CTraceCapture(unsigned int classes) {
    KVT::Trace::SetOutput(KVT::Trace::EOutput::File, m_File.string());
    KVT_MODULE_INFO_piRVX.SetTraceClasses(classes);
  }
  ~CTraceCapture() {
    KVT_MODULE_INFO_piRVX.SetTraceClasses(0);
    KVT::Trace::SetOutput(KVT::Trace::EOutput::StandardError);
    boost::filesystem::remove(m_File);
  }
  CTraceCapture(const CTraceCapture&) = delete;
  CTraceCapture& operator=(const CTraceCapture&) = delete;

  std::string Text() const {
    std::string text;
    boost::filesystem::load_string_file(m_File, text);
    return text;
  }
  /// Whether a line of this source tag ends with the text.
  bool Shows(const std::string& source, const std::string& text) const {
    const std::string all = Text();
    for (std::size_t at = all.find(" " + text + "\n"); at != std::string::npos;
         at = all.find(" " + text + "\n", at + 1)) {
      const std::size_t start = all.rfind('\n', at) + 1;
      if (all.substr(start, at - start).find(source + ":") != std::string::npos) return true;
    }
    return false;
  }

 private:
  boost::filesystem::path m_File{boost::filesystem::temp_directory_path() /
                                 boost::filesystem::unique_path("rvx-trace-%%%%%%%%")};
};

}  // namespace NAMESPACE_piRVX
