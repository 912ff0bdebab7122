#pragma once
/// @file
/// The facts that rvxctl reads by itself about the machine the plug-in works on, the simulated one too: for
/// what it tells people and refuses, never for what it has done.

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "libraries/common/FileDescriptor.h"
#include "system/OperatingSystem.h"

namespace Host {

/// What kernel and udev know of a block device.
struct SDeviceFacts {
  std::string m_Number;    ///< "8:16"; empty: there is no such device
  std::string m_Sequence;  ///< another device under the same name has another; empty: not told
  std::optional<std::uint64_t> m_Bytes{};
  std::string m_Serial;  ///< empty, as those below: not known
  std::string m_WWN;
  std::string m_Address;            ///< host:channel:target:lun
  std::vector<std::string> m_ByID;  ///< full paths, sorted
  bool operator==(const SDeviceFacts&) const = default;
};

/// What is on a block device and its partitions.
struct SContents {
  std::vector<std::string> m_All;    ///< signatures, partitions, mounts, holders: "ext4 signature", ...
  std::vector<std::string> m_InUse;  ///< of it what keeps the device from a change: "sda1 is mounted at /srv"
  bool m_IsReadable{true};           ///< else nobody knows what is on it
  bool operator==(const SContents&) const = default;
};

class CMachine {
 public:
  /// `isHere`: it is the machine this program runs on, and what has no place in COperatingSystem may be asked
  /// of it.
  CMachine(OS::COperatingSystem& os, bool isHere) : m_OS(os), m_IsHere(isHere) {}

  SDeviceFacts Facts(const std::string& device) const;
  SContents Contents(const std::string& device) const;
  /// Whether there is such a device.
  bool Has(const std::string& device) const;
  /// The PCI controllers that disks hang on: "ahci (0000:00:1f.2, vendor 0x8086)"; none when not known.
  std::optional<std::set<std::string>> Controllers() const;
  /// When the kernel made a device, in seconds since 1970; none when udev has not seen it.
  std::optional<std::uint64_t> MadeAt(const std::string& device) const;
  /// A short file's text without the line's end, such as an attribute of sysfs; none when it cannot be read.
  std::optional<std::string> Line(const std::string& path) const;
  /// md's account of its arrays; none when md is not in the kernel.
  std::optional<std::string> MdStat() const;
  /// Whether a program ends well; none when it is not there.
  std::optional<bool> Runs(const std::string& program, const std::string& arguments) const;
  /// A file whose exceptional condition says that md has changed since this call; none when nothing says so.
  KVT::Internal::CFileDescriptor WatchMd() const;
  bool IsHere() const { return m_IsHere; }
  OS::COperatingSystem& System() const { return m_OS; }

 private:
  /// What udev keeps of a device.
  std::vector<std::string> UdevRecord(const std::string& device) const;
  /// None when the device cannot be read: it is failing, asleep, or does not run.
  std::optional<std::vector<std::string>> Signatures(const std::string& device) const;
  std::vector<std::string> Holders(const std::string& device) const;

  OS::COperatingSystem& m_OS;
  bool m_IsHere;
};

}  // namespace Host
