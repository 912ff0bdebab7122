#pragma once
/// @file
/// One program at a time changes a machine's arrays: rvxd as long as it runs, rvxctl during a change.

#include <string>

#include "libraries/common/FileDescriptor.h"

namespace Host {

/// Of this machine; a simulated one has a lock of its own, or none.
constexpr char WRITER_LOCK[] = "/run/rvx/writer.lock";

/// Held as long as the descriptor is open. Makes the file and its folder. Throws CError(EXIT_BUSY), which
/// says who holds it.
/// @param who asks, for the message to others: "rvxctl"
KVT::Internal::CFileDescriptor LockWriter(const std::string& file, const std::string& who);

}  // namespace Host
