#include "host/Machine.h"

#include <blkid/blkid.h>
#include <fcntl.h>
#include <libudev.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <boost/algorithm/string/trim.hpp>
#include <boost/filesystem.hpp>
#include <memory>

#include "KVTX/System.h"
#include "system/Descriptor.h"

namespace Host {

namespace {

namespace fs = boost::filesystem;
using KVT::Internal::CFileDescriptor;

struct SUnref {
  void operator()(udev* context) const { udev_unref(context); }
  void operator()(udev_device* device) const { udev_device_unref(device); }
  void operator()(udev_enumerate* list) const { udev_enumerate_unref(list); }
};

std::string Text(const char* text) { return text == nullptr ? "" : text; }

/// "/dev/md/x" is "md/x".
std::string NameOf(const std::string& device) {
  return device.starts_with("/dev/") ? device.substr(5) : device;
}

std::string NumberText(dev_t number) {
  return std::to_string(major(number)) + ":" + std::to_string(minor(number));
}

/// What stands behind the first beginning that is so; empty without one.
std::string ValueOf(const std::vector<std::string>& lines, const std::string& begin) {
  for (const std::string& line : lines)
    if (line.starts_with(begin)) return line.substr(begin.size());
  return {};
}

/// A device of a machine that is not here, as far as signatures stand on it: its begin and its end.
CFileDescriptor CopyOf(OS::COperatingSystem& os, const std::string& device, std::uint64_t size) {
  constexpr std::uint64_t PART = 1U << 20;
  const OS::CDescriptor source(os, device, O_RDONLY);
  CFileDescriptor copy(source.IsOpen() ? ::memfd_create("device", MFD_CLOEXEC) : -1);
  if (!copy.IsOpen() || ::ftruncate(copy.Get(), static_cast<off_t>(size)) != 0) return CFileDescriptor();
  for (const std::uint64_t begin : {std::uint64_t{0}, size - std::min(size, PART)}) {
    std::string bytes(std::min(size, PART), '\0');
    if (os.Seek(source.Get(), static_cast<std::int64_t>(begin)) < 0) return CFileDescriptor();
    const ssize_t count = os.Read(source.Get(), bytes.data(), bytes.size());
    if (count < 0 ||
        ::pwrite(copy.Get(), bytes.data(), static_cast<std::size_t>(count), static_cast<off_t>(begin)) < 0)
      return CFileDescriptor();
  }
  return copy;
}

}  // namespace

std::vector<std::string> CMachine::UdevRecord(const std::string& device) const {
  fs::path udevadm;
  std::vector<std::string> lines;
  const bool isThere = m_OS.GetCommandPath("udevadm", udevadm) == 1 &&
                       m_OS.ExecuteCommand(udevadm, "info -q all -n " + device, lines) == 1;
  return isThere ? lines : std::vector<std::string>();
}

std::optional<std::uint64_t> CMachine::MadeAt(const std::string& device) const {
  const std::string counters = OS::ReadText(m_OS, "/proc/stat").value_or("");
  const std::size_t boot = counters.find("btime ");
  const std::string later = ValueOf(UdevRecord(device), "E: USEC_INITIALIZED=");
  if (boot == std::string::npos || later.empty()) return std::nullopt;
  return std::strtoull(counters.c_str() + boot + 6, nullptr, 10) +
         std::strtoull(later.c_str(), nullptr, 10) / 1000000;
}

SDeviceFacts CMachine::Facts(const std::string& device) const {
  SDeviceFacts facts;
  const auto number = OS::DeviceNumber(m_OS, device);
  if (!number) return facts;
  facts.m_Number = NumberText(*number);
  const std::string folder = "/sys/block/" + NameOf(device);
  if (const auto sectors = Line(folder + "/size"))
    facts.m_Bytes = std::strtoull(sectors->c_str(), nullptr, 10) * 512;
  if (const auto link = m_OS.ReadLink(folder + "/device"))
    if (const std::string address = link->substr(link->rfind('/') + 1); std::ranges::count(address, ':') == 3)
      facts.m_Address = address;
  const std::vector<std::string> lines = UdevRecord(device);
  const auto value = [&](const std::string& key) { return ValueOf(lines, "E: " + key + "="); };
  facts.m_Sequence = value("DISKSEQ");
  // What a SCSI disk tells of itself comes first: udev's short serial number of it is its WWN.
  facts.m_Serial = value("ID_SCSI_SERIAL");
  if (facts.m_Serial.empty()) facts.m_Serial = value("ID_SERIAL_SHORT");
  facts.m_WWN = value("ID_WWN");
  for (const std::string& line : lines)
    if (line.starts_with("S: disk/by-id/")) facts.m_ByID.push_back("/dev/" + line.substr(3));
  std::ranges::sort(facts.m_ByID);
  return facts;
}

std::optional<std::vector<std::string>> CMachine::Signatures(const std::string& device) const {
  const CFileDescriptor file(m_IsHere ? CFileDescriptor(::open(device.c_str(), O_RDONLY | O_CLOEXEC))
                                      : CopyOf(m_OS, device, Facts(device).m_Bytes.value_or(0)));
  const std::unique_ptr<blkid_struct_probe, decltype(&blkid_free_probe)> probe(blkid_new_probe(),
                                                                               &blkid_free_probe);
  std::vector<std::string> found;
  char byte = 0;
  if (!probe || !file.IsOpen() || ::pread(file.Get(), &byte, 1, 0) < 0) return std::nullopt;
  if (blkid_probe_set_device(probe.get(), file.Get(), 0, 0) != 0) return found;  // it has no bytes
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
                    (label == nullptr ? "" : " labelled \"" + std::string(label) + "\""));
  }
  return found;
}

SContents CMachine::Contents(const std::string& device) const {
  const auto signatures = Signatures(device);
  SContents contents{
      signatures.value_or(std::vector<std::string>{"cannot be read"}), {}, signatures.has_value()};
  std::vector<KVTX::CPartition> places = m_OS.GetPartitions(device);
  // The device itself is among them only where it is mounted.
  if (std::ranges::find(places, device, &KVTX::CPartition::m_Device) == places.end())
    places.insert(places.begin(), {device, {}, {}});
  for (const KVTX::CPartition& place : places) {
    const bool itself = place.m_Device == device;
    const std::string name = NameOf(place.m_Device);
    std::string text = itself ? std::string() : "partition " + name;
    const auto add = [&](const std::string& what) { text += (text.empty() ? "" : ", ") + what; };
    const auto use = [&](const std::string& what) {
      add(what);
      contents.m_InUse.push_back(std::string(name).append(" is ").append(what));
    };
    if (!itself) std::ranges::for_each(Signatures(place.m_Device).value_or(std::vector<std::string>()), add);
    if (place.m_MountPoint == "[SWAP]")
      use("used as swap");
    else if (!place.m_MountPoint.empty())
      use("mounted at " + place.m_MountPoint);
    for (const std::string& holder : Holders(place.m_Device)) use("held by " + holder);
    if (!text.empty()) contents.m_All.push_back(text);
  }
  return contents;
}

std::vector<std::string> CMachine::Holders(const std::string& device) const {
  std::vector<std::string> holders;
  if (!m_IsHere) return holders;
  std::string name = NameOf(device);
  std::ranges::replace(name, '/', '!');  // as sysfs writes cciss/c0d0
  boost::system::error_code error;
  for (fs::directory_iterator entry("/sys/class/block/" + name + "/holders", error), end;
       !error && entry != end; entry.increment(error)) {
    const std::string holder = entry->path().filename().string();
    const auto mapped = Line("/sys/class/block/" + holder + "/dm/name");
    holders.push_back(mapped ? holder + " (" + *mapped + ")" : holder);
  }
  std::ranges::sort(holders);
  return holders;
}

bool CMachine::Has(const std::string& device) const {
  struct stat node {};
  return m_OS.Status(device, node) == 0;
}

std::optional<std::set<std::string>> CMachine::Controllers() const {
  if (!m_IsHere) return std::nullopt;
  std::set<std::string> controllers;
  const std::unique_ptr<udev, SUnref> context(udev_new());
  const std::unique_ptr<udev_enumerate, SUnref> disks(udev_enumerate_new(context.get()));
  udev_enumerate_add_match_subsystem(disks.get(), "block");
  udev_enumerate_scan_devices(disks.get());
  for (auto* entry = udev_enumerate_get_list_entry(disks.get()); entry != nullptr;
       entry = udev_list_entry_get_next(entry)) {
    const std::unique_ptr<udev_device, SUnref> disk(
        udev_device_new_from_syspath(context.get(), udev_list_entry_get_name(entry)));
    // The PCI function that is nearest to the disk: its vendor and driver are what counts.
    auto* const pci =
        disk ? udev_device_get_parent_with_subsystem_devtype(disk.get(), "pci", nullptr) : nullptr;
    if (pci != nullptr)
      controllers.insert(Text(udev_device_get_driver(pci)) + " (" + Text(udev_device_get_sysname(pci)) +
                         ", vendor " + Text(udev_device_get_sysattr_value(pci, "vendor")) + ")");
  }
  return controllers;
}

std::optional<std::string> CMachine::Line(const std::string& path) const {
  auto text = OS::ReadText(m_OS, path);
  if (text) boost::trim_right(*text);
  return text;
}

std::optional<std::string> CMachine::MdStat() const { return OS::ReadText(m_OS, "/proc/mdstat"); }

std::optional<bool> CMachine::Runs(const std::string& program, const std::string& arguments) const {
  fs::path path;
  std::vector<std::string> lines;
  if (m_OS.GetCommandPath(program, path) != 1) return std::nullopt;
  return m_OS.ExecuteCommand(path, arguments, lines) == 1;
}

CFileDescriptor CMachine::WatchMd() const {
  return CFileDescriptor(m_IsHere ? ::open("/proc/mdstat", O_RDONLY | O_CLOEXEC) : -1);
}

}  // namespace Host
