#include <fcntl.h>
#include <linux/major.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <sstream>
#include <thread>

#include "tests/support/Contract.h"

namespace NAMESPACE_piRVX {
namespace {

constexpr std::size_t SUPER_SIZE = 1024;
constexpr std::uint32_t MAX_DEV = 384;

/// Device numbers as requests carry them.
void* Encoded(dev_t device) {
  return reinterpret_cast<void*>(static_cast<std::uintptr_t>((minor(device) & 0xffU) | (major(device) << 8) |
                                                             ((minor(device) & ~0xffU) << 12)));
}

}  // namespace

CContract::CContract() : m_Os(GetParam().m_Make()) {}

void CContract::TearDown() {
  CloseArray();
  for (std::size_t i = 0; i < GetParam().m_Disks.size(); ++i) {
    EXPECT_TRUE(Eventually([&] { return IsFree(i); })) << Disk(i) << " is still in use";
    WriteSuper(i, std::string(SUPER_SIZE, '\0'));
  }
}

dev_t CContract::DiskDevice(std::size_t index) {
  struct stat status {};
  EXPECT_EQ(Os().Status(DiskPath(index), status), 0);
  return status.st_rdev;
}

std::uint64_t CContract::Sectors(std::size_t index) { return 2 * BlocksOf(Disk(index)); }

std::string CContract::Text(const std::string& path) {
  return ReadText(Os(), path).value_or("(cannot be read)");
}

std::vector<std::string> CContract::MdStatLines() {
  std::vector<std::string> found;
  bool inside = false;
  for (const std::string& line : Lines(Text("/proc/mdstat"))) {
    if (!line.empty() && line[0] != ' ') inside = line.starts_with(m_Name + " : ");
    if (inside) found.push_back(line);
  }
  return found;
}

void CContract::Seal(std::string& bytes) {
  Put(bytes, 216, std::uint32_t{0});
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i < bytes.size(); i += 4) {
    std::uint32_t word = 0;
    std::memcpy(&word, bytes.data() + i, 4);
    sum += word;
  }
  Put(bytes, 216, static_cast<std::uint32_t>(sum + (sum >> 32)));
}

std::vector<std::string> CContract::Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

bool CContract::Matches(const std::string& text, const std::string& pattern) {
  const testing::Matcher<const std::string&> matcher = testing::MatchesRegex(pattern);
  return matcher.Matches(text);
}

std::uint64_t CContract::BlocksOf(const std::string& name) {
  for (const std::string& line : Lines(Text("/proc/partitions"))) {
    std::istringstream fields(line);
    std::uint64_t majorNumber = 0, minorNumber = 0, blocks = 0;
    std::string found;
    if (fields >> majorNumber >> minorNumber >> blocks >> found && found == name) return blocks;
  }
  return 0;
}

unsigned int CContract::MdpMajor() {
  bool block = false;
  for (const std::string& line : Lines(Text("/proc/devices"))) {
    block = block || line == "Block devices:";
    if (block && Matches(line, "[ 0-9]{3} mdp")) return static_cast<unsigned int>(std::stoul(line));
  }
  ADD_FAILURE() << "/proc/devices does not know mdp";
  return 0;
}

void CContract::WriteSuper(std::size_t disk, const std::string& bytes) {
  const CDescriptor file(Os(), DiskPath(disk), O_RDWR | O_EXCL);
  const auto position = static_cast<std::int64_t>(SuperSector(disk) * 512);
  ASSERT_TRUE(file.IsOpen()) << DiskPath(disk) << ": " << std::strerror(errno);
  ASSERT_EQ(Os().Seek(file.Get(), position), position);
  ASSERT_EQ(Os().Write(file.Get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  ASSERT_EQ(Os().Sync(file.Get()),
            0);  // md reads past the cache, which lives on while udev has the disk open
}

std::string CContract::Superblock(std::size_t disk, const SMemberPlan& plan) {
  std::string bytes(SUPER_SIZE, '\0');
  const std::uint64_t sector = SuperSector(disk);
  const std::uint64_t usable = sector - 256;
  Put(bytes, 0, std::uint32_t{0xa92b4efc});
  Put(bytes, 4, std::uint32_t{1});
  std::fill_n(bytes.begin() + 16, 16, static_cast<char>(plan.m_Set));
  std::memcpy(bytes.data() + 32, "contract", 8);
  Put(bytes, 64, std::uint64_t{1700000000});
  Put(bytes, 72, plan.m_Level);
  Put(bytes, 80, plan.m_Size);
  Put(bytes, 88, plan.m_Chunk);
  Put(bytes, 92, plan.m_RaidDisks);
  Put(bytes, 136,
      plan.m_DataSize != 0 ? plan.m_DataSize : usable - (plan.m_Chunk == 0 ? 0 : usable % plan.m_Chunk));
  Put(bytes, 144, sector);
  Put(bytes, 160, plan.m_Number);
  std::fill_n(bytes.begin() + 168, 16, static_cast<char>(disk + 65));
  Put(bytes, 192, std::uint64_t{1700000000});
  Put(bytes, 200, plan.m_Events);
  Put(bytes, 208, plan.m_Clean ? ~std::uint64_t{0} : std::uint64_t{0});
  Put(bytes, 220, MAX_DEV);
  for (std::uint32_t slot = 0; slot < MAX_DEV; ++slot) {
    const bool used = slot < plan.m_RaidDisks;
    Put(bytes, 256 + 2 * slot, static_cast<std::uint16_t>(used ? slot : 0xffff));
  }
  Put(bytes, 256 + 2 * plan.m_Number, plan.m_Role);
  Seal(bytes);
  return bytes;
}

void CContract::CloseArray() {
  if (m_Array < 0) return;
  if (!m_Stopped) {
    const int error = Request(STOP_ARRAY);
    EXPECT_EQ(error, 0) << std::strerror(error);
  }
  Os().Close(m_Array);
  m_Array = -1;
}

int CContract::OpenArray() {
  CloseArray();
  m_Stopped = false;
  // A number of its own for every array: the kernel takes one that was stopped down in its own time.
  static unsigned int number = 40;
  ++number;
  m_Name = "md_d" + std::to_string(number);
  const std::string path = "/dev/" + m_Name;
  EXPECT_EQ(Os().MakeNode(path, S_IFBLK | 0666, makedev(MdpMajor(), number * 64)), 0) << std::strerror(errno);
  m_Array = Os().Open(path, O_RDONLY);
  EXPECT_GE(m_Array, 0) << std::strerror(errno);
  return m_Array;
}

int CContract::Request(unsigned long request, void* argument) {
  const int error = Os().Ioctl(m_Array, request, argument) == 0 ? 0 : errno;
  m_Stopped = m_Stopped || (request == STOP_ARRAY && error == 0);
  return error;
}

int CContract::SetArrayInfo() {
  mdu_array_info_t info{};
  info.major_version = 1;
  return Request(SET_ARRAY_INFO, &info);
}

int CContract::AddDisk(std::size_t disk, int number, int slot, int state) {
  mdu_disk_info_t info{};
  const dev_t device = DiskDevice(disk);
  info.number = number;
  info.major = static_cast<int>(major(device));
  info.minor = static_cast<int>(minor(device));
  info.raid_disk = slot;
  info.state = state;
  return Request(ADD_NEW_DISK, &info);
}

int CContract::Device(unsigned long request, dev_t device) { return Request(request, Encoded(device)); }

mdu_array_info_t CContract::ArrayInfo() {
  mdu_array_info_t info{};
  EXPECT_EQ(Request(GET_ARRAY_INFO, &info), 0);
  return info;
}

mdu_disk_info_t CContract::DiskInfo(int number) {
  mdu_disk_info_t info{};
  info.number = number;
  EXPECT_EQ(Request(GET_DISK_INFO, &info), 0);
  return info;
}

int CContract::Create(SMemberPlan plan, std::size_t disks) {
  OpenArray();
  if (const int error = SetArrayInfo()) return error;
  for (std::size_t i = 0; i < disks; ++i) {
    plan.m_Number = static_cast<std::uint32_t>(i);
    plan.m_Role = static_cast<std::uint16_t>(i);
    WriteSuper(i, Superblock(i, plan));
    if (const int error = AddDisk(i, static_cast<int>(i), static_cast<int>(i), 2)) return error;
  }
  return Request(RUN_ARRAY);
}

bool CContract::IsFree(std::size_t disk) {
  const CDescriptor file(Os(), DiskPath(disk), O_RDONLY | O_EXCL);
  return file.IsOpen();
}

bool CContract::Eventually(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

}  // namespace NAMESPACE_piRVX
