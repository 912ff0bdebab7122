#pragma once
/// @file
/// Rebuilds of arrays: start, cancellation, and which member they are about.

#include <optional>

#include "Src/piRVXPluginModel.h"

namespace NAMESPACE_piRVX {

unsigned int StartRebuild(OS::COperatingSystem& os, const CRVXLogicalDrive& array);
unsigned int CancelRebuild(OS::COperatingSystem& os, const CRVXLogicalDrive& array);

/// Whether a member is the one looked for.
using TWantedMember = bool(const mdu_disk_info_s& disk, const mdu_array_info_s& info);
/// The first such member of the first array of this number: (major << 8) | minor; none when there is none.
/// `function` names the caller in traces.
std::optional<int> FindMember(CModel& model, const char* function, int arrayNumber, TWantedMember wanted)
    ZQ_REQUIRES(model.m_DataLock);

}  // namespace NAMESPACE_piRVX
