#pragma once

#include <optional>
#include <string>
#include <vector>

#include "KVT/Api.h"

namespace KVTX::Internal {

/// What "udevadm info -q all -n NODE" prints about a block device, from libudev: one kind of lines after the
/// other as udevadm has them, those of one kind by name. The priority of links ("L:"), which libudev keeps to
/// itself, is left out. A record is read again when the device or udev's notes of it are others than before.
/// Not interrupted by a cancellation; for several threads at once.
/// @return none when libudev does not know the node; udevadm then says why
ZQ_API std::optional<std::vector<std::string>> DeviceRecord(const std::string& node);

}  // namespace KVTX::Internal
