#pragma once
/// @file
/// The sockets: handed over by the service manager, or made.

#include <string>

#include "libraries/common/FileDescriptor.h"

namespace Rvxd {

struct SSockets {
  KVT::Internal::CFileDescriptor m_Changing;
  KVT::Internal::CFileDescriptor m_Reading;
  KVT::Internal::CFileDescriptor m_Metrics;
  std::string m_Where{"the sockets of the service manager"};  ///< for people
};

/// "/run/rvx/rvxd.sock" has "/run/rvx/rvxd-ro.sock" beside it.
std::string ReadingPath(const std::string& path);

/// Those that the service manager names "rvxd", "rvxd-ro" and "rvxd-metrics"; without any, the first two are
/// made at `path`, in place of what a killed rvxd left there. `metrics` is "127.0.0.1:9634", or empty: it is
/// listened there where no socket for metrics was handed over. Throws Host::CError, also where somebody
/// listens already or the address is not the machine's own alone.
SSockets OpenSockets(const std::string& path, const std::string& metrics);

}  // namespace Rvxd
