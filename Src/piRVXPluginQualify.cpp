/// @file
/// The controllers whose disks are managed, and the way from a disk to its controller.

#include "Src/piRVXPluginQualify.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "KVT/Threading.h"
#include "Src/md/ProcTexts.h"
#include "Src/piRVXTrace.h"
#include "system/Descriptor.h"

namespace NAMESPACE_piRVX {

namespace {

constexpr char TRACE_SOURCE[] = "Src/piRVXPlugin";

constexpr std::array<std::string_view, 2> VENDORS = {"0x1000", "0x8086"};
constexpr std::array<std::string_view, 5> DRIVERS = {"ahci", "ata_piix", "mptsas", "mpt2sas", "mpt3sas"};

template <std::size_t COUNT>
bool Contains(const std::array<std::string_view, COUNT>& list, const std::string& text) {
  return std::find(list.begin(), list.end(), text) != list.end();
}

/// Last component of a path without its extension.
std::string BaseName(const std::string& path) { return boost::filesystem::path(path).stem().string(); }

/// Where a link points to, or the path itself when it is none.
std::string Resolve(OS::COperatingSystem& os, const std::string& path) {
  return os.ReadLink(path).value_or(path);
}

/// The PCI vendor id as the file has it.
std::string ReadVendor(OS::COperatingSystem& os, const std::string& path) {
  std::string line{Md::FirstLine(OS::ReadText(os, Resolve(os, path)).value_or(""), 255)};
  // The last character goes whatever it is: the kernel always ends the line.
  if (!line.empty()) line.pop_back();
  return line;
}

}  // namespace

std::string CQualification::GetHostPath(const std::string& deviceName) {
  if (m_UdevadmHangs) return {};
  boost::filesystem::path program;
  if (m_OS.GetCommandPath("udevadm", program) != 1) return {};
  std::vector<std::string> lines;
  if (const int result = m_OS.ExecuteCommand(program, Text("info -q all -n /dev/%s", deviceName), lines);
      result != 1) {
    RVX_TRACE(TRACE_INFORMATION, "GetHostPath: execute returned with %d", result);
    if (result == static_cast<int>(KVT::Threading::WAIT_TIMED_OUT)) {
      m_UdevadmHangs = true;
      RVX_ERROR("udevadm gave no answer about %s in time: this scan asks about no further disk", deviceName);
    }
    return {};
  }
  return Md::HostPathOfRecord(lines);
}

bool CQualification::checkpd(const std::string& devicePath, const char* deviceName) {
  RVX_TRACE(TRACE_THREADS, "ENTER checkpd(%s %s)", devicePath, deviceName);
  const auto leave = [](bool supported) {
    RVX_TRACE(TRACE_THREADS, "LEAVE checkpd(%d)", supported ? 1 : 0);
    return supported;
  };
  if (!OS::CDescriptor(m_OS, devicePath, O_RDONLY).IsOpen()) return leave(false);

  const auto link = m_OS.ReadLink(devicePath);
  if (link)
    RVX_TRACE(TRACE_THREADS, "read_symlink link=%s", *link);
  else
    RVX_TRACE(TRACE_THREADS, "read_symlink path=%s", devicePath);
  const std::string path = link.value_or(devicePath);
  RVX_TRACE(TRACE_THREADS, "building path=%s", path);
  const std::string base = BaseName(path);
  RVX_TRACE(TRACE_THREADS, "deviceName=%s base=%s", deviceName, base);

  const std::string hostPath = GetHostPath(deviceName);
  if (hostPath.empty()) return false;
  RVX_TRACE(TRACE_THREADS, "path now: %s", hostPath);

  const std::string vendorPath = hostPath + "/vendor";
  RVX_TRACE(TRACE_THREADS, "str= %s", vendorPath);
  const std::string line = ReadVendor(m_OS, vendorPath);
  const std::string vendor = BaseName(line);
  RVX_TRACE(TRACE_THREADS, "vendor=%s", vendor);
  RVX_TRACE(TRACE_THREADS, "strlen(buffer)=%d vendor=>%s<", line.size(), vendor);
  if (!Contains(VENDORS, vendor)) {
    RVX_TRACE(TRACE_THREADS, "Unsupported Vendor");
    return leave(false);
  }
  RVX_TRACE(TRACE_THREADS, "Supported Vendor");

  const std::string driverPath = hostPath + "/driver";
  RVX_TRACE(TRACE_THREADS, "str= %s", driverPath);
  const std::string driver = BaseName(Resolve(m_OS, driverPath));
  if (!Contains(DRIVERS, driver)) {
    RVX_TRACE(TRACE_THREADS, "Driver %s base=%s is not supported for RVX", base, driver);
    return leave(false);
  }
  RVX_TRACE(TRACE_THREADS, "Driver %s base=%s is supported for RVX", base, driver);
  return leave(true);
}

}  // namespace NAMESPACE_piRVX
