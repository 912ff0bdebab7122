#pragma once
/// @file
/// Dedicated hot spares.

#include "Src/piRVXPluginModel.h"

namespace NAMESPACE_piRVX {

/// Makes the drive a spare of the array; `function` names the caller in traces. A drive that md does not take
/// is wiped.
unsigned int AddSpare(CModel& model, const char* function, CRVXPhysicalDrive& drive, int arrayNumber)
    ZQ_REQUIRES(model.m_DataLock);
/// Takes a spare, or a failed member without a slot, from its array and wipes it.
unsigned int RemoveSpare(CModel& model, CRVXPhysicalDrive& drive) ZQ_REQUIRES(model.m_DataLock);

}  // namespace NAMESPACE_piRVX
