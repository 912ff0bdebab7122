#include "host/LocalMachine.h"

#include <blkid/blkid.h>
#include <fcntl.h>
#include <libudev.h>
#include <sys/stat.h>

#include <fstream>
#include <iterator>

#include "KVTX/System.h"
#include "host/Printable.h"

namespace rvxctl {

namespace {

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

struct SUnref {
  void operator()(udev* context) const { udev_unref(context); }
  void operator()(udev_device* device) const { udev_device_unref(device); }
  void operator()(udev_enumerate* list) const { udev_enumerate_unref(list); }
};
using CDevice = std::unique_ptr<udev_device, SUnref>;

std::string Text(const char* text) { return text == nullptr ? "" : text; }

/// The machine that this program runs on.
class CThisMachine : public CLocalMachine {
 public:
  std::string SerialOf(const std::string& device) const override {
    struct stat node {};
    if (::stat(device.c_str(), &node) != 0 || !S_ISBLK(node.st_mode)) return {};
    const CDevice found(udev_device_new_from_devnum(m_Udev.get(), 'b', node.st_rdev));
    return found ? Text(udev_device_get_property_value(found.get(), "ID_SERIAL_SHORT")) : std::string();
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
    std::set<std::string> controllers;
    const std::unique_ptr<udev_enumerate, SUnref> disks(udev_enumerate_new(m_Udev.get()));
    udev_enumerate_add_match_subsystem(disks.get(), "block");
    udev_enumerate_scan_devices(disks.get());
    for (auto* entry = udev_enumerate_get_list_entry(disks.get()); entry != nullptr;
         entry = udev_list_entry_get_next(entry)) {
      const CDevice disk(udev_device_new_from_syspath(m_Udev.get(), udev_list_entry_get_name(entry)));
      // The PCI function that is nearest to the disk: its vendor and driver are what counts.
      auto* const pci =
          disk ? udev_device_get_parent_with_subsystem_devtype(disk.get(), "pci", nullptr) : nullptr;
      if (pci != nullptr)
        controllers.insert(Text(udev_device_get_driver(pci)) + " (" + Text(udev_device_get_sysname(pci)) +
                           ", vendor " + Text(udev_device_get_sysattr_value(pci, "vendor")) + ")");
    }
    return controllers;
  }

  std::optional<std::string> MdStat() const override {
    std::ifstream file("/proc/mdstat");
    return std::string(std::istreambuf_iterator<char>(file), {});
  }

  KVT::Internal::CFileDescriptor WatchMd() const override {
    return KVT::Internal::CFileDescriptor(::open("/proc/mdstat", O_RDONLY | O_CLOEXEC));
  }

 private:
  std::unique_ptr<udev, SUnref> m_Udev{udev_new()};
};

}  // namespace

std::unique_ptr<const CLocalMachine> MakeLocalMachine(bool simulated) {
  if (simulated) return std::make_unique<CLocalMachine>();
  return std::make_unique<CThisMachine>();
}

}  // namespace rvxctl
