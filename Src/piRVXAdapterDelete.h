#pragma once
/// @file
/// Deletion of arrays and the check before it.

#include "PI/Helpers.h"
#include "Src/piRVXPluginModel.h"

namespace NAMESPACE_piRVX {

/// Whether an array may be deleted; raises `*reason`, which the caller preset, when it is in use.
unsigned int CheckDeletion(CModel& model, const CRVXLogicalDrive& array, unsigned int* reason)
    ZQ_REQUIRES(model.m_DataLock);
/// Stops an array and wipes its members' superblocks. Callers have checked.
unsigned int DeleteArray(CModel& model, PI::CConfigFile& configuration, const CRVXLogicalDrive& array)
    ZQ_REQUIRES(model.m_DataLock);

}  // namespace NAMESPACE_piRVX
