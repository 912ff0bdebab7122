#pragma once

#include <sys/types.h>

#include <boost/filesystem/path.hpp>
#include <string>
#include <vector>

#include "KVTX/System.h"

namespace KVTX::Internal {

struct SBlockNode {
  std::string m_Device;  ///< such as "/dev/sda1"
  dev_t m_Number;
};

/// The partitions below a disk's folder in sysfs, by number.
ZQ_API std::vector<SBlockNode> ReadPartitions(const boost::filesystem::path& sysfsFolder);

/// Where a disk (the first node) and its partitions are in use; the disk itself is left out when it is not.
/// @param mountInfo,swaps files as the kernel writes /proc/self/mountinfo and /proc/swaps
ZQ_API std::vector<CPartition> FindMountPoints(const std::vector<SBlockNode>& nodes,
                                               const std::string& mountInfo, const std::string& swaps);

}  // namespace KVTX::Internal
