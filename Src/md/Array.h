#pragma once
/// @file
/// md's requests on an array.

#include <linux/ioctl.h>
#include <linux/major.h>

#include <algorithm>
#include <cstdint>
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
  /// The records of the numbers below `bound`, as a range. md is asked for each when it is looked at.
  class CDisks;
  CDisks Disks(int bound = MAX_MEMBERS) const;

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

class CArray::CDisks {
 public:
  CDisks(const CArray& array, int bound) : m_Array(array), m_Bound(std::max(bound, 0)) {}

  struct SIterator {
    const CArray* m_Array;
    int m_Number;
    TDisk operator*() const { return m_Array->Disk(m_Number); }
    SIterator& operator++() { return ++m_Number, *this; }
    bool operator==(const SIterator&) const = default;
  };
  SIterator begin() const { return {&m_Array, 0}; }
  SIterator end() const { return {&m_Array, m_Bound}; }

 private:
  const CArray& m_Array;
  int m_Bound;
};

inline CArray::CDisks CArray::Disks(int bound) const { return {*this, bound}; }

}  // namespace Md
