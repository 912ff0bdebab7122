/// @file
/// Properties of physical drives.

#include <algorithm>

#include "Src/md/Superblock.h"
#include "Src/piRVXPhysicalDriveSmart.h"
#include "Src/piRVXPlugin.h"
#include "Src/piRVXProperties.h"
#include "Src/piRVXTrace.h"

namespace NAMESPACE_piRVX {

namespace {

constexpr char TRACE_SOURCE[] = "Src/piRVXPhysicalDrive";

constexpr unsigned int HIDDEN = 0;
constexpr unsigned int FRACTION_FORMAT = 8;
constexpr std::uint64_t MS_PER_HOUR = 3600000;

struct SDriveView {
  const CRVXPhysicalDrive& m_Drive;
  PI::CSmartValues m_Smart;  ///< all ones where SMART tells nothing
  std::uint64_t m_Now;       ///< ms since 1970
};
using Row = SPropertyRow<SDriveView>;

/// Status texts by medium.
constexpr struct SStatusText {
  std::uint32_t m_Status;
  unsigned int m_SolidState;
  unsigned int m_Other;
} STATUS_TEXTS[] = {
    {PI::STATUS_MISSING, 24176, 24080}, {PI::STATUS_OK, 24201, 24093},
    {PI::STATUS_FAILED, 24195, 24087},  {PI::STATUS_REBUILDING, 24215, 24105},
    {PI::STATUS_SPARE, 24146, 24014},
};
constexpr SStatusText OTHER_STATUS_TEXT = {0, 24183, 24081};

unsigned int StatusText(const CRVXPhysicalDrive& drive) {
  const auto* const found =
      std::find_if(std::begin(STATUS_TEXTS), std::end(STATUS_TEXTS),
                   [&](const SStatusText& text) { return text.m_Status == drive.m_Status; });
  const SStatusText& text = found == std::end(STATUS_TEXTS) ? OTHER_STATUS_TEXT : *found;
  return drive.m_Medium == PI::MEDIUM_SOLID_STATE ? text.m_SolidState : text.m_Other;
}

/// A value that the drive does not tell hides its property.
void HideUnless(PI::CProperty& property, bool known) {
  if (!known) property.m_AttributeWord = HIDDEN;
}

bool PutSmartPercent(PI::CProperty& property, std::uint32_t percent) {
  const bool known = percent != PI::CSmartValues::UNKNOWN32;
  HideUnless(property, known);
  return PutPercent(property, known ? percent : 0);
}

bool PutBytesWritten(PI::CProperty& property, std::uint64_t bytes) {
  float value = 0.0F;
  PI::_UNITS unit = PI::UNIT_NONE;
  const bool known = bytes != PI::CSmartValues::UNKNOWN64;
  const bool converted = known && PI::CPluginHelper::ConvertBytesToOtherUnit(bytes, value, unit);
  HideUnless(property, converted);
  if (converted) {
    property.m_UnitTextID = unit;
    property.m_DisplayFormat = FRACTION_FORMAT;
  }
  return Put(property, value);  // what a failed conversion left is shown to nobody
}

/// The day on which the drive reaches its end at the present pace; empty when that cannot be told.
std::string EndOfLife(PI::CSmartValues smart, std::uint64_t now) {
  if (smart.m_PowerOnHours == 0) smart.m_PowerOnHours = 1;
  if (smart.m_BytesWritten == 0 || smart.m_WearUsed == 0 || smart.m_RatedWriteVolume == 0) return {};
  unsigned long hours = 0;
  PI::CPluginHelper::ComputeRemainingLifeTime(smart.m_PowerOnHours, smart.m_BytesWritten, smart.m_WearUsed,
                                              smart.m_RatedWriteVolume, hours);
  if (hours == PI::CSmartValues::UNKNOWN64) return {};
  const KVTX::CDate date = KVTX::CSystemTime_Lx::GetDate(now + hours * MS_PER_HOUR);
  return Text("%4d-%02d-%02d", date.m_Year, date.m_Month, date.m_Day);
}

constexpr Row PROPERTIES[] = {
    {PI::PROP_NAME, 23286, [](SDriveView& v, PI::CProperty& p) { return Put(p, v.m_Drive.m_DisplayName); }},
    {PI::PROP_DRIVE_NUMBER, 23273,
     [](SDriveView& v, PI::CProperty& p) {
       return Put(p, static_cast<unsigned long>(v.m_Drive.m_DriveNumber));
     }},
    {.m_ID = PI::PROP_CHANNEL,
     .m_LabelTextID = 23293,
     .m_Fill = [](SDriveView&, PI::CProperty& p) { return Put(p, 0UL); },
     .m_AttributeWord = 4},
    {PI::PROP_DEVICE_PATH, 23288,
     [](SDriveView& v, PI::CProperty& p) { return Put(p, v.m_Drive.DevicePath()); }},
    {.m_ID = PI::PROP_DEVICE_KEY,
     .m_LabelTextID = 0,
     .m_Fill = [](SDriveView& v, PI::CProperty& p) { return Put(p, v.m_Drive.m_DeviceKey); },
     .m_AttributeWord = HIDDEN},
    {PI::PROP_VENDOR, 23317, [](SDriveView& v, PI::CProperty& p) { return Put(p, v.m_Drive.m_Vendor); }},
    {PI::PROP_MODEL, 23296, [](SDriveView& v, PI::CProperty& p) { return Put(p, v.m_Drive.m_Model); }},
    {PI::PROP_CAPACITY, 23292, [](SDriveView& v, PI::CProperty& p) { return Put(p, v.m_Drive.m_Size >> 10); },
     PI::UNIT_MIB},
    // From the size, not from the usable size: that one is 0 for a spare.
    {PI::PROP_USABLE_CAPACITY, 23270,
     [](SDriveView& v, PI::CProperty& p) {
       return Put(p, v.m_Drive.m_Size == 0 ? 0UL : Md::UsableSize(v.m_Drive.m_Size) >> 10);
     },
     PI::UNIT_MIB},
    {PI::PROP_ACTIVITY, 23264,
     [](SDriveView& v, PI::CProperty& p) {
       return PutChoice(p, v.m_Drive.m_Activity,
                        {PI::ACTIVITY_NONE, PI::ACTIVITY_VERIFYING, PI::ACTIVITY_REBUILDING});
     }},
    // Missing is not among the choices: such a drive shows it by its text alone.
    {PI::PROP_STATUS, 23310,
     [](SDriveView& v, PI::CProperty& p) {
       RVX_TRACE(TRACE_INFORMATION, "GetPhysicalDriveProperties() set status property of disk %d/%d to %d",
                 v.m_Drive.m_MajorNumber, v.m_Drive.m_MinorNumber, v.m_Drive.m_Status);
       p.m_ValueTextID = StatusText(v.m_Drive);
       return PutChoice(
           p, v.m_Drive.m_Status,
           {PI::STATUS_READY, PI::STATUS_OK, PI::STATUS_FAILED, PI::STATUS_REBUILDING, PI::STATUS_SPARE});
     }},
    {PI::PROP_ATTACHMENT, 23315,
     [](SDriveView& v, PI::CProperty& p) {
       return PutChoice(p, v.m_Drive.m_Attachment, {PI::ATTACHMENT_OTHER, PI::ATTACHMENT_ATA});
     }},
    {PI::PROP_MEDIUM, 23284,
     [](SDriveView& v, PI::CProperty& p) {
       return PutChoice(p, v.m_Drive.m_Medium, {PI::MEDIUM_ROTATING, PI::MEDIUM_SOLID_STATE});
     }},
    {.m_ID = PI::PROP_SPARE_STATE,
     .m_LabelTextID = 23269,
     .m_Fill =
         [](SDriveView& v, PI::CProperty& p) {
           return PutChoice(p, v.m_Drive.m_SpareState, {PI::SPARE_STATE_FREE, PI::SPARE_STATE_IN_USE});
         },
     .m_AttributeWord = HIDDEN},
    {.m_ID = PI::PROP_END_OF_LIFE,
     .m_LabelTextID = 23275,
     .m_Fill =
         [](SDriveView& v, PI::CProperty& p) {
           const std::string date = EndOfLife(v.m_Smart, v.m_Now);
           HideUnless(p, !date.empty());
           return Put(p, date);
         },
     .m_Writable = true},
    {.m_ID = PI::PROP_SMART_RESERVE,
     .m_LabelTextID = 23299,
     .m_Fill = [](SDriveView& v,
                  PI::CProperty& p) { return PutSmartPercent(p, v.m_Smart.m_AvailableReserve); },
     .m_Writable = true},
    {.m_ID = PI::PROP_SMART_WEAR,
     .m_LabelTextID = 23297,
     .m_Fill = [](SDriveView& v, PI::CProperty& p) { return PutSmartPercent(p, v.m_Smart.m_WearUsed); },
     .m_UnitTextID = PI::UNIT_PERCENT,
     .m_Writable = true},
    {.m_ID = PI::PROP_SMART_BYTES_WRITTEN,
     .m_LabelTextID = 23268,
     .m_Fill = [](SDriveView& v, PI::CProperty& p) { return PutBytesWritten(p, v.m_Smart.m_BytesWritten); },
     .m_Writable = true},
    {.m_ID = PI::PROP_SMART_POWER_ON_HOURS,
     .m_LabelTextID = 23295,
     .m_Fill =
         [](SDriveView& v, PI::CProperty& p) {
           const bool known = v.m_Smart.m_PowerOnHours != PI::CSmartValues::UNKNOWN64;
           HideUnless(p, known);
           return Put(p, known ? v.m_Smart.m_PowerOnHours : 0UL);
         },
     .m_UnitTextID = PI::UNIT_HOURS,
     .m_Writable = true},
};

constexpr PI::_PROPERTY_ID SMART_PROPERTIES[] = {
    PI::PROP_ALL,        PI::PROP_END_OF_LIFE,         PI::PROP_SMART_RESERVE,
    PI::PROP_SMART_WEAR, PI::PROP_SMART_BYTES_WRITTEN, PI::PROP_SMART_POWER_ON_HOURS};

/// What a missing drive does not show: identity, size and path. Wider than the list above: callers
/// add properties of their own (oddity 17).
constexpr std::uint32_t HIDDEN_WHEN_MISSING[] = {30003, 30020, 30022, 30043, 30052, 30053, 30054, 30056,
                                                 30059, 30063, 30125, 30154, 30155, 30202, 30203, 30204,
                                                 30205, 30207, 30208, 30236, 30243, 30247, 30310};

template <class TList, class TValue>
bool Contains(const TList& list, TValue value) {
  return std::find(std::begin(list), std::end(list), value) != std::end(list);
}

}  // namespace

unsigned int IPLUGINAPI_IMPL::GetPhysicalDriveProperties(CRVXPhysicalDrive& drive,
                                                         std::vector<PI::CProperty>& out,
                                                         PI::_PROPERTY_ID which) {
  SDriveView view{drive, PI::CSmartValues("", ""), m_OS.Now()};
  if (Contains(SMART_PROPERTIES, which)) view.m_Smart = ReadSmartValues(m_OS, drive);
  AppendProperties(PROPERTIES, view, which, out);
  if (drive.m_Status == PI::STATUS_MISSING)
    for (PI::CProperty& property : out)
      if (Contains(HIDDEN_WHEN_MISSING, static_cast<std::uint32_t>(property.m_ID)))
        property.m_AttributeWord = HIDDEN;
  return PI::OK;
}

unsigned int IPLUGINAPI_IMPL::SetPhysicalDriveProperty(CRVXPhysicalDrive&, PI::CProperty&) {
  return PI::ERR_PROPERTY_NOT_SETTABLE;
}

}  // namespace NAMESPACE_piRVX
