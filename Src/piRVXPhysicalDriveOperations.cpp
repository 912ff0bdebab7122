/// @file
/// Operations of physical drives: dedicated hot spares and missing drives.

#include "Src/piRVXOperations.h"
#include "Src/piRVXPhysicalDriveSpare.h"
#include "Src/piRVXPlugin.h"
#include "Src/piRVXTrace.h"

namespace NAMESPACE_piRVX {

namespace {

constexpr char TRACE_SOURCE[] = "Src/piRVXPhysicalDrive";

bool IsFree(const CRVXPhysicalDrive& drive) { return drive.m_SpareState == PI::SPARE_STATE_FREE; }
bool IsMember(const CRVXPhysicalDrive& drive) { return drive.m_IsMemberOf >= 0; }

unsigned int CheckSpareCreation(const CRVXPhysicalDrive& drive, bool noArrays) {
  if (noArrays) {
    RVX_TRACE(TRACE_LIFECYCLE, "CheckPhysicalDriveOperation() no logical drive found");
    return PI::ERR_NOT_AVAILABLE;
  }
  RVX_TRACE(TRACE_INFORMATION, "CheckPhysicalDriveOperation() check for hot spare creation (%d, %d)",
            drive.m_SpareState, drive.m_IsMemberOf);
  if (IsFree(drive) && !IsMember(drive)) return PI::OK;
  RVX_TRACE(TRACE_LIFECYCLE, "CheckPhysicalDriveOperation() drive %s connot be configured",
            drive.m_KernelName);
  return PI::ERR_OPERATION_NOT_SUPPORTED;
}

unsigned int CheckSpareDeletion(IPLUGINAPI_IMPL&, CRVXPhysicalDrive& drive, PI::COperation&) {
  RVX_TRACE(TRACE_INFORMATION, "CheckPhysicalDriveOperation() check for hot spare deletion(%d, %d, %d)",
            drive.m_SpareState, drive.m_Status, drive.m_IsMemberOf);
  if (!IsFree(drive) && IsMember(drive) &&
      (drive.m_Status == PI::STATUS_SPARE || drive.m_Status == PI::STATUS_FAILED))
    return PI::OK;
  RVX_TRACE(TRACE_LIFECYCLE, "CheckPhysicalDriveOperation() drive %s is no dedicated hotspare",
            drive.m_KernelName);
  return PI::ERR_OPERATION_NOT_SUPPORTED;
}

}  // namespace

/// Code, category, the framework's attribute words, confirmation or label; check; execution.
constexpr SOperationRow<CRVXPhysicalDrive> IPLUGINAPI_IMPL::DRIVE_OPERATIONS[] = {
    {{PI::OP_CREATE_DEDICATED_HOTSPARE, 2, 2, 1, 1, 0, 2, 2, 22026},
     [](IPLUGINAPI_IMPL& plugin, CRVXPhysicalDrive& drive, PI::COperation&)
         ZQ_REQUIRES(plugin.m_DataLock) { return CheckSpareCreation(drive, plugin.m_LogicalDrives.empty()); },
     [](IPLUGINAPI_IMPL& plugin, CRVXPhysicalDrive& drive, PI::COperation& operation)
         ZQ_REQUIRES(plugin.m_DataLock) -> unsigned int {
           if (operation.m_Parameters.size() != 1) return PI::ERR_INVALID_CONFIGURATION;
           unsigned long arrayNumber = 0;
           if (!operation.m_Parameters.front().GetValue(arrayNumber)) return PI::ERR_WRONG_PARAMETER_TYPE;
           RVX_TRACE(TRACE_INFORMATION, "ExecutePhysicalDriveOperation() got logical drive %d", arrayNumber);
           return plugin.CreateDedicatedHotSpare(drive, static_cast<int>(arrayNumber));
         }},
    {{PI::OP_DELETE_DEDICATED_HOTSPARE, 2, 2, 1, 1, 0, 2, 2, 22032},
     CheckSpareDeletion,
     [](IPLUGINAPI_IMPL& plugin, CRVXPhysicalDrive& drive, PI::COperation&)
         ZQ_REQUIRES(plugin.m_DataLock) { return plugin.DeleteDedicatedHotSpare(drive); }},
    {{PI::OP_REPLACE_MISSING_DRIVE, 2, 2, 1, 1, 0, 1, 2, 22058},
     [](IPLUGINAPI_IMPL& plugin, CRVXPhysicalDrive& drive, PI::COperation&)
         ZQ_REQUIRES(plugin.m_DataLock) -> unsigned int {
           if (!IsFree(drive))
             return drive.m_SpareState == PI::SPARE_STATE_PENDING ? PI::ERR_MISSING_DRIVE_PENDING
                                                                  : PI::ERR_DRIVE_NOT_MISSING;
           // Never allowed: md arrays have no missing drives to ask for, and the question is answered with
           // none.
           PI::COperation question;
           question.m_Code = question.m_SecondCode = PI::OP_GET_MISSING_DRIVES;
           plugin.ExecutePhysicalDriveOperation(drive, question);
           return question.m_Parameters.empty() ? PI::ERR_GENERAL : PI::OK;
         }},
    // Offered a second time under another label; the first row answers for both.
    {{PI::OP_REPLACE_MISSING_DRIVE, 2, 2, 1, 1, 0, 2, 2, 22073}},
    {{PI::OP_GET_MISSING_DRIVES, 3, 1, 1, 1, 0, 0, 1, 1}},
};

unsigned int IPLUGINAPI_IMPL::GetPhysicalDriveOperations(CRVXPhysicalDrive&,
                                                         std::vector<PI::COperation>& out) {
  OfferOperations(DRIVE_OPERATIONS, out);
  for (PI::COperation& operation : out) {
    if (operation.m_Code != PI::OP_CREATE_DEDICATED_HOTSPARE &&
        operation.m_Code != PI::OP_REPLACE_MISSING_DRIVE)
      continue;
    PI::CProperty parameter(PI::PROP_TARGET_LOGICAL_DRIVE, true);
    parameter.SetValue(0UL);
    operation.m_Parameters.push_back(parameter);
  }
  return PI::OK;
}

unsigned int IPLUGINAPI_IMPL::CheckPhysicalDriveOperation(CRVXPhysicalDrive& drive,
                                                          PI::COperation& operation) {
  // A resync does not block: md takes spares while it runs.
  for (const CRVXLogicalDrive& array : m_LogicalDrives)
    if (array.m_Activity == PI::ACTIVITY_REBUILDING) return PI::ERR_BUSY;
  const auto* const row = FindOperation(DRIVE_OPERATIONS, operation.m_Code);
  if (row != nullptr && row->m_Check != nullptr) return row->m_Check(*this, drive, operation);
  // Unlike with the other kinds of objects, what has no check is not allowed.
  RVX_TRACE(TRACE_LIFECYCLE, "CheckPhysicalDriveOperation() no valid operation found");
  return PI::ERR_OPERATION_NOT_SUPPORTED;
}

unsigned int IPLUGINAPI_IMPL::ExecutePhysicalDriveOperation(CRVXPhysicalDrive& drive,
                                                            PI::COperation& operation) {
  const unsigned int status = ExecuteByRow(DRIVE_OPERATIONS, *this, drive, operation);
  if (status == PI::OK) m_PrivateEvent.Set();
  return status;
}

unsigned int IPLUGINAPI_IMPL::CreateDedicatedHotSpare(CRVXPhysicalDrive& drive, int arrayNumber) {
  return AddSpare(*this, "CreateDedicatedHotSpare()", drive, arrayNumber);
}

unsigned int IPLUGINAPI_IMPL::CreateMissingDrive(CRVXPhysicalDrive& drive, int arrayNumber) {
  return AddSpare(*this, "CreateMissingDrive()", drive, arrayNumber);
}

unsigned int IPLUGINAPI_IMPL::DeleteDedicatedHotSpare(CRVXPhysicalDrive& drive) {
  return RemoveSpare(*this, drive);
}

}  // namespace NAMESPACE_piRVX
