#include "simulator/machine/SimulatedFiles.h"

#include <sys/sysmacros.h>

#include <algorithm>
#include <array>
#include <boost/format.hpp>

#include "simulator/machine/MdStat.h"
#include "simulator/machine/MdSysfs.h"
#include "simulator/machine/UdevRecord.h"

namespace Simulation {
namespace {

constexpr const char* UDEVADM = "/usr/bin/udevadm";

SEntry TextEntry(std::string text) { return {EFile::Text, std::move(text), 0, 0444}; }
SEntry LinkEntry(std::string target) { return {EFile::Link, std::move(target), 0, 0777}; }
SEntry DirectoryEntry() { return {EFile::Directory, "", 0, 0755}; }

std::string Folder(const std::string& path) { return path.substr(0, path.rfind('/')); }

/// Controllers behind a bridge show it in their path.
std::string ControllerPath(const SController& controller) {
  const bool bridged = controller.m_Address.substr(5, 2) != "00";
  return "/devices/pci" + controller.m_Address.substr(0, 4) + ":00/" +
         (bridged ? controller.m_Address.substr(0, 5) + "00:1c.0/" : "") + controller.m_Address;
}

std::string ScsiAddress(const SDisk& disk) {
  return str(boost::format("%d:0:%d:0") % disk.m_Host % disk.m_Target);
}

/// SCSI identification: so many characters, padded with blanks.
std::string Padded(const std::string& text, std::size_t width) {
  return text.substr(0, width) + std::string(width - std::min(width, text.size()), ' ') + "\n";
}

std::optional<SEntry> DiskFile(const SDisk& disk, const std::string& name) {
  if (name == "device") return LinkEntry("../../../" + ScsiAddress(disk));
  if (name == "device/vendor") return TextEntry(Padded(disk.m_Vendor, 8));
  if (name == "device/model") return TextEntry(Padded(disk.m_Model, 16));
  if (name == "device/state") return TextEntry(disk.m_State + "\n");
  if (name == "queue/rotational") return TextEntry(disk.m_SolidState ? "0\n" : "1\n");
  if (name == "size") return TextEntry(std::to_string(disk.m_Size * 2) + "\n");
  if (name == "dev")
    return TextEntry(str(boost::format("%d:%d\n") % major(disk.m_Device) % minor(disk.m_Device)));
  return std::nullopt;
}

/// What stands below /sys/block, `path` without that.
std::optional<SEntry> BlockFile(SMachine& machine, const std::string& path) {
  const std::string name = path.substr(0, path.find('/'));
  const std::string rest = name.size() < path.size() ? path.substr(name.size() + 1) : "";
  if (const SDisk* disk = FindDisk(machine, name)) {
    return rest.empty() ? LinkEntry(".." + DevicePath(machine, *disk)) : DiskFile(*disk, rest);
  }
  const SArray* array = FindArray(machine, name);
  if (array == nullptr) return std::nullopt;
  if (rest.empty()) return LinkEntry("../devices/virtual/block/" + name);
  if (rest == "size") return TextEntry(std::to_string(array->m_ArraySectors) + "\n");
  if (rest == "md") return DirectoryEntry();
  const auto attribute =
      rest.starts_with("md/") ? MdAttribute(machine, *array, rest.substr(3)) : std::optional<std::string>();
  if (attribute) return TextEntry(*attribute);
  return std::nullopt;
}

/// What stands below /sys/devices, `path` from "/devices" on.
std::optional<SEntry> DeviceFile(SMachine& machine, const std::string& path) {
  for (const SController& controller : machine.m_Controllers) {
    const std::string folder = ControllerPath(controller);
    if (!path.starts_with(folder)) continue;
    const std::string name = path.substr(folder.size());
    if (name.empty()) return DirectoryEntry();
    if (name == "/vendor") return TextEntry(controller.m_Vendor + "\n");
    if (name != "/driver") continue;
    // Out of every folder that the path has below /sys.
    std::string up;
    for (auto depth = std::count(folder.begin(), folder.end(), '/'); depth > 0; --depth) up += "../";
    return LinkEntry(up + "bus/pci/drivers/" + controller.m_Driver);
  }
  const auto begin = path.find("/block/");
  if (begin == std::string::npos) return std::nullopt;
  const std::string name = path.substr(begin + 7, path.find('/', begin + 7) - begin - 7);
  const SDisk* disk = FindDisk(machine, name);
  if (disk == nullptr || !path.starts_with(DevicePath(machine, *disk))) return std::nullopt;
  const std::string rest = path.substr(DevicePath(machine, *disk).size());
  return rest.empty() ? DirectoryEntry() : DiskFile(*disk, rest.substr(1));
}

std::string PartitionsText(SMachine& machine) {
  std::string text = "major minor  #blocks  name\n\n";
  for (const SBlock& block : AllBlocks(machine)) {
    if (block.m_Size == 0) continue;
    text += str(boost::format("%4d  %7d %10d %s\n") % major(block.m_Device) % minor(block.m_Device) %
                block.m_Size % block.m_Name);
  }
  return text;
}

std::string DevicesText(const SMachine& machine) {
  std::map<unsigned int, const char*> majors = {{8, "sd"}, {9, "md"}, {254, "virtblk"}, {259, "blkext"}};
  for (unsigned int number = 65; number <= 71; ++number) majors[number] = "sd";
  for (unsigned int number = 128; number <= 135; ++number) majors[number] = "sd";
  majors[machine.m_MdpMajor] = "mdp";
  std::string text = "Character devices:\n  1 mem\n  5 /dev/tty\n 10 misc\n\nBlock devices:\n";
  for (const auto& [number, name] : majors) text += str(boost::format("%3d %s\n") % number % name);
  return text;
}

/// Nodes below /dev: the kernel makes those of its devices, others were made with mknod.
std::optional<SEntry> NodeEntry(SMachine& machine, const std::string& path) {
  for (const SNode& node : machine.m_Nodes) {
    if (node.m_Path == path) return SEntry{EFile::Block, "", node.m_Device, node.m_Mode & 07777U};
  }
  if (!path.starts_with("/dev/")) return std::nullopt;
  const auto block = FindBlock(machine, path.substr(5));
  if (!block) return std::nullopt;
  return SEntry{EFile::Block, "", block->m_Device, 0660};
}

SProgramResult RunUdevadm(SMachine& machine, const std::string& arguments) {
  const std::string prefix = "info -q all -n ";
  const std::string path = arguments.starts_with(prefix) ? arguments.substr(prefix.size()) : "";
  const auto entry = ResolveEntry(machine, path);
  const auto block =
      entry && entry->m_Kind == EFile::Block ? FindBlock(machine, entry->m_Device) : std::nullopt;
  if (!block) return {2, {}};
  std::string devicePath =
      "/devices/virtual/block/" + (block->m_Array != nullptr ? block->m_Array->m_Name : "");
  if (block->m_Disk != nullptr) devicePath = DevicePath(machine, *block->m_Disk);
  return {1, UdevRecord(machine, *block, devicePath)};
}

SProgramResult RunSdparm(SMachine& machine, const std::string& arguments) {
  const auto begin = arguments.find("/dev/");
  if (begin == std::string::npos) return {2, {"One or more device names required"}};
  const std::string path = arguments.substr(begin, arguments.find(' ', begin) - begin);
  SDisk* disk = FindDisk(machine, path.substr(5));
  if (disk == nullptr) return {2, {"open error: " + path + ": No such file or directory"}};
  std::vector<std::string> lines = {"    " + path + ": " + disk->m_Vendor + "  " + disk->m_Model + "  0001"};
  if (arguments.find("--command=start") != std::string::npos) {
    disk->m_Asleep = false;
    return {1, lines};
  }
  if (disk->m_Asleep) {
    lines.emplace_back("mode sense: device not ready");
    return {2, lines};
  }
  lines.emplace_back("Read write error recovery mode page:");
  lines.emplace_back("  AWRE          1");
  return {1, lines};
}

std::string SdparmPath(const SMachine& machine) { return Folder(machine.m_Process) + "/bin/sdparm"; }

}  // namespace

std::string DevicePath(const SMachine& machine, const SDisk& disk) {
  const SController& controller = machine.m_Controllers[disk.m_Controller];
  const SDriver& driver = FindDriver(controller.m_Driver);
  const bool virtioBlock = disk.m_Name.starts_with("vd");
  boost::format path(virtioBlock ? "/virtio%1%/block/%3%"
                                 : std::string(driver.m_AboveHost) + "/host%1%/" + driver.m_BelowHost +
                                       "target%1%:0:%2%/%1%:0:%2%:0/block/%3%");
  path.exceptions(boost::io::all_error_bits ^ boost::io::too_many_args_bit);
  return ControllerPath(controller) +
         str(path % disk.m_Host % disk.m_Target % disk.m_Name % (disk.m_Host + 1));
}

std::optional<SEntry> FindEntry(SMachine& machine, const std::string& path) {
  if (path == "/proc/partitions") return TextEntry(PartitionsText(machine));
  if (path == "/proc/mdstat") return TextEntry(MdStat(machine));
  if (path == "/proc/stat")
    return TextEntry(str(boost::format("btime %d\n") % (machine.m_ClockStart / 1000)));
  if (path == "/proc/devices") return TextEntry(DevicesText(machine));
  if (path == "/proc/self/exe") return LinkEntry(machine.m_Process);
  if (path == "/dev/urandom") return SEntry{EFile::Random, "", makedev(1, 9), 0666};
  if (path == UDEVADM || path == machine.m_Process || (machine.m_HasSdparm && path == SdparmPath(machine))) {
    return SEntry{EFile::Text, "", 0, 0755};
  }
  for (const char* folder : {"/", "/proc", "/sys", "/sys/block", "/dev"}) {
    if (path == folder) return DirectoryEntry();
  }
  if (path.starts_with("/sys/block/")) return BlockFile(machine, path.substr(11));
  if (path.starts_with("/sys/devices/")) return DeviceFile(machine, path.substr(4));
  return NodeEntry(machine, path);
}

std::optional<SEntry> ResolveEntry(SMachine& machine, const std::string& path) {
  auto entry = FindEntry(machine, path);
  // The links of sysfs lead to folders; the process's own to its program.
  if (entry && entry->m_Kind == EFile::Link) {
    return path == "/proc/self/exe" ? FindEntry(machine, machine.m_Process) : DirectoryEntry();
  }
  return entry;
}

SProgramResult RunProgram(SMachine& machine, const std::string& program, const std::string& arguments) {
  if (program == UDEVADM) return RunUdevadm(machine, arguments);
  if (machine.m_HasSdparm && program == SdparmPath(machine)) return RunSdparm(machine, arguments);
  return {0, {}};
}

}  // namespace Simulation
