/// @file
/// Properties of logical drives.

#include <algorithm>

#include "Src/piRVXLevels.h"
#include "Src/piRVXPlugin.h"
#include "Src/piRVXProperties.h"
#include "Src/piRVXTrace.h"

namespace NAMESPACE_piRVX {

namespace {

constexpr unsigned int HIDDEN = 0;
constexpr unsigned int VOLATILE = 0;  ///< trailing flags of a value that changes by itself
constexpr unsigned int PROGRESS_DISPLAY = 35032;

struct SArrayView {
  const CRVXLogicalDrive& m_Array;
  std::vector<PI::CETR>& m_Estimators;
  std::uint64_t m_Now;  ///< ms since 1970
};
using Row = SPropertyRow<SArrayView>;

/// Progress of one kind of run. Reading it is what feeds the time estimate; nothing else does.
bool PutProgress(SArrayView& view, PI::CProperty& property, std::uint32_t run) {
  property.m_TrailingFlags = VOLATILE;
  if (view.m_Array.m_Activity != run) {
    property.m_AttributeWord = HIDDEN;
    return PutPercent(property, 0);
  }
  property.m_AttributeWord = PI::CProperty::SHOWN;
  PI::CETR::Add(view.m_Estimators, view.m_Array.m_ID, static_cast<std::int32_t>(view.m_Array.m_Progress),
                view.m_Now, false);
  return PutPercent(property, view.m_Array.m_Progress);
}

/// Hours, minutes and seconds; empty below one second.
std::string TimeText(std::uint64_t milliseconds) {
  const std::uint64_t hours = milliseconds / 3600000;
  const std::uint64_t minutes = milliseconds / 60000 - 60 * hours;
  const std::uint64_t seconds = milliseconds / 1000 % 60;
  if (hours == 0 && minutes == 0 && seconds == 0) return {};
  if (hours > 99) return "> 99:59:59";
  return Text("%02d:%02d:%02d", hours, minutes, seconds);
}

bool PutTimeRemaining(SArrayView& view, PI::CProperty& property) {
  const auto isOwn = [&](const PI::CETR& estimator) { return estimator.m_ID == view.m_Array.m_ID; };
  property.m_TrailingFlags = VOLATILE;
  if (view.m_Array.m_Activity != PI::ACTIVITY_REBUILDING &&
      view.m_Array.m_Activity != PI::ACTIVITY_RESYNCING) {
    std::erase_if(view.m_Estimators, isOwn);  // a later run starts afresh
    property.m_AttributeWord = HIDDEN;
    return Put(property, "");
  }
  property.m_AttributeWord = PI::CProperty::SHOWN;
  const auto own = std::find_if(view.m_Estimators.begin(), view.m_Estimators.end(), isOwn);
  return Put(property, own == view.m_Estimators.end() ? std::string() : TimeText(own->m_Remaining));
}

unsigned int StatusText(std::uint32_t status) {
  switch (status) {
    case PI::STATUS_DEGRADED:
      return 24063;
    case PI::STATUS_FAILED:
      return 24050;
    default:
      return 24054;
  }
}

constexpr Row PROPERTIES[] = {
    {PI::PROP_NAME, 23232, [](SArrayView& v, PI::CProperty& p) { return Put(p, v.m_Array.m_KernelName); }},
    {PI::PROP_ARRAY_NUMBER, 23233,
     [](SArrayView& v, PI::CProperty& p) {
       return Put(p, static_cast<unsigned long>(static_cast<std::int32_t>(v.m_Array.m_ArrayNumber)));
     }},
    {.m_ID = PI::PROP_DEVICE_KEY,
     .m_LabelTextID = 0,
     .m_Fill = [](SArrayView& v, PI::CProperty& p) { return Put(p, v.m_Array.m_DeviceKey); },
     .m_AttributeWord = HIDDEN},
    {.m_ID = PI::PROP_RAID_LEVEL,
     .m_LabelTextID = 23244,
     .m_Fill = [](SArrayView& v,
                  PI::CProperty& p) { return PutChoice(p, v.m_Array.m_RaidLevel, ChoicesOf(RAID_LEVELS)); },
     .m_DisplayKind = 35044},
    {PI::PROP_STRIPE_SIZE, 23243,
     [](SArrayView& v, PI::CProperty& p) {
       const SRaidLevel* const level = FindRaidLevel(v.m_Array.m_RaidLevel);
       return level != nullptr && level->m_Striped &&
              PutChoice(p, v.m_Array.m_StripeSize, ChoicesOf(STRIPE_SIZES));
     }},
    {PI::PROP_ARRAY_CAPACITY, 23230,
     [](SArrayView& v, PI::CProperty& p) { return Put(p, v.m_Array.m_PhysicalSize >> 10); }, PI::UNIT_MIB},
    {PI::PROP_CAPACITY, 23235,
     [](SArrayView& v, PI::CProperty& p) { return Put(p, v.m_Array.m_LogicalSize >> 10); }, PI::UNIT_MIB},
    {PI::PROP_DEVICE_PATH, 23234,
     [](SArrayView& v, PI::CProperty& p) {
       return !v.m_Array.m_KernelName.empty() && Put(p, v.m_Array.DevicePath());
     }},
    {PI::PROP_ACTIVITY, 23215,
     [](SArrayView& v, PI::CProperty& p) {
       return PutChoice(
           p, v.m_Array.m_Activity,
           {PI::ACTIVITY_NONE, PI::ACTIVITY_RESYNCING, PI::ACTIVITY_REBUILDING, PI::ACTIVITY_VERIFYING});
     }},
    {PI::PROP_STATUS, 23242,
     [](SArrayView& v, PI::CProperty& p) {
       p.m_ValueTextID = StatusText(v.m_Array.m_Status);
       return PutChoice(p, v.m_Array.m_Status, {PI::STATUS_OK, PI::STATUS_DEGRADED, PI::STATUS_FAILED});
     }},
    {.m_ID = PI::PROP_RESYNC_PROGRESS,
     .m_LabelTextID = 0,
     .m_Fill = [](SArrayView& v, PI::CProperty& p) { return PutProgress(v, p, PI::ACTIVITY_RESYNCING); },
     .m_UnitTextID = PI::UNIT_PERCENT,
     .m_DisplayKind = PROGRESS_DISPLAY},
    {.m_ID = PI::PROP_REBUILD_PROGRESS,
     .m_LabelTextID = 0,
     .m_Fill = [](SArrayView& v, PI::CProperty& p) { return PutProgress(v, p, PI::ACTIVITY_REBUILDING); },
     .m_UnitTextID = PI::UNIT_PERCENT,
     .m_DisplayKind = PROGRESS_DISPLAY},
    // The label is the activity's: front ends show the time beside it.
    {.m_ID = PI::PROP_TIME_REMAINING,
     .m_LabelTextID = 23215,
     .m_Fill = [](SArrayView& v, PI::CProperty& p) { return PutTimeRemaining(v, p); },
     .m_UnitTextID = PI::UNIT_TIME},
    {.m_ID = PI::PROP_CONFIGURATION,
     .m_LabelTextID = 0,
     .m_Fill =
         [](SArrayView& v, PI::CProperty& p) {
           return !v.m_Array.m_Configuration.IsEmpty() && Put(p, v.m_Array.m_Configuration);
         },
     .m_AttributeWord = HIDDEN},
};

}  // namespace

unsigned int IPLUGINAPI_IMPL::GetLogicalDriveProperties(CRVXLogicalDrive& array,
                                                        std::vector<PI::CProperty>& out,
                                                        PI::_PROPERTY_ID which) {
  out.clear();
  AppendProperties(PROPERTIES, SArrayView{array, m_Estimators, m_OS.Now()}, which, out);
  return PI::OK;
}

unsigned int IPLUGINAPI_IMPL::SetLogicalDriveProperty(CRVXLogicalDrive&, PI::CProperty&) {
  return PI::ERR_PROPERTY_NOT_SETTABLE;
}

}  // namespace NAMESPACE_piRVX
