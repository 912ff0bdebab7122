#include "Src/md/Ata.h"

#include <linux/hdreg.h>

#include <algorithm>

#include "system/Descriptor.h"

namespace Md {

std::optional<TSmartBlock> ReadSmartBlock(OS::COperatingSystem& os, const std::string& devicePath) {
  const OS::CBlockDevice device(os, devicePath, O_RDONLY);
  if (!device.IsOpen()) return std::nullopt;
  TSmartBlock block{};
  // Command SMART, sector number 0, feature READ DATA, one sector; the answer follows the four bytes.
  constexpr std::size_t HEADER = 4;
  std::array<unsigned char, HEADER + std::tuple_size_v<TSmartBlock>> buffer{WIN_SMART, 0, SMART_READ_VALUES,
                                                                            1};
  if (os.Ioctl(device.Get(), HDIO_DRIVE_CMD, buffer.data()) < 0) return std::nullopt;
  std::copy(buffer.begin() + HEADER, buffer.end(), block.begin());
  return block;
}

}  // namespace Md
