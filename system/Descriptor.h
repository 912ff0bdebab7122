#pragma once

#include <string>
#include <utility>

#include "system/OperatingSystem.h"

namespace OS {

/// An open file that is closed on every way out. errno of the failed call survives the closing.
class CDescriptor {
 public:
  CDescriptor(COperatingSystem& os, const std::string& path, int flags)
      : CDescriptor(os, os.Open(path, flags)) {}
  ~CDescriptor() { Close(); }
  CDescriptor(const CDescriptor&) = delete;
  CDescriptor& operator=(const CDescriptor&) = delete;

  bool IsOpen() const { return m_Descriptor >= 0; }
  int Get() const { return m_Descriptor; }
  /// Closes before the scope ends.
  void Close() {
    if (const int descriptor = std::exchange(m_Descriptor, -1); descriptor >= 0) m_OS.Close(descriptor);
  }

 protected:
  CDescriptor(COperatingSystem& os, int descriptor) : m_OS(os), m_Descriptor(descriptor) {}

 private:
  COperatingSystem& m_OS;
  int m_Descriptor;
};

/// The same of a block device. What is none stays closed, with ENOTBLK in errno: a FIFO in its place would
/// hold its opener for ever.
class CBlockDevice : public CDescriptor {
 public:
  CBlockDevice(COperatingSystem& os, const std::string& path, int flags)
      : CDescriptor(os, OpenBlockDevice(os, path, flags)) {}

 private:
  static int OpenBlockDevice(COperatingSystem& os, const std::string& path, int flags);
};

/// The device number of a block device's node: of the opened node, else of the path; none when both fail,
/// with errno.
std::optional<dev_t> DeviceNumber(COperatingSystem& os, const std::string& path);

/// The text of a file, at most 1 MiB; none when it cannot be opened or read.
std::optional<std::string> ReadText(COperatingSystem& os, const std::string& path);

}  // namespace OS
