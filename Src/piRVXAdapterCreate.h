#pragma once
/// @file
/// Creation of arrays.

#include "PI/LogicalDrive.h"
#include "Src/piRVXPluginModel.h"

namespace NAMESPACE_piRVX {

/// Puts the name of a free array into the buffer of at least 30 bytes and sees to its device node; -1: none
/// is free.
int NameNewArray(CModel& model, char* buffer) ZQ_REQUIRES(model.m_DataLock);
/// Makes a running array of free drives. Nothing is undone on failure: what is half-made stays until it is
/// stopped.
unsigned int CreateArray(CModel& model, const PI::CLogicalDrive& request) ZQ_REQUIRES(model.m_DataLock);

}  // namespace NAMESPACE_piRVX
