#include "host/LocalMachine.h"

#include <blkid/blkid.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cctype>
#include <fstream>
#include <iterator>

#include "KVT/Misc.h"
#include "KVTX/System.h"

namespace rvxctl {

namespace {

/// What was read from a disk, fit for a terminal.
std::string Printable(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](unsigned char c) { return std::iscntrl(c) != 0; }, '?');
  return text;
}

/// File-system and RAID signatures and the partition table of a device, as libblkid knows them.
std::vector<std::string> Signatures(const std::string& device) {
  const std::unique_ptr<blkid_struct_probe, decltype(&blkid_free_probe)> probe(
      blkid_new_probe_from_filename(device.c_str()), &blkid_free_probe);
  std::vector<std::string> found;
  if (!probe) return found;
  blkid_probe_enable_superblocks(probe.get(), 1);
  blkid_probe_set_superblocks_flags(probe.get(), BLKID_SUBLKS_TYPE | BLKID_SUBLKS_LABEL | BLKID_SUBLKS_USAGE);
  blkid_probe_enable_partitions(probe.get(), 1);
  while (blkid_do_probe(probe.get()) == 0) {
    const char* type = nullptr;
    const char* label = nullptr;
    if (blkid_probe_lookup_value(probe.get(), "PTTYPE", &type, nullptr) == 0)
      found.push_back(std::string(type) + " partition table");
    if (blkid_probe_lookup_value(probe.get(), "TYPE", &type, nullptr) != 0) continue;
    blkid_probe_lookup_value(probe.get(), "LABEL", &label, nullptr);
    found.push_back(std::string(type) + " signature" +
                    (label == nullptr ? "" : " labelled \"" + Printable(label) + "\""));
  }
  return found;
}

/// The machine that this program runs on.
class CThisMachine : public CLocalMachine {
 public:
  std::string SerialOf(const std::string& device) const override {
    constexpr std::string_view KEY = "ID_SERIAL_SHORT=";
    boost::filesystem::path program;
    std::vector<std::string> lines;
    if (KVT::Misc::CKvtApplication::GetCommandPath("udevadm", program) != 1) return {};
    KVTX::CSystem::ExecuteCommand(program, "info --query=property --name=" + device, lines);
    for (const std::string& line : lines)
      if (line.starts_with(KEY)) return line.substr(KEY.size());
    return {};
  }

  std::vector<std::string> ContentsOf(const std::string& device) const override {
    std::vector<std::string> contents = Signatures(device);
    for (const KVTX::CPartition& partition : KVTX::CSystemPartitionTable::GetPartitions(device)) {
      std::string text =
          partition.m_Device == device ? std::string("itself") : "partition " + partition.m_Device.substr(5);
      if (partition.m_Device != device)
        for (const std::string& signature : Signatures(partition.m_Device)) text += ", " + signature;
      if (!partition.m_MountPoint.empty()) text += ", mounted at " + Printable(partition.m_MountPoint);
      contents.push_back(text);
    }
    return contents;
  }

  std::optional<std::set<std::string>> Controllers() const override {
    std::set<std::string> drivers;
    boost::system::error_code error;
    for (boost::filesystem::directory_iterator disk("/sys/block", error), end; !error && disk != end;
         disk.increment(error)) {
      // Walk up from the disk to the first PCI function: its vendor and driver are what counts.
      boost::system::error_code ignored;
      for (auto path = boost::filesystem::canonical(disk->path() / "device", ignored);
           !ignored && path.has_parent_path(); path = path.parent_path()) {
        if (boost::filesystem::canonical(path / "subsystem", ignored).filename() != "pci") {
          ignored.clear();
          continue;
        }
        std::string vendor;
        std::ifstream((path / "vendor").string()) >> vendor;
        drivers.insert(boost::filesystem::canonical(path / "driver", ignored).filename().string() + " (" +
                       path.filename().string() + ", vendor " + vendor + ")");
        break;
      }
    }
    return drivers;
  }

  std::optional<std::string> MdStat() const override {
    std::ifstream file("/proc/mdstat");
    return std::string(std::istreambuf_iterator<char>(file), {});
  }
};

}  // namespace

std::unique_ptr<const CLocalMachine> MakeLocalMachine(bool simulated) {
  if (simulated) return std::make_unique<CLocalMachine>();
  return std::make_unique<CThisMachine>();
}

}  // namespace rvxctl
