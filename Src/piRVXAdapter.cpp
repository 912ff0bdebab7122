/// @file
/// The adapter's properties.

#include "Src/piRVXPlugin.h"
#include "Src/piRVXProperties.h"
#include "Src/piRVXTrace.h"

namespace NAMESPACE_piRVX {

namespace {

constexpr char TRACE_SOURCE[] = "Src/piRVXAdapter";

struct SAdapterView {
  const CRVXAdapter& m_Adapter;
  unsigned long m_PhysicalDrives;
  unsigned long m_LogicalDrives;
};
using Row = SPropertyRow<SAdapterView>;

unsigned int AdapterStatusText(std::uint32_t status) {
  switch (status) {
    case PI::STATUS_FAILED:
      return 24001;
    case PI::ADAPTER_DEGRADED:
      return 24002;
    default:
      return 24000;
  }
}

/// A property that is no more than a number or text: display kind, group, label and where the value comes
/// from.
constexpr Row Shown(PI::_PROPERTY_ID id, unsigned int displayKind, unsigned int group, unsigned int label,
                    bool (*fill)(SAdapterView&, PI::CProperty&)) {
  return {.m_ID = id, .m_LabelTextID = label, .m_Fill = fill, .m_DisplayKind = displayKind, .m_Group = group};
}

constexpr unsigned int ALONE = PI::CProperty::NO_GROUP;

constexpr Row PROPERTIES[] = {
    Shown(PI::PROP_NAME, 0, ALONE, 23081,
          [](SAdapterView& v, PI::CProperty& p) { return Put(p, v.m_Adapter.m_Description); }),
    Shown(PI::PROP_VENDOR, 0, ALONE, 23144, [](SAdapterView&, PI::CProperty& p) { return Put(p, "Linux"); }),
    Shown(PI::PROP_MODEL, 0, ALONE, 23102,
          [](SAdapterView& v, PI::CProperty& p) { return Put(p, v.m_Adapter.m_Name); }),
    Shown(PI::PROP_ATTACHMENT, 0, 0, 0,
          [](SAdapterView& v, PI::CProperty& p) { return Put(p, v.m_Adapter.m_Name); }),
    Shown(PI::PROP_ADAPTER_TYPE, 0, 0, 0,
          [](SAdapterView&, PI::CProperty& p) {
            return PutChoice(p, PI::ADAPTER_TYPE_SOFTWARE, {PI::ADAPTER_TYPE_SOFTWARE});
          }),
    Shown(PI::PROP_ADAPTER_NUMBER, 35023, ALONE, 23003,
          [](SAdapterView&, PI::CProperty& p) { return Put(p, 0UL); }),
    Shown(PI::PROP_LOCATION_0, 35039, 0, 23134, [](SAdapterView&, PI::CProperty& p) { return Put(p, 0UL); }),
    Shown(PI::PROP_LOCATION_1, 35016, 0, 23132,
          [](SAdapterView& v, PI::CProperty& p) { return Put(p, v.m_Adapter.m_Location1); }),
    Shown(PI::PROP_LOCATION_2, 35020, 0, 23133,
          [](SAdapterView& v, PI::CProperty& p) { return Put(p, v.m_Adapter.m_Location2); }),
    Shown(PI::PROP_LOCATION_3, 35022, 0, 23135,
          [](SAdapterView& v, PI::CProperty& p) { return Put(p, v.m_Adapter.m_Location3); }),
    Shown(PI::PROP_DEVICE_KEY, 0, 0, 0,
          [](SAdapterView& v, PI::CProperty& p) { return Put(p, v.m_Adapter.m_DeviceKeyPrefix); }),
    Shown(PI::PROP_DRIVER, 0, ALONE, 23041, [](SAdapterView&, PI::CProperty& p) { return Put(p, "md"); }),
    Shown(PI::PROP_ADAPTER_EXTRA_TEXT, 0, ALONE, 23042,
          [](SAdapterView& v, PI::CProperty& p) {
            return !v.m_Adapter.m_ExtraText.empty() && Put(p, v.m_Adapter.m_ExtraText);
          }),
    Shown(PI::PROP_MAX_PHYSICAL_DRIVES, 35028, 1, 23138,
          [](SAdapterView& v, PI::CProperty& p) { return Put(p, v.m_Adapter.m_MaxPhysicalDrives); }),
    Shown(PI::PROP_MAX_LOGICAL_DRIVES, 35025, 1, 23136,
          [](SAdapterView& v, PI::CProperty& p) { return Put(p, v.m_Adapter.m_MaxLogicalDrives); }),
    Shown(PI::PROP_PHYSICAL_DRIVES, 35028, 1, 23138,
          [](SAdapterView& v, PI::CProperty& p) { return Put(p, v.m_PhysicalDrives); }),
    Shown(PI::PROP_LOGICAL_DRIVES, 35025, 1, 23136,
          [](SAdapterView& v, PI::CProperty& p) { return Put(p, v.m_LogicalDrives); }),
    Shown(PI::PROP_PHYSICAL_DRIVES_OF_MAX, 35028, 2, 23138,
          [](SAdapterView& v, PI::CProperty& p) {
            return Put(p, Text("%d/%d", v.m_PhysicalDrives, v.m_Adapter.m_MaxPhysicalDrives));
          }),
    Shown(PI::PROP_LOGICAL_DRIVES_OF_MAX, 35025, 2, 23136,
          [](SAdapterView& v, PI::CProperty& p) {
            return Put(p, Text("%d/%d", v.m_LogicalDrives, v.m_Adapter.m_MaxLogicalDrives));
          }),
    Shown(PI::PROP_STATUS, 0, ALONE, 23127,
          [](SAdapterView& v, PI::CProperty& p) {
            p.m_ValueTextID = AdapterStatusText(v.m_Adapter.m_Status);
            return PutChoice(p, v.m_Adapter.m_Status,
                             {PI::ADAPTER_OK, PI::ADAPTER_DEGRADED, PI::STATUS_FAILED});
          }),
    Shown(PI::PROP_ADAPTER_ATTRIBUTES, 0, ALONE, 23004,
          [](SAdapterView& v, PI::CProperty& p) {
            if (v.m_Adapter.m_AttributeList.empty()) return false;
            p.SetValue(v.m_Adapter.m_AttributeList, {});
            return true;
          }),
};

}  // namespace

unsigned int IPLUGINAPI_IMPL::GetAdapterProperties(CRVXAdapter& adapter, std::vector<PI::CProperty>& out,
                                                   PI::_PROPERTY_ID which) {
  // The name that this function had first (oddity 14).
  RVX_TRACE(TRACE_LIFECYCLE, "ENTER AdapterGetProperties");
  out.clear();
  AppendProperties(PROPERTIES, SAdapterView{adapter, m_PhysicalDrives.size(), m_LogicalDrives.size()}, which,
                   out);
  RVX_TRACE(TRACE_LIFECYCLE, "LEAVE AdapterGetProperties -> %d", PI::OK);
  return PI::OK;
}

unsigned int IPLUGINAPI_IMPL::SetAdapterProperty(CRVXAdapter&, PI::CProperty&) {
  return PI::OK;  // taken and forgotten, unlike the drives' properties (oddity 2)
}

}  // namespace NAMESPACE_piRVX
