#pragma once
/// @file
/// What ATA disks tell of themselves.

#include <array>
#include <optional>
#include <string>

#include "system/OperatingSystem.h"

namespace Md {

/// What the ATA command SMART READ DATA returns.
using TSmartBlock = std::array<unsigned char, 512>;
/// Asks a disk; none when it does not answer, with errno. A disk that hangs holds the caller up: the command
/// is no cancellation point.
std::optional<TSmartBlock> ReadSmartBlock(OS::COperatingSystem& os, const std::string& devicePath);

}  // namespace Md
