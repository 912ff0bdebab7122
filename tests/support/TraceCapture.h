#pragma once

#include <boost/filesystem.hpp>
#include <boost/filesystem/string_file.hpp>
#include <sstream>
#include <string>

#include "Src/piRVXTrace.h"

namespace NAMESPACE_piRVX {

inline std::string FileText(const boost::filesystem::path& file) {
  std::string text;
  boost::filesystem::load_string_file(file, text);
  return text;
}

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

  std::string Text() const { return FileText(m_File); }
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
  boost::filesystem::path m_File{boost::filesystem::temp_directory_path() /
                                 boost::filesystem::unique_path("rvx-trace-%%%%%%%%")};
};

}  // namespace NAMESPACE_piRVX
