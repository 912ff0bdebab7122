#pragma once
/// @file

#include <string>
#include <utility>

#include "system/OperatingSystem.h"

namespace NAMESPACE_piRVX {

/// An open file that is closed on every way out. errno of the failed call survives the closing.
class CDescriptor {
 public:
  CDescriptor(COperatingSystem& os, const std::string& path, int flags)
      : m_OS(os), m_Descriptor(os.Open(path, flags)) {}
  ~CDescriptor() { Close(); }
  CDescriptor(const CDescriptor&) = delete;
  CDescriptor& operator=(const CDescriptor&) = delete;

  bool IsOpen() const { return m_Descriptor >= 0; }
  int Get() const { return m_Descriptor; }
  /// Closes before the scope ends.
  void Close() {
    if (const int descriptor = std::exchange(m_Descriptor, -1); descriptor >= 0) m_OS.Close(descriptor);
  }

 private:
  COperatingSystem& m_OS;
  int m_Descriptor;
};

/// The text of a file, at most 1 MiB; none when it cannot be opened or read.
std::optional<std::string> ReadText(COperatingSystem& os, const std::string& path);

}  // namespace NAMESPACE_piRVX
