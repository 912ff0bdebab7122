/// @file
/// When a drive is asked for SMART data, and when what it said last will do.

#include "Src/piRVXPhysicalDriveSmart.h"

#include <algorithm>
#include <mutex>

#include "Src/md/Ata.h"

namespace NAMESPACE_piRVX {

std::vector<CCachedSmartData>& gSmartData = *new std::vector<CCachedSmartData>;

namespace {
constexpr std::uint64_t SMART_MAX_AGE = 300000;  ///< ms
}  // namespace

PI::CSmartValues ReadSmartValues(OS::COperatingSystem& os, const CRVXPhysicalDrive& drive) {
  PI::CSmartValues values(drive.m_Vendor, drive.m_Model);
  // Solid-state disks only, whether or not others would answer.
  if (drive.m_Attachment != PI::ATTACHMENT_ATA || drive.m_Medium != PI::MEDIUM_SOLID_STATE) return values;
  PI::_IDE_SMART_DATA data{};
  if (values.IsSupported() && GetSmartData(os, drive.DevicePath(), data) == PI::OK) values.Evaluate(data);
  return values;
}

unsigned int GetSmartData(OS::COperatingSystem& os, const std::string& devicePath,
                          PI::_IDE_SMART_DATA& data) {
  static std::mutex s_Lock;  // never held while a disk is asked
  const auto find = [&] {
    return std::find_if(gSmartData.begin(), gSmartData.end(),
                        [&](const CCachedSmartData& cached) { return cached.m_DevicePath == devicePath; });
  };
  {
    const std::lock_guard guard(s_Lock);
    if (const auto entry = find(); entry != gSmartData.end()) {
      data = entry->m_Data;
      if (os.Now() - entry->m_Time <= SMART_MAX_AGE) return PI::OK;
    }
  }
  const auto block = Md::ReadSmartBlock(os, devicePath);
  if (!block) return PI::ERR_GENERAL;
  data.m_Bytes = *block;
  const std::lock_guard guard(s_Lock);
  if (const auto entry = find(); entry != gSmartData.end()) {
    entry->m_Time = os.Now();
    entry->m_Data = data;
  } else {
    gSmartData.push_back({devicePath, os.Now(), data});
  }
  return PI::OK;
}

}  // namespace NAMESPACE_piRVX
