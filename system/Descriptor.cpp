#include "system/Descriptor.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace OS {

int CBlockDevice::OpenBlockDevice(COperatingSystem& os, const std::string& path, int flags) {
  struct stat status {};
  if (os.Status(path, status) != 0) return -1;
  if (S_ISBLK(status.st_mode)) return os.Open(path, flags);
  errno = ENOTBLK;
  return -1;
}

std::optional<dev_t> DeviceNumber(COperatingSystem& os, const std::string& path) {
  struct stat status {};
  const CBlockDevice node(os, path, O_RDONLY);
  if ((node.IsOpen() ? os.Status(node.Get(), status) : os.Status(path, status)) != 0) return std::nullopt;
  return status.st_rdev;
}

std::optional<std::string> ReadText(COperatingSystem& os, const std::string& path) {
  constexpr std::size_t LONGEST = 1024UL * 1024;
  const CDescriptor file(os, path, O_RDONLY);
  if (!file.IsOpen()) return std::nullopt;
  const bool inSysfs = path.starts_with("/sys/");
  std::string text;
  std::array<char, 4096> piece;
  while (text.size() < LONGEST) {
    const ssize_t size = os.Read(file.Get(), piece.data(), std::min(piece.size(), LONGEST - text.size()));
    if (size < 0) return std::nullopt;
    text.append(piece.data(), static_cast<std::size_t>(size));
    // sysfs hands out a file in one piece: what is shorter than was asked for is all of it.
    if (size == 0 || (inSysfs && static_cast<std::size_t>(size) < piece.size())) break;
  }
  return text;
}

}  // namespace OS
