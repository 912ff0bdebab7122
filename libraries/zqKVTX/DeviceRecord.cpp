#include "libraries/zqKVTX/DeviceRecord.h"

#include <libudev.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <memory>

#include "libraries/common/CancellationGuard.h"

namespace KVTX::Internal {
namespace {

struct SUnref {
  void operator()(udev* context) const { udev_unref(context); }
  void operator()(udev_device* device) const { udev_device_unref(device); }
};

/// A name below /dev as udev's records have it.
std::string BelowDev(const char* path) { return std::string(path).substr(sizeof("/dev/") - 1); }

}  // namespace

std::optional<std::vector<std::string>> DeviceRecord(const std::string& node) {
  const KVT::Internal::CCancellationGuard noCancel;
  struct stat status {};
  if (stat(node.c_str(), &status) != 0 || !S_ISBLK(status.st_mode)) return std::nullopt;
  const std::unique_ptr<udev, SUnref> context(udev_new());
  const std::unique_ptr<udev_device, SUnref> found(
      udev_device_new_from_devnum(context.get(), 'b', status.st_rdev));
  udev_device* const device = found.get();
  if (device == nullptr || udev_device_get_devpath(device) == nullptr ||
      udev_device_get_devnode(device) == nullptr)
    return std::nullopt;

  std::vector<std::string> lines;
  const auto add = [&](const char* kind, const char* value) {
    if (value != nullptr) lines.push_back(std::string(kind) + value);
  };
  add("P: ", udev_device_get_devpath(device));
  add("M: ", udev_device_get_sysname(device));
  add("R: ", udev_device_get_sysnum(device));
  add("U: ", udev_device_get_subsystem(device));
  add("T: ", udev_device_get_devtype(device));
  const std::string number =
      std::to_string(major(status.st_rdev)) + ':' + std::to_string(minor(status.st_rdev));
  add("D: b ", number.c_str());
  add("N: ", BelowDev(udev_device_get_devnode(device)).c_str());
  udev_list_entry* entry = nullptr;
  udev_list_entry_foreach(entry, udev_device_get_devlinks_list_entry(device))
      add("S: ", BelowDev(udev_list_entry_get_name(entry)).c_str());
  add("Q: ", udev_device_get_property_value(device, "DISKSEQ"));
  add("V: ", udev_device_get_driver(device));
  udev_list_entry_foreach(entry, udev_device_get_properties_list_entry(device)) add(
      "E: ", (std::string(udev_list_entry_get_name(entry)) + '=' + udev_list_entry_get_value(entry)).c_str());
  lines.emplace_back();  // a record ends with an empty line
  return lines;
}

}  // namespace KVTX::Internal
