#pragma once
/// @file
/// The merge of a fresh scan into the model.

#include "Src/piRVXPluginModel.h"

namespace NAMESPACE_piRVX {

/// Makes the model what a scan found, and queues the events about what is gone: all of it, or nothing when
/// memory is short (std::bad_alloc). True when anything changed.
bool Merge(CModel& model, const CRVXAdapter& adapter, std::vector<CRVXPhysicalDrive>& physicalDrives,
           std::vector<CRVXLogicalDrive>& logicalDrives) ZQ_REQUIRES(model.m_DataLock);

}  // namespace NAMESPACE_piRVX
