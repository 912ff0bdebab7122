#pragma once
/// @file
/// The two sockets: handed over by the service manager, or made.

#include <string>

#include "libraries/common/FileDescriptor.h"

namespace Rvxd {

struct SSockets {
  KVT::Internal::CFileDescriptor m_Changing;
  KVT::Internal::CFileDescriptor m_Reading;
  std::string m_Where{"the sockets of the service manager"};  ///< for people
};

/// "/run/rvx/rvxd.sock" has "/run/rvx/rvxd-ro.sock" beside it.
std::string ReadingPath(const std::string& path);

/// Those that the service manager names "rvxd" and "rvxd-ro"; without any, both are made at `path`, in place
/// of what a killed rvxd left there. Throws Host::CError, also where somebody listens already.
SSockets OpenSockets(const std::string& path);

}  // namespace Rvxd
