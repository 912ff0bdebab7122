#pragma once

#include <unistd.h>

#include <utility>

#include "libraries/common/CancellationGuard.h"

namespace KVT::Internal {

/// Owner of an open file descriptor; -1: none.
class CFileDescriptor {
 public:
  explicit CFileDescriptor(int descriptor = -1) : m_Descriptor(descriptor) {}
  CFileDescriptor(CFileDescriptor&& other) noexcept : m_Descriptor(std::exchange(other.m_Descriptor, -1)) {}
  CFileDescriptor& operator=(CFileDescriptor&& other) noexcept {
    std::swap(m_Descriptor, other.m_Descriptor);
    return *this;
  }
  ~CFileDescriptor() { Close(); }

  int Get() const { return m_Descriptor; }
  bool IsOpen() const { return m_Descriptor >= 0; }
  /// True when nothing was open or it was closed without an error.
  bool Close() {
    const CCancellationGuard noCancel;
    const int descriptor = std::exchange(m_Descriptor, -1);
    return descriptor < 0 || close(descriptor) == 0;
  }

 private:
  int m_Descriptor;
};

}  // namespace KVT::Internal
