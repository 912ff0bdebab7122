/// @file
/// Operations of logical drives: rebuild, deletion, configuration.

#include "Src/piRVXLevels.h"
#include "Src/piRVXLogicalDriveConfiguration.h"
#include "Src/piRVXLogicalDriveRebuild.h"
#include "Src/piRVXOperations.h"
#include "Src/piRVXPlugin.h"
#include "Src/piRVXTrace.h"

namespace NAMESPACE_piRVX {

namespace {

constexpr char TRACE_SOURCE[] = "Src/piRVXLogicalDrive";
constexpr std::uint32_t NONE = 0xFFFFFFFFU;

unsigned int PutFound(std::optional<int> found, int& diskID) {
  diskID = found.value_or(diskID);
  return found ? PI::OK : PI::INVALID_OBJECT_ID;
}

}  // namespace

/// Code, category, the framework's attribute words, confirmation or label; check; execution.
constexpr SOperationRow<CRVXLogicalDrive> IPLUGINAPI_IMPL::ARRAY_OPERATIONS[] = {
    {{PI::OP_START_REBUILD, 1, 2, 2, 2, 0, NONE, 1, 1},
     [](IPLUGINAPI_IMPL&, CRVXLogicalDrive& array, PI::COperation& operation) -> unsigned int {
       if (const SRaidLevel* const level = FindRaidLevel(array.m_RaidLevel);
           level != nullptr && !level->m_Redundant)
         return PI::ERR_NO_REDUNDANCY;
       if (array.m_Activity != PI::ACTIVITY_NONE) return PI::ERR_BUSY;
       if (array.m_Status != PI::STATUS_DEGRADED && array.m_Status != PI::STATUS_FAILED)
         return PI::ERR_STATE_FORBIDS_REBUILD;
       operation.m_Attributes.back() = 1;
       operation.m_ConfirmationCode = 1;
       return PI::OK;
     },
     [](IPLUGINAPI_IMPL& plugin, CRVXLogicalDrive& array, PI::COperation&) {
       return StartRebuild(plugin.m_OS, array);
     }},
    {{PI::OP_CANCEL_REBUILD, 1, 2, 1, 3, 0, NONE, 2, 22017},
     [](IPLUGINAPI_IMPL&, CRVXLogicalDrive& array, PI::COperation&) -> unsigned int {
       return array.m_Activity == PI::ACTIVITY_REBUILDING ? PI::OK : PI::ERR_NO_REBUILD_RUNNING;
     },
     [](IPLUGINAPI_IMPL& plugin, CRVXLogicalDrive& array, PI::COperation&) {
       return CancelRebuild(plugin.m_OS, array);
     }},
    {{PI::OP_DELETE_LOGICAL_DRIVE, 1, 2, 1, 8, 0, NONE, 3, 22000},
     [](IPLUGINAPI_IMPL& plugin, CRVXLogicalDrive& array, PI::COperation& operation)
         ZQ_REQUIRES(plugin.m_DataLock) {
           return plugin.DeleteLogicalDriveAllowed(array, &operation.m_ConfirmationCode);
         },
     [](IPLUGINAPI_IMPL& plugin, CRVXLogicalDrive& array,
        PI::COperation&) ZQ_REQUIRES(plugin.m_DataLock) -> unsigned int {
       if (plugin.IsBusy(array)) {
         RVX_TRACE(TRACE_LIFECYCLE, "ExecuteLogicalDriveOperation() array (%s) is busy", array.m_KernelName);
         return PI::ERR_BUSY;
       }
       const unsigned int status = plugin.DeleteLogicalDrive(array);
       if (status == PI::OK) plugin.m_ForceWorker.Set();
       return status;
     }},
    {{PI::OP_GET_CONFIGURATION, 3, 1, 1, 1, 0, 0, 1, 1},
     nullptr,
     [](IPLUGINAPI_IMPL&, CRVXLogicalDrive& array, PI::COperation& operation) -> unsigned int {
       operation.m_LogicalDrives.assign(1, PI::CLogicalDrive(array.m_Configuration));
       return PI::OK;
     }},
};

unsigned int IPLUGINAPI_IMPL::GetLogicalDriveOperations(CRVXLogicalDrive&, std::vector<PI::COperation>& out) {
  return OfferOperations(ARRAY_OPERATIONS, out);
}

unsigned int IPLUGINAPI_IMPL::CheckLogicalDriveOperation(CRVXLogicalDrive& array, PI::COperation& operation) {
  RVX_TRACE(TRACE_LIFECYCLE, "ENTER CheckLogicalDriveOperation(%d/%d)", array.m_ArrayNumber,
            operation.m_Code);
  return CheckByRow(ARRAY_OPERATIONS, *this, array, operation);
}

unsigned int IPLUGINAPI_IMPL::ExecuteLogicalDriveOperation(CRVXLogicalDrive& array,
                                                           PI::COperation& operation) {
  RVX_TRACE(TRACE_LIFECYCLE, "ENTER ExecuteLogicalDriveOperation(%d, %d)", array.m_ArrayNumber,
            operation.m_Code);
  return ExecuteByRow(ARRAY_OPERATIONS, *this, array, operation);
}

unsigned int IPLUGINAPI_IMPL::GetLogicalDriveConfiguration(CRVXLogicalDrive& array,
                                                           PI::CLogicalDrive& description,
                                                           std::vector<CRVXPhysicalDrive>& drives) {
  return ReadConfiguration(m_OS, array, description, drives);
}

unsigned int IPLUGINAPI_IMPL::FindRebuildingPhysicalDrive(int arrayNumber, int& diskID) {
  return PutFound(FindMember(*this, "FindRebuildingPhysicalDrive()", arrayNumber,
                             [](const mdu_disk_info_s& disk, const mdu_array_info_s& info) {
                               return Md::IsBeingRebuilt(disk) && disk.raid_disk >= 0 &&
                                      disk.raid_disk < info.raid_disks;
                             }),
                  diskID);
}

unsigned int IPLUGINAPI_IMPL::FindPhysicalDriveForRebuild(int arrayNumber, int& diskID) {
  return PutFound(
      FindMember(*this, "FindPhysicalDriveForRebuild()", arrayNumber,
                 [](const mdu_disk_info_s& disk, const mdu_array_info_s&) { return Md::IsFaulty(disk); }),
      diskID);
}

}  // namespace NAMESPACE_piRVX
