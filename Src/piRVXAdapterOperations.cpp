/// @file
/// The adapter's operations.

#include "Src/piRVXAdapterCreate.h"
#include "Src/piRVXAdapterDelete.h"
#include "Src/piRVXLevels.h"
#include "Src/piRVXOperations.h"
#include "Src/piRVXPlugin.h"
#include "Src/piRVXTrace.h"

namespace NAMESPACE_piRVX {

namespace {

constexpr char TRACE_SOURCE[] = "Src/piRVXAdapter";
constexpr std::uint32_t NONE = 0xFFFFFFFFU;

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

/// Code, category, the framework's attribute words, confirmation or label; check; execution.
constexpr SOperationRow<CRVXAdapter> IPLUGINAPI_IMPL::ADAPTER_OPERATIONS[] = {
    {{PI::OP_RESCAN_ADAPTER, 1, 2, 1, 1, 0, NONE, 1, 1},
     nullptr,
     [](IPLUGINAPI_IMPL& plugin, CRVXAdapter& adapter, PI::COperation&)
         ZQ_REQUIRES(plugin.m_DataLock) -> unsigned int {
           plugin.m_ForceWorker.Set();
           plugin.QueueEvent(plugin.MakeEvent(PI::EVT_RESCAN_REQUESTED, adapter.m_ID, adapter.m_Name, ""),
                             TRACE_SOURCE);
           plugin.m_PrivateEvent.Set();
           return PI::OK;
         }},
    {{PI::OP_CREATE_LOGICAL_DRIVE, 3, 2, 1, 7, 0, 18, 3, PI::CONFIRM_CREATE},
     nullptr,
     [](IPLUGINAPI_IMPL& plugin, CRVXAdapter& adapter, PI::COperation& operation)
         ZQ_REQUIRES(plugin.m_DataLock) -> unsigned int {
           if (operation.m_pRequest == nullptr) return PI::ERR_INVALID_CONFIGURATION;
           const unsigned int status = plugin.CreateLogicalDrive(adapter, *operation.m_pRequest);
           if (status != PI::OK) return status;
           plugin.LockObjects(-1, -1, -1, -1);
           plugin.m_PrivateEvent.Set();
           return PI::OK;
         }},
    {{PI::OP_DELETE_LAST_LOGICAL_DRIVE, 1, 2, 1, 8, 0, NONE, 3, PI::CONFIRM_DELETE},
     [](IPLUGINAPI_IMPL& plugin, CRVXAdapter&,
        PI::COperation& operation) ZQ_REQUIRES(plugin.m_DataLock) -> unsigned int {
       if (plugin.m_LogicalDrives.empty()) return PI::ERR_NOT_AVAILABLE;
       unsigned int reason = PI::CONFIRM_DELETE;
       const unsigned int status = plugin.DeleteLogicalDriveAllowed(plugin.m_LogicalDrives.back(), &reason);
       if (status == PI::OK) operation.m_ConfirmationCode = ConfirmationOf(reason);
       return status;
     },
     [](IPLUGINAPI_IMPL& plugin, CRVXAdapter&, PI::COperation&)
         ZQ_REQUIRES(plugin.m_DataLock) { return plugin.DeleteLastLogicalDrive(); }},
    {{PI::OP_DELETE_ALL_LOGICAL_DRIVES, 1, 2, 1, 8, 0, NONE, 3, PI::CONFIRM_DELETE_ALL},
     [](IPLUGINAPI_IMPL& plugin, CRVXAdapter&, PI::COperation& operation)
         ZQ_REQUIRES(plugin.m_DataLock) -> unsigned int {
           if (plugin.m_LogicalDrives.empty()) return PI::ERR_NOT_AVAILABLE;
           unsigned int status = PI::OK;
           unsigned int code = PI::CONFIRM_DELETE_ALL;
           for (CRVXLogicalDrive& array : plugin.m_LogicalDrives) {
             unsigned int reason = PI::CONFIRM_DELETE_ALL;
             status = plugin.DeleteLogicalDriveAllowed(array, &reason);
             if (status != PI::OK) break;
             if (code < PI::CONFIRM_DELETE_WARNING_FIRST)
               code = ConfirmationOf(reason);  // the first warning wins
           }
           operation.m_ConfirmationCode = code;  // also when a check failed
           return status;
         },
     [](IPLUGINAPI_IMPL& plugin, CRVXAdapter&, PI::COperation&)
         ZQ_REQUIRES(plugin.m_DataLock) { return plugin.DeleteAllLogicalDrives(); }},
    {{PI::OP_GET_RAID_LEVEL_INFORMATION, 4, 1, 1, 1, 0, 0, 1, 1},
     nullptr,
     [](IPLUGINAPI_IMPL& plugin, CRVXAdapter& adapter, PI::COperation& operation)
         ZQ_REQUIRES(plugin.m_DataLock) { return plugin.GetRaidLevelInformation(adapter, operation); }},
};

unsigned int IPLUGINAPI_IMPL::GetAdapterOperations(CRVXAdapter&, std::vector<PI::COperation>& out) {
  return OfferOperations(ADAPTER_OPERATIONS, out);
}

unsigned int IPLUGINAPI_IMPL::CheckAdapterOperation(CRVXAdapter& adapter, PI::COperation& operation) {
  RVX_TRACE(TRACE_LIFECYCLE, "ENTER CheckAdapterOperation operation=%d", operation.m_Code);
  const unsigned int status = CheckByRow(ADAPTER_OPERATIONS, *this, adapter, operation);
  RVX_TRACE(TRACE_LIFECYCLE, "LEAVE CheckAdapterOperation -> %d", status);
  return status;
}

unsigned int IPLUGINAPI_IMPL::ExecuteAdapterOperation(CRVXAdapter& adapter, PI::COperation& operation) {
  RVX_TRACE(TRACE_LIFECYCLE, "ENTER ExecuteAdapterOperation(%d)", operation.m_Code);
  if (FindOperation(ADAPTER_OPERATIONS, operation.m_Code) == nullptr)
    RVX_TRACE(TRACE_LIFECYCLE, "ExecuteAdapterOperation() OpCode(%d)", operation.m_Code);
  const unsigned int status = ExecuteByRow(ADAPTER_OPERATIONS, *this, adapter, operation);
  // The name that this function had first (oddity 14).
  RVX_TRACE(TRACE_LIFECYCLE, "LEAVE AdapterExecuteOperation() -> %d", status);
  return status;
}

// The framework's names for what the rooms do.
int IPLUGINAPI_IMPL::GetUnusedArrayName(char* buffer) { return NameNewArray(*this, buffer); }

unsigned int IPLUGINAPI_IMPL::CreateLogicalDrive(CRVXAdapter&, PI::CLogicalDrive& request) {
  return CreateArray(*this, request);
}

unsigned int IPLUGINAPI_IMPL::DeleteLogicalDriveAllowed(CRVXLogicalDrive& array, unsigned int* reason) {
  return CheckDeletion(*this, array, reason);
}

unsigned int IPLUGINAPI_IMPL::DeleteLogicalDrive(CRVXLogicalDrive& array) {
  return DeleteArray(*this, m_ConfigFile, array);
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
    // Each array overwrites the result: the last one's counts, earlier failures are lost (oddity 13).
    if (IsBusy(array)) {
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
    record.m_MinimumDrives = MIN_DISKS;
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
