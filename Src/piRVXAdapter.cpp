/// @file
/// The adapter's properties and operations.

#include "Src/piRVXLevels.h"
#include "Src/piRVXLock.h"
#include "Src/piRVXPlugin.h"
#include "Src/piRVXProperties.h"

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

constexpr std::uint32_t NONE = 0xFFFFFFFFU;

constexpr PI::COperation::Row OPERATIONS[] = {
    {PI::OP_RESCAN_ADAPTER, 1, 2, 1, 1, 0, NONE, 1, 1},
    {PI::OP_CREATE_LOGICAL_DRIVE, 3, 2, 1, 7, 0, 18, 3, PI::CONFIRM_CREATE},
    {PI::OP_DELETE_LAST_LOGICAL_DRIVE, 1, 2, 1, 8, 0, NONE, 3, PI::CONFIRM_DELETE},
    {PI::OP_DELETE_ALL_LOGICAL_DRIVES, 1, 2, 1, 8, 0, NONE, 3, PI::CONFIRM_DELETE_ALL},
    {PI::OP_GET_RAID_LEVEL_INFORMATION, 4, 1, 1, 1, 0, 0, 1, 1},
};

/// The question to ask for what the deletion check found.
unsigned int ConfirmationOf(unsigned int reason) {
  switch (reason) {
    case PI::REASON_DRIVE_LETTER:
      return PI::CONFIRM_DELETE_DRIVE_LETTER;
    case PI::REASON_MOUNTED:
      return PI::CONFIRM_DELETE_MOUNTED;
    default:
      return reason;
  }
}

}  // namespace

unsigned int IPLUGINAPI_IMPL::GetAdapterProperties(CRVXAdapter& adapter, std::vector<PI::CProperty>& out,
                                                   PI::_PROPERTY_ID which) {
  RVX_TRACE(TRACE_LIFECYCLE, "ENTER AdapterGetProperties");
  out.clear();
  AppendProperties(PROPERTIES, SAdapterView{adapter, m_PhysicalDrives.size(), m_LogicalDrives.size()}, which,
                   out);
  RVX_TRACE(TRACE_LIFECYCLE, "LEAVE AdapterGetProperties -> %d", PI::OK);
  return PI::OK;
}

unsigned int IPLUGINAPI_IMPL::SetAdapterProperty(CRVXAdapter&, PI::CProperty&) {
  return PI::OK;  // taken and forgotten, unlike the drives' properties: front ends set what they like here
}

unsigned int IPLUGINAPI_IMPL::GetAdapterOperations(CRVXAdapter&, std::vector<PI::COperation>& out) {
  OfferOperations(OPERATIONS, out);
  return PI::OK;
}

unsigned int IPLUGINAPI_IMPL::CheckAdapterOperation(CRVXAdapter&, PI::COperation& operation) {
  RVX_TRACE(TRACE_LIFECYCLE, "ENTER CheckAdapterOperation operation=%d", operation.m_Code);
  unsigned int status = PI::OK;
  const bool last = operation.m_Code == PI::OP_DELETE_LAST_LOGICAL_DRIVE;
  const bool all = operation.m_Code == PI::OP_DELETE_ALL_LOGICAL_DRIVES;
  if ((last || all) && m_LogicalDrives.empty()) {
    status = PI::ERR_NOT_AVAILABLE;
  } else if (last) {
    unsigned int reason = PI::CONFIRM_DELETE;
    status = DeleteLogicalDriveAllowed(m_LogicalDrives.back(), &reason);
    if (status == PI::OK) operation.m_ConfirmationCode = ConfirmationOf(reason);
  } else if (all) {
    unsigned int code = PI::CONFIRM_DELETE_ALL;
    for (CRVXLogicalDrive& array : m_LogicalDrives) {
      unsigned int reason = PI::CONFIRM_DELETE_ALL;
      status = DeleteLogicalDriveAllowed(array, &reason);
      if (status != PI::OK) break;
      if (code < PI::CONFIRM_DELETE_WARNING_FIRST) code = ConfirmationOf(reason);  // the first warning wins
    }
    operation.m_ConfirmationCode = code;  // also when a check failed
  }
  RVX_TRACE(TRACE_LIFECYCLE, "LEAVE CheckAdapterOperation -> %d", status);
  return status;
}

unsigned int IPLUGINAPI_IMPL::ExecuteAdapterOperation(CRVXAdapter& adapter, PI::COperation& operation) {
  RVX_TRACE(TRACE_LIFECYCLE, "ENTER ExecuteAdapterOperation(%d)", operation.m_Code);
  unsigned int status = PI::OK;
  switch (operation.m_Code) {
    case PI::OP_CREATE_LOGICAL_DRIVE:
      status = operation.m_pRequest != nullptr ? CreateLogicalDrive(adapter, *operation.m_pRequest)
                                               : static_cast<unsigned int>(PI::ERR_INVALID_CONFIGURATION);
      if (status == PI::OK) {
        LockObjects(-1, -1, -1, -1);
        m_PrivateEvent.Set();
      }
      break;
    case PI::OP_GET_RAID_LEVEL_INFORMATION:
      status = GetRaidLevelInformation(adapter, operation);
      break;
    case PI::OP_RESCAN_ADAPTER:
      m_ForceWorker.Set();
      QueueEvent(MakeEvent(PI::EVT_RESCAN_REQUESTED, adapter.m_ID, adapter.m_Name, ""), TRACE_SOURCE);
      m_PrivateEvent.Set();
      break;
    case PI::OP_DELETE_LAST_LOGICAL_DRIVE:
      status = DeleteLastLogicalDrive();
      break;
    case PI::OP_DELETE_ALL_LOGICAL_DRIVES:
      status = DeleteAllLogicalDrives();
      break;
    default:
      RVX_TRACE(TRACE_LIFECYCLE, "ExecuteAdapterOperation() OpCode(%d)", operation.m_Code);
      status = PI::ERR_OPERATION_NOT_SUPPORTED;
  }
  // The name that this function had first; logs are searched for it.
  RVX_TRACE(TRACE_LIFECYCLE, "LEAVE AdapterExecuteOperation() -> %d", status);
  return status;
}

unsigned int IPLUGINAPI_IMPL::DeleteLastLogicalDrive() {
  RVX_TRACE(TRACE_LIFECYCLE, "ExecuteAdapterOperation() OP_DELETE_LAST_LOGICAL_DRIVE");
  if (m_LogicalDrives.empty()) {
    RVX_TRACE(TRACE_LIFECYCLE,
              "ExecuteAdapterOperation() OP_DELETE_LAST_LOGICAL_DRIVE no logical drive found");
    return PI::ERR_NOT_AVAILABLE;
  }
  CRVXLogicalDrive& array = m_LogicalDrives.back();
  // A pending operation blocks only the deletion of all.
  if (array.m_Activity == PI::ACTIVITY_REBUILDING) {
    RVX_TRACE(TRACE_LIFECYCLE, "ExecuteAdapterOperation() OP_DELETE_LAST_LOGICAL_DRIVE array (%s) is busy",
              array.m_KernelName);
    return PI::ERR_BUSY;
  }
  const unsigned int status = DeleteLogicalDrive(array);
  if (status == PI::OK) {
    m_ForceWorker.Set();
    LockObjects(-1, -1, -1, -1);
    RVX_TRACE(TRACE_LIFECYCLE, "ExecuteAdapterOperation() OP_DELETE_LAST_LOGICAL_DRIVE was successful");
  }
  m_PrivateEvent.Set();
  return status;
}

unsigned int IPLUGINAPI_IMPL::DeleteAllLogicalDrives() {
  if (m_LogicalDrives.empty()) return PI::OK;
  unsigned int status = PI::OK;
  bool deleted = false;
  for (CRVXLogicalDrive& array : m_LogicalDrives) {
    // Each array overwrites the result: the last one's counts, earlier failures are lost on purpose.
    if (m_PendingOperation != NO_PENDING_OPERATION || array.m_Activity == PI::ACTIVITY_REBUILDING) {
      RVX_TRACE(TRACE_LIFECYCLE, "ExecuteAdapterOperation() OP_DELETE_ALL_LOGICAL_DRIVES array (%s) is busy",
                array.m_KernelName);
      status = PI::ERR_BUSY;
      continue;
    }
    status = DeleteLogicalDrive(array);
    if (status != PI::OK) continue;
    deleted = true;
    RVX_TRACE(TRACE_LIFECYCLE, "ExecuteAdapterOperation() OP_DELETE_ALL_LOGICAL_DRIVE array (%s) deleted",
              array.m_KernelName);
  }
  if (deleted) LockObjects(-1, -1, -1, -1);
  m_PrivateEvent.Set();
  return status;
}

unsigned int IPLUGINAPI_IMPL::GetRaidLevelInformation(CRVXAdapter&, PI::COperation& operation) {
  RVX_TRACE(TRACE_LIFECYCLE, "ENTER GetRaidLevelInformation()");
  operation.m_Levels.clear();
  for (const SRaidLevel& level : RAID_LEVELS) {
    if (level.m_MostDisks == 0) continue;
    PI::CLevel& record = operation.m_Levels.emplace_back();
    record.m_Level = level.m_Choice;
    record.m_MinimumDrives = 2;
    record.m_MaximumDrives = level.m_MostDisks;
    for (std::size_t size = 0; size < level.m_StripeSizes; ++size)
      record.m_StripeSizes.push_back(STRIPE_SIZES[size].m_Choice);
    record.m_DefaultStripeSize = level.m_DefaultStripe;
    record.m_Unit = PI::UNIT_DRIVES;
  }
  RVX_TRACE(TRACE_LIFECYCLE, "LEAVE GetRaidLevelInformation()");
  return PI::OK;
}

}  // namespace NAMESPACE_piRVX
