/// @file
/// Topology, the plug-in object and the delivery of events.

#include <algorithm>

#include "Src/piRVXLock.h"
#include "Src/piRVXOperations.h"
#include "Src/piRVXPlugin.h"
#include "Src/piRVXProperties.h"

namespace NAMESPACE_piRVX {

namespace {

constexpr char TRACE_SOURCE[] = "Src/piRVXPlugin";

struct SPluginView {
  std::uint32_t m_PollInterval;
  int m_MinPollInterval;
  int m_MaxPollInterval;
};

constexpr SPropertyRow<SPluginView> PROPERTIES[] = {
    {PI::PROP_DEVICE_KEY, 0,
     [](SPluginView&, PI::CProperty& p) {
       return Put(p, Text("Plugin:ID=%d", KVT_MODULE_INFO_piRVX.GetNumber()));
     }},
    {PI::PROP_NAME, 23320, [](SPluginView&, PI::CProperty& p) { return Put(p, "RVX-Plugin"); }},
    {PI::PROP_VERSION, 23325, [](SPluginView&, PI::CProperty& p) { return Put(p, RVX_VERSION); }},
    {PI::PROP_VENDOR, 23324, [](SPluginView&, PI::CProperty& p) { return Put(p, "Linux"); }},
    {.m_ID = PI::PROP_POLL_INTERVAL,
     .m_LabelTextID = 23321,
     .m_Fill =
         [](SPluginView& view, PI::CProperty& p) {
           p.SetValue(static_cast<int>(view.m_PollInterval), view.m_MinPollInterval, view.m_MaxPollInterval,
                      1);
           return true;
         },
     .m_UnitTextID = PI::UNIT_SECONDS,
     .m_Writable = true},
};

}  // namespace

/// Code, category, the framework's attribute words, confirmation or label; check; execution. No check: the
/// execution refuses what is not offered (oddity 16).
constexpr SOperationRow<CRVXPlugin> IPLUGINAPI_IMPL::PLUGIN_OPERATIONS[] = {
    {{PI::OP_GET_EVENTS, 6, 1, 1, 1, 1, 0, 1, 0},
     nullptr,
     [](IPLUGINAPI_IMPL& plugin, CRVXPlugin& object, PI::COperation& operation) {
       return plugin.GetEvents(object, operation);
     }}};

unsigned int IPLUGINAPI_IMPL::GetTopology(std::vector<PI::CObject>& objects) {
  RVX_TRACE(TRACE_LIFECYCLE, "ENTER GetTopology");
  {
    const CTracedLock lock(m_DataLock, KVT::Threading::INFINITE_WAIT, DATA_LOCK_OF_REQUEST, TRACE_SOURCE);
    objects.clear();
    objects.reserve(m_PhysicalDrives.size() + m_LogicalDrives.size() + 2);

    PI::CObject& plugin = objects.emplace_back(m_Plugin);
    GetPluginProperties(m_Plugin, plugin.m_Properties, PI::PROP_ALL);
    GetPluginOperations(m_Plugin, plugin.m_Operations);

    PI::CObject& adapter = objects.emplace_back(m_Adapter);
    GetAdapterProperties(m_Adapter, adapter.m_Properties, PI::PROP_ALL);
    GetAdapterOperations(m_Adapter, adapter.m_Operations);
    for (PI::COperation& operation : adapter.m_Operations) {
      // What these answer travels with the topology, so that a front end needs no further request.
      if (operation.m_Code != PI::OP_GET_RAID_LEVEL_INFORMATION &&
          operation.m_Code != PI::OP_GET_ADAPTER_INFORMATION)
        continue;
      if (ExecuteAdapterOperation(m_Adapter, operation) != PI::OK)
        RVX_TRACE(TRACE_LIFECYCLE, "IPLUGINAPI_IMPL::GetTopology: Error ExecuteAdapterOperation");
    }
    RVX_TRACE(TRACE_INFORMATION, "GetTopology() Adapter m_ID=0x%x", m_Adapter.m_ID);

    for (CRVXPhysicalDrive& drive : m_PhysicalDrives) {
      PI::CObject& entry = objects.emplace_back(drive);
      GetPhysicalDriveProperties(drive, entry.m_Properties, PI::PROP_ALL);
      GetPhysicalDriveOperations(drive, entry.m_Operations);
      RVX_TRACE(TRACE_INFORMATION, "GetTopology() PhysicalDrive (%d/%d) m_ID=0x%x", drive.m_MajorNumber,
                drive.m_MinorNumber, drive.m_ID);
    }
    for (CRVXLogicalDrive& array : m_LogicalDrives) {
      PI::CObject& entry = objects.emplace_back(array);
      GetLogicalDriveProperties(array, entry.m_Properties, PI::PROP_ALL);
      GetLogicalDriveOperations(array, entry.m_Operations);
      RVX_TRACE(TRACE_INFORMATION, "GetTopology() LogicalDrive (%d) m_ID=0x%x", array.m_ArrayNumber,
                array.m_ID);
    }
  }
  RVX_TRACE(TRACE_LIFECYCLE, "LEAVE GetTopology");
  return PI::OK;
}

unsigned int IPLUGINAPI_IMPL::GetPluginProperties(CRVXPlugin&, std::vector<PI::CProperty>& out,
                                                  PI::_PROPERTY_ID which) {
  AppendProperties(PROPERTIES, SPluginView{m_PollInterval, MIN_POLL_INTERVAL, MAX_POLL_INTERVAL}, which, out);
  return PI::OK;
}

unsigned int IPLUGINAPI_IMPL::SetPluginProperty(CRVXPlugin& plugin, PI::CProperty& property) {
  if (property.m_ID != PI::PROP_POLL_INTERVAL) return PI::ERR_PROPERTY_NOT_SETTABLE;
  int value = 0;
  int minimum = 0;
  int maximum = 0;
  unsigned int step = 0;
  if (!property.GetValue(value, minimum, maximum, step)) return PI::ERR_WRONG_PARAMETER_TYPE;
  // The property's own limits count: the front end got them from this plug-in.
  value = std::min(std::max(value, minimum), maximum);
  ++plugin.m_UpdateCounter;
  m_PollInterval = static_cast<std::uint32_t>(value);
  const unsigned int status = m_ConfigFile.WriteKeyValue("PollInterval", Text("%d", value), -1, -1);
  m_PrivateEvent.Set();  // also after a failed write: the new interval is in force
  return status;
}

unsigned int IPLUGINAPI_IMPL::GetPluginOperations(CRVXPlugin&, std::vector<PI::COperation>& out) {
  return OfferOperations(PLUGIN_OPERATIONS, out);
}

unsigned int IPLUGINAPI_IMPL::CheckPluginOperation(CRVXPlugin& plugin, PI::COperation& operation) {
  return CheckByRow(PLUGIN_OPERATIONS, *this, plugin, operation);
}

unsigned int IPLUGINAPI_IMPL::ExecutePluginOperation(CRVXPlugin& plugin, PI::COperation& operation) {
  RVX_TRACE(TRACE_LIFECYCLE, "ENTER ExecutePluginOperation()");
  const unsigned int status = ExecuteByRow(PLUGIN_OPERATIONS, *this, plugin, operation);
  RVX_TRACE(TRACE_LIFECYCLE, "LEAVE ExecutePluginOperation() -> %d", status);
  return status;
}

unsigned int IPLUGINAPI_IMPL::GetEvents(CRVXPlugin&, PI::COperation& operation) {
  RVX_TRACE(TRACE_LIFECYCLE, "ENTER GetEvents()");
  operation.m_Events.clear();
  {
    CTracedLock lock(m_EventsLock, 0, EVENTS_LOCK_OF_FETCH, TRACE_SOURCE);
    if (!lock.IsHeld()) return PI::OK;  // the worker is at it; the events come with a later call
    operation.m_Events.assign(m_EventQueue.begin(), m_EventQueue.end());
    m_EventQueue.clear();
    m_EventsDropped = false;
  }
  RVX_TRACE(TRACE_LIFECYCLE, "LEAVE GetEvents() -> %d", 0);
  return PI::OK;
}

}  // namespace NAMESPACE_piRVX
