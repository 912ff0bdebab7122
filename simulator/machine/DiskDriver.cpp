#include "simulator/machine/DiskDriver.h"

#include <linux/hdreg.h>

#include <algorithm>
#include <cerrno>
#include <numeric>

namespace Simulation {
namespace {

/// What SMART READ DATA answers.
std::array<unsigned char, 512> SmartBlock(const std::vector<SSmartAttribute>& attributes) {
  std::array<unsigned char, 512> block{16};  // revision of the structure
  auto* byte = block.begin() + 2;
  const auto append = [&byte](std::uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) *byte++ = static_cast<unsigned char>(value >> 8 * i & 0xff);
  };
  for (const SSmartAttribute& attribute : attributes) {
    append(attribute.m_ID, 1);
    append(attribute.m_Flags, 2);
    append(attribute.m_Value, 1);
    append(attribute.m_Worst, 1);
    append(attribute.m_Raw, 7);  // 48 bits, and one that is reserved
  }
  // The last byte makes the sum of all bytes zero.
  block.back() = static_cast<unsigned char>(-std::accumulate(block.begin(), block.end(), 0) & 0xff);
  return block;
}

/// HDIO_DRIVE_CMD with SMART READ DATA; the data lies behind the four bytes of the command.
int DriveCommand(const SDisk& disk, void* argument) {
  if (argument == nullptr) return EFAULT;
  constexpr unsigned char SMART_READ_DATA = 0xD0;
  auto* bytes = static_cast<unsigned char*>(argument);
  const bool isRead = bytes[0] == WIN_SMART && bytes[2] == SMART_READ_DATA && bytes[3] == 1;
  if (!isRead || !disk.m_Smart || disk.m_Asleep || disk.m_State != "running") return EIO;
  const auto block = SmartBlock(*disk.m_Smart);
  std::copy(block.begin(), block.end(), bytes + HDIO_DRIVE_CMD_HDR_SIZE);
  return 0;
}

}  // namespace

int DiskIoctl(const SMachine& machine, const SDisk& disk, unsigned long request, void* argument) {
  const bool isAta = FindDriver(machine.m_Controllers[disk.m_Controller].m_Driver).m_IsAta;
  if (request == HDIO_DRIVE_CMD) return isAta ? DriveCommand(disk, argument) : EINVAL;
  // What the two families of drivers answer to a request that they do not know.
  return isAta || disk.m_Name.starts_with("vd") ? ENOTTY : EINVAL;
}

}  // namespace Simulation
