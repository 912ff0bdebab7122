#pragma once
/// @file
/// Superblocks on the members' disks: building, reading, writing.

#include <linux/raid/md_u.h>

#include <string>

#include "Src/md/Superblock.h"
#include "Src/piRVXPluginModel.h"

namespace NAMESPACE_piRVX {

/// Fills 16 random bytes.
unsigned int GetUUID(OS::COperatingSystem& os, unsigned char* uuid);
/// Appends the text form: four groups of eight lower-case hexadecimal digits.
void UUID2String(const unsigned char* uuid, std::string& text);
/// Fills the array-wide fields; always PI::OK. The third argument is ignored.
unsigned int CreateSuperBlock1(OS::COperatingSystem& os, const mdu_array_info_s* info, unsigned int* unused,
                               const char* name, Md::md_superblock1* superBlock);
/// Completes the record for this member, in place, and writes it to the member's end: only to a block device
/// of the number and size that the scan saw, and that nobody holds.
unsigned int WriteSuperBlock1(OS::COperatingSystem& os, const CRVXPhysicalDrive& drive,
                              Md::md_superblock1* superBlock);
/// Reads what stands where the drive's superblock would; PI::OK says nothing about its contents.
unsigned int GetSuperBlock1(CModel& model, int major, int minor, Md::md_superblock1* superBlock)
    ZQ_REQUIRES(model.m_DataLock);

}  // namespace NAMESPACE_piRVX
