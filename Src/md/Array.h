#pragma once
/// @file
/// md's requests on an array.

#include <linux/ioctl.h>
#include <linux/major.h>
#include <sys/types.h>

#include <ranges>
#include <string>

#include "Src/md/Members.h"
#include "system/Descriptor.h"

namespace Md {

/// An array's device, open for as long as this lives. Requests that fail say why in errno. Not for several
/// threads at once.
class CArray {
 public:
  CArray(OS::COperatingSystem& os, const std::string& path) : m_OS(os), m_Device(os, path, O_RDONLY) {}

  bool IsOpen() const { return m_Device.IsOpen(); }
  void Close() { m_Device.Close(); }
  /// md's record of the array; none for one that is not set up.
  std::optional<mdu_array_info_s> Info() const;
  TDisk Disk(int number) const;
  /// The records of the numbers below `bound`. md is asked for each when it is looked at.
  auto Disks(int bound = MAX_MEMBERS) const {
    return std::views::iota(0, bound) | std::views::transform([this](int number) { return Disk(number); });
  }

  bool SetInfo(mdu_array_info_s info) { return Request(SET_ARRAY_INFO, &info); }
  bool Add(mdu_disk_info_s disk) { return Request(ADD_NEW_DISK, &disk); }
  bool Remove(dev_t device) { return Request(HOT_REMOVE_DISK, Number(device)); }
  bool Fail(dev_t device) { return Request(SET_DISK_FAULTY, Number(device)); }
  bool Run();
  bool Stop() { return Request(STOP_ARRAY, nullptr); }

 private:
  /// A device as md takes it in place of a pointer: the kernel's 32-bit form.
  static void* Number(dev_t device) {
    return reinterpret_cast<void*>(static_cast<std::uintptr_t>(static_cast<std::uint32_t>(device)));
  }
  bool Request(unsigned long request, void* argument) const {
    return IsOpen() && m_OS.Ioctl(m_Device.Get(), request, argument) >= 0;
  }

  OS::COperatingSystem& m_OS;
  OS::CBlockDevice m_Device;
};

}  // namespace Md
