#pragma once
/// @file
/// The plug-in's object model. Plain values; an object of the instance may be touched only under its
/// m_DataLock.

#include <cstdint>
#include <string>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "KVT/Markup.h"
#include "PI/Object.h"
#include "Src/md/Members.h"

namespace NAMESPACE_piRVX {

/// The plug-in itself.
class CRVXPlugin : public PI::CObject {};

/// The one virtual adapter that stands for Linux md.
class CRVXAdapter : public PI::CObject {
 public:
  std::string m_Name;
  std::string m_Description;
  std::string m_DeviceKeyPrefix;
  std::string m_ExtraText;  ///< reported only when not empty
  std::uint64_t m_Location1{0};
  std::uint64_t m_Location2{0};
  std::uint64_t m_Location3{0};
  std::uint64_t m_MaxPhysicalDrives{0};
  std::uint64_t m_MaxLogicalDrives{0};
  std::uint32_t m_Status{0};
  std::int32_t m_Attribute{0};
  std::vector<int> m_AttributeList;
  bool m_ProgressWatch{false};  ///< an array rebuilds or resyncs: its progress is followed in /proc/mdstat

  /// What a scan fills, the identifier apart: compared and taken over by the merge. The three location
  /// numbers are not the scan's.
  auto ScannedFields() {
    return std::tie(m_Name, m_Description, m_DeviceKeyPrefix, m_ExtraText, m_MaxPhysicalDrives,
                    m_MaxLogicalDrives, m_Status, m_Attribute, m_AttributeList, m_ProgressWatch);
  }
};

/// A whole disk on a supported controller. Sizes are in KiB.
class CRVXPhysicalDrive : public PI::CObject {
 public:
  static constexpr std::int32_t NO_ARRAY = -1;

  std::uint32_t m_MajorNumber{0};
  std::uint32_t m_MinorNumber{0};
  std::uint32_t m_DriveNumber{0};  ///< running number of the scan
  std::string m_Vendor{"Linux"};
  std::string m_Model{"BLKDEV"};
  std::string m_DisplayName;
  std::string m_KernelName;  ///< such as "sda"
  std::string m_DeviceKey;
  std::uint64_t m_Size{0};
  std::uint64_t m_UsableSize{0};  ///< room for array data; 0 while it is a spare
  std::uint32_t m_Status{PI::STATUS_READY};
  std::uint32_t m_Activity{PI::ACTIVITY_NONE};
  std::uint32_t m_SpareState{PI::SPARE_STATE_FREE};
  std::int32_t m_IsMemberOf{NO_ARRAY};  ///< array number
  std::uint32_t m_Attachment{PI::ATTACHMENT_OTHER};
  std::uint32_t m_Medium{PI::MEDIUM_ROTATING};

  std::string DevicePath() const { return "/dev/" + m_KernelName; }
  auto ScannedFields() {
    return std::tie(m_MajorNumber, m_MinorNumber, m_DriveNumber, m_Vendor, m_Model, m_DisplayName,
                    m_KernelName, m_DeviceKey, m_Size, m_UsableSize, m_Status, m_Activity, m_SpareState,
                    m_IsMemberOf, m_Attachment, m_Medium);
  }
};

/// An md array. Its child identifiers are its members. Sizes are in KiB.
class CRVXLogicalDrive : public PI::CObject {
 public:
  std::uint32_t m_ArrayNumber{0xFFFFFFFFU};  ///< the digits of its name
  std::string m_KernelName;                  ///< such as "md0" or "md_d0"
  std::string m_DeviceKey;
  std::uint64_t m_PhysicalSize{0};  ///< blocks of the array's device
  std::uint64_t m_LogicalSize{0};   ///< sum of its members
  std::uint32_t m_RaidLevel{PI::LEVEL_CONCATENATION};
  std::uint32_t m_StripeSize{PI::STRIPE_64K};
  std::uint32_t m_Status{PI::STATUS_OK};
  std::uint32_t m_Activity{PI::ACTIVITY_NONE};
  std::uint32_t m_Progress{0};  ///< percent of the running rebuild or resync
  KVT::XML::CMarkup m_Configuration;

  std::string DevicePath() const { return "/dev/" + m_KernelName; }
  /// As for the drives; the configuration document is compared beside it, as text.
  auto ScannedFields() {
    return std::tie(m_ArrayNumber, m_KernelName, m_DeviceKey, m_PhysicalSize, m_LogicalSize, m_RaidLevel,
                    m_StripeSize, m_Status, m_Activity, m_Progress, m_Children);
  }
};

/// What stands in `arrays` for the md array of this number and name: the one of that name, else the first of
/// that number unless `isOther` says that its name belongs to another array. Two arrays may share a number
/// (md0 and md_d0), and one may come back under its other name. Null when there is none.
template <class TArrays, class TIsOther>
auto FindCounterpart(TArrays& arrays, std::uint32_t number, const std::string& name, TIsOther isOther)
    -> decltype(&arrays.front()) {
  decltype(&arrays.front()) found = nullptr;
  for (auto& array : arrays) {
    if (array.m_ArrayNumber != number) continue;
    if (array.m_KernelName == name) return &array;
    if (found == nullptr && !isOther(array.m_KernelName)) found = &array;
  }
  return found;
}

/// The drive with these device numbers; null when there is none.
inline CRVXPhysicalDrive* FindDevice(std::vector<CRVXPhysicalDrive>& drives, std::uint32_t major,
                                     std::uint32_t minor) {
  for (CRVXPhysicalDrive& drive : drives)
    if (drive.m_MajorNumber == major && drive.m_MinorNumber == minor) return &drive;
  return nullptr;
}

/// Finds drives by their device numbers without a look at each; of two with the same, the first. The list may
/// not change meanwhile.
class CDriveIndex {
 public:
  explicit CDriveIndex(std::vector<CRVXPhysicalDrive>& drives) {
    m_Drives.reserve(drives.size());
    for (CRVXPhysicalDrive& drive : drives)
      m_Drives.try_emplace(Key(drive.m_MajorNumber, drive.m_MinorNumber), &drive);
  }
  /// Null when there is none.
  CRVXPhysicalDrive* Find(std::uint32_t major, std::uint32_t minor) const {
    const auto found = m_Drives.find(Key(major, minor));
    return found == m_Drives.end() ? nullptr : found->second;
  }

 private:
  static std::uint64_t Key(std::uint32_t major, std::uint32_t minor) {
    return std::uint64_t{major} << 32 | minor;
  }

  std::unordered_map<std::uint64_t, CRVXPhysicalDrive*> m_Drives;
};

/// A drive as events name it: kernel name and device numbers.
inline std::string NameAndNumbers(const CRVXPhysicalDrive& drive) {
  return drive.m_KernelName + ' ' + std::to_string(drive.m_MajorNumber) + ':' +
         std::to_string(drive.m_MinorNumber);
}

/// The first drive that a member lies on: a partition counts as its whole disk, 16 minors each. Null when
/// none does.
inline CRVXPhysicalDrive* FindMemberDrive(std::vector<CRVXPhysicalDrive>& drives,
                                          const mdu_disk_info_s& disk) {
  // An empty slot, as most are in a walk over all disk numbers: no drive needs to be looked at.
  if (disk.major == 0 && disk.minor == 0) return nullptr;
  return FindDevice(drives, static_cast<std::uint32_t>(disk.major),
                    static_cast<std::uint32_t>(disk.minor / 16 * 16));
}

/// A block device as sysfs shows it. The discovery reads sysfs anew on every scan and keeps none.
struct CSysFSEntry {
  std::string m_KernelName;
  std::string m_Path;
};

}  // namespace NAMESPACE_piRVX
