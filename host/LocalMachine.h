#pragma once
/// @file
/// The facts that rvxctl reads by itself about the machine it runs on: for what it tells people, never for
/// what it has done.

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "libraries/common/FileDescriptor.h"

namespace rvxctl {

/// This base knows nothing, as is right beside a simulated machine, whose disks are not here.
class CLocalMachine {
 public:
  virtual ~CLocalMachine() = default;
  /// udev's serial number of a device; empty when it knows none.
  virtual std::string SerialOf(const std::string& /*device*/) const { return {}; }
  /// What is known to be on a device: signatures, partitions and what is on them, where they are mounted. Fit
  /// for a terminal.
  virtual std::vector<std::string> ContentsOf(const std::string& /*device*/) const { return {}; }
  /// The PCI controllers that disks hang on: "ahci (0000:00:1f.2, vendor 0x8086)".
  virtual std::optional<std::set<std::string>> Controllers() const { return std::nullopt; }
  /// md's account of its arrays; empty when md is not in the kernel.
  virtual std::optional<std::string> MdStat() const { return std::nullopt; }
  /// A file whose exceptional condition says that md has changed since this call; none when nothing says so.
  virtual KVT::Internal::CFileDescriptor WatchMd() const { return KVT::Internal::CFileDescriptor(); }
};

/// This machine, or the one that knows nothing.
std::unique_ptr<const CLocalMachine> MakeLocalMachine(bool simulated);

}  // namespace rvxctl
