#include "libraries/zqKVTX/Partitions.h"

#include <libmount/libmount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <boost/filesystem/directory.hpp>
#include <boost/filesystem/operations.hpp>
#include <fstream>
#include <map>
#include <memory>

#include "libraries/common/CancellationGuard.h"
#include "libraries/common/TextStream.h"

namespace KVTX {
namespace Internal {
namespace {

namespace fs = boost::filesystem;

struct SUnrefTable {
  void operator()(libmnt_table* table) const { mnt_unref_table(table); }
};
using CTable = std::unique_ptr<libmnt_table, SUnrefTable>;

std::string FirstLine(const fs::path& file) {
  std::ifstream stream(file.string());
  std::string line;
  std::getline(stream, line);
  return line;
}

CTable ReadSwaps(const std::string& file) {
  CTable table(mnt_new_table());
  return table && mnt_table_parse_swaps(table.get(), file.c_str()) == 0 ? std::move(table) : CTable();
}

std::string MountPoint(const SBlockNode& node, const CTable& mounts, const CTable& swaps) {
  const char* device = node.m_Device.c_str();
  if (mounts) {
    libmnt_fs* found = mnt_table_find_devno(mounts.get(), node.m_Number, MNT_ITER_FORWARD);
    // A file system on several devices is mounted under a number of its own.
    if (found == nullptr) found = mnt_table_find_srcpath(mounts.get(), device, MNT_ITER_FORWARD);
    if (found != nullptr) return mnt_fs_get_target(found);
  }
  const bool swap = swaps && mnt_table_find_srcpath(swaps.get(), device, MNT_ITER_FORWARD) != nullptr;
  return swap ? "[SWAP]" : "";
}

}  // namespace

std::vector<SBlockNode> ReadPartitions(const fs::path& sysfsFolder) {
  std::map<int, SBlockNode> partitions;
  for (const fs::directory_entry& entry : fs::directory_iterator(sysfsFolder)) {
    auto place = KVT::Internal::TextStream(FirstLine(entry.path() / "partition"));
    auto number = KVT::Internal::TextStream(FirstLine(entry.path() / "dev"));
    int index = 0;
    unsigned int major = 0;
    unsigned int minor = 0;
    char colon = 0;
    if (!(place >> index) || !(number >> major >> colon >> minor)) continue;
    std::string name = entry.path().filename().string();
    std::replace(name.begin(), name.end(), '!', '/');  // sysfs writes cciss/c0d0p1 so
    partitions[index] = {"/dev/" + name, makedev(major, minor)};
  }
  std::vector<SBlockNode> nodes;
  for (auto& [index, node] : partitions) nodes.push_back(std::move(node));
  return nodes;
}

std::vector<CPartition> FindMountPoints(const std::vector<SBlockNode>& nodes, const std::string& mountInfo,
                                        const std::string& swaps) {
  const CTable mountTable(mnt_new_table_from_file(mountInfo.c_str()));
  const CTable swapTable = ReadSwaps(swaps);
  std::vector<CPartition> result;
  for (const SBlockNode& node : nodes) {
    std::string mountPoint = MountPoint(node, mountTable, swapTable);
    const bool isDisk = &node == nodes.data();
    if (!isDisk || !mountPoint.empty()) result.push_back({node.m_Device, {}, std::move(mountPoint)});
  }
  return result;
}

}  // namespace Internal

std::vector<CPartition> CSystemPartitionTable::GetPartitions(const std::string& device) {
  const KVT::Internal::CCancellationGuard noCancel;
  struct stat status {};
  if (stat(device.c_str(), &status) != 0 || !S_ISBLK(status.st_mode)) return {};
  const dev_t number = status.st_rdev;
  const std::string folder =
      "/sys/dev/block/" + std::to_string(major(number)) + ':' + std::to_string(minor(number));
  try {
    std::vector<Internal::SBlockNode> nodes = Internal::ReadPartitions(folder);
    nodes.insert(nodes.begin(), {device, number});
    return Internal::FindMountPoints(nodes, "/proc/self/mountinfo", "/proc/swaps");
  } catch (const boost::filesystem::filesystem_error&) {  // the device went away
    return {};
  }
}

}  // namespace KVTX
