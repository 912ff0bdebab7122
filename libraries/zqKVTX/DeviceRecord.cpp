#include "libraries/zqKVTX/DeviceRecord.h"

#include <libudev.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <map>
#include <memory>
#include <mutex>

#include "libraries/common/CancellationGuard.h"

namespace KVTX::Internal {
namespace {

using TLines = std::vector<std::string>;

/// Tells a device, and what udev wrote down of it, from any that had its number before: sysfs makes an inode
/// for each device that comes, udev a file each time that it writes.
struct SState {
  ino_t m_Device{0};
  ino_t m_Database{0};
  std::int64_t m_Seconds{0};  ///< of the database's change
  long m_Nanoseconds{0};

  bool operator==(const SState&) const = default;
};

std::optional<SState> StateOf(const std::string& number) {
  struct stat status {};
  if (stat(("/sys/dev/block/" + number).c_str(), &status) != 0) return std::nullopt;
  SState state{.m_Device = status.st_ino};
  if (stat(("/run/udev/data/b" + number).c_str(), &status) == 0) {
    state.m_Database = status.st_ino;
    state.m_Seconds = status.st_ctim.tv_sec;
    state.m_Nanoseconds = status.st_ctim.tv_nsec;
  }
  return state;
}

struct SUnref {
  void operator()(udev* context) const { udev_unref(context); }
  void operator()(udev_device* device) const { udev_device_unref(device); }
};

/// A path below /dev as udev's records have it.
std::string BelowDev(const char* path) { return std::string(path).substr(sizeof("/dev/") - 1); }

/// Empty when libudev does not know the device.
TLines Read(dev_t device, const std::string& number) {
  const std::unique_ptr<udev, SUnref> context(udev_new());
  const std::unique_ptr<udev_device, SUnref> owner(udev_device_new_from_devnum(context.get(), 'b', device));
  udev_device* const found = owner.get();
  if (found == nullptr || udev_device_get_devpath(found) == nullptr ||
      udev_device_get_devnode(found) == nullptr)
    return {};
  TLines lines;
  const auto add = [&](const std::string& kind, const char* value) {
    if (value != nullptr) lines.push_back(kind + value);
  };
  add("P: ", udev_device_get_devpath(found));
  add("M: ", udev_device_get_sysname(found));
  add("R: ", udev_device_get_sysnum(found));
  add("U: ", udev_device_get_subsystem(found));
  add("T: ", udev_device_get_devtype(found));
  lines.push_back("D: b " + number);
  lines.push_back("N: " + BelowDev(udev_device_get_devnode(found)));
  for (auto* link = udev_device_get_devlinks_list_entry(found); link != nullptr;
       link = udev_list_entry_get_next(link))
    lines.push_back("S: " + BelowDev(udev_list_entry_get_name(link)));
  add("Q: ", udev_device_get_property_value(found, "DISKSEQ"));
  add("V: ", udev_device_get_driver(found));
  for (auto* property = udev_device_get_properties_list_entry(found); property != nullptr;
       property = udev_list_entry_get_next(property))
    add("E: " + std::string(udev_list_entry_get_name(property)) + '=', udev_list_entry_get_value(property));
  lines.emplace_back();  // it ends a record
  return lines;
}

struct SKnownRecords {
  std::mutex m_Lock;
  std::map<std::string, std::pair<SState, TLines>> m_Records;  ///< by device number
};

/// Never destroyed: threads ask until the process ends.
SKnownRecords& KnownRecords() {
  static auto* const records = new SKnownRecords;
  return *records;
}

}  // namespace

std::optional<std::vector<std::string>> DeviceRecord(const std::string& node) {
  const KVT::Internal::CCancellationGuard noCancel;
  struct stat status {};
  if (stat(node.c_str(), &status) != 0 || !S_ISBLK(status.st_mode)) return std::nullopt;
  const std::string number =
      std::to_string(major(status.st_rdev)) + ':' + std::to_string(minor(status.st_rdev));
  // Before the reading: what changes meanwhile shows as a change next time.
  const std::optional<SState> state = StateOf(number);
  if (!state) return std::nullopt;
  auto& [lock, records] = KnownRecords();
  {
    const std::lock_guard guard(lock);
    if (const auto known = records.find(number); known != records.end() && known->second.first == *state)
      return known->second.second;
  }
  TLines lines = Read(status.st_rdev, number);
  if (lines.empty()) return std::nullopt;
  constexpr std::size_t MOST = 1024;  // those of devices that are gone stay; no machine has so many disks
  const std::lock_guard guard(lock);
  if (records.size() >= MOST) records.clear();
  records.insert_or_assign(number, std::pair(*state, lines));
  return lines;
}

}  // namespace KVTX::Internal
