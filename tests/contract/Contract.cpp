#include "tests/contract/Contract.h"

#include <linux/raid/md_p.h>

#include <boost/algorithm/string/replace.hpp>
#include <cstring>
#include <sstream>

#include "Src/md/ProcTexts.h"

namespace NAMESPACE_piRVX {

void CContract::TearDown() {
  CloseArray();
  for (std::size_t i = 0; i < m_Machine.m_Disks.size(); ++i) {
    EXPECT_TRUE(Eventually([&] { return IsFree(i); })) << Disk(i) << " is still in use";
    WriteSuper(i, {});
  }
}

dev_t CContract::DiskDevice(std::size_t index) {
  struct stat status {};
  EXPECT_EQ(Os().Status(DiskPath(index), status), 0);
  return status.st_rdev;
}

int CContract::OpenError(const std::string& path, int flags) {
  const OS::CDescriptor file(Os(), path, flags);
  return file.IsOpen() ? 0 : errno;
}

std::vector<std::string> CContract::Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

std::uint64_t CContract::BlocksOf(const std::string& name) {
  for (const Md::SPartition& entry : Md::ParsePartitions(Text("/proc/partitions")))
    if (entry.m_Name == name) return entry.m_Blocks;
  return 0;
}

Md::md_superblock1 CContract::Superblock(std::size_t disk, const SArrayPlan& plan) {
  mdu_array_info_t info{};
  info.level = plan.m_Level;
  info.size = static_cast<int>(plan.m_Size / 2);
  info.chunk_size = static_cast<int>(plan.m_Chunk * 512);
  info.raid_disks = static_cast<int>(plan.m_RaidDisks);
  info.state = plan.m_Clean ? 1 << MD_SB_CLEAN : 0;
  Md::md_superblock1 record = Md::NewSuperBlock(info, "contract", {1}, 1700000000);
  const std::uint64_t usable = SuperSector(disk) - 256;
  record.data_size = plan.m_DataSize != 0 ? plan.m_DataSize
                     : plan.m_Chunk == 0  ? usable
                                          : usable - usable % plan.m_Chunk;
  record.super_offset = SuperSector(disk);
  record.dev_number = static_cast<std::uint32_t>(disk);
  record.device_uuid[0] = static_cast<std::uint8_t>(disk + 65);
  record.events = plan.m_Events;
  Seal(record);
  return record;
}

Md::md_superblock1 CContract::Changed(std::size_t disk, const SArrayPlan& plan, std::size_t offset,
                                      std::uint32_t value, bool sealed) {
  Md::md_superblock1 record = Superblock(disk, plan);
  std::memcpy(reinterpret_cast<char*>(&record) + offset, &value, sizeof(value));
  if (sealed) Seal(record);
  return record;
}

void CContract::WriteSuper(std::size_t disk, const Md::md_superblock1& superblock) {
  const OS::CDescriptor file(Os(), DiskPath(disk), O_RDWR | O_EXCL);
  const auto position = static_cast<std::int64_t>(SuperSector(disk) * 512);
  ASSERT_TRUE(file.IsOpen()) << DiskPath(disk) << ": " << std::strerror(errno);
  ASSERT_EQ(Os().Seek(file.Get(), position), position);
  ASSERT_EQ(Os().Write(file.Get(), &superblock, sizeof(superblock)),
            static_cast<ssize_t>(sizeof(superblock)));
  // md reads past the cache, which lives on while udev has the disk open.
  ASSERT_EQ(Os().Sync(file.Get()), 0);
}

void CContract::CloseArray() {
  if (m_Array < 0) return;
  EXPECT_TRUE(m_Stopped || Request(STOP_ARRAY) == 0) << std::strerror(errno);
  Os().Close(m_Array);
  m_Array = -1;
}

void CContract::OpenArray() {
  CloseArray();
  m_Stopped = false;
  // A number of its own for every array: the kernel takes one that was stopped down in its own time.
  static unsigned int number = 40;
  m_Name = "md_d" + std::to_string(++number);
  const std::string path = "/dev/" + m_Name;
  EXPECT_EQ(Os().MakeNode(path, S_IFBLK | 0666, makedev(MdpMajor(), number * 64)), 0) << std::strerror(errno);
  m_Array = Os().Open(path, O_RDONLY);
  EXPECT_GE(m_Array, 0) << std::strerror(errno);
}

std::string CContract::MdStat() {
  std::string found;
  for (std::string line : Lines(Text("/proc/mdstat"))) {
    if (line.starts_with(m_Name + " : ")) {
      line.erase(0, m_Name.size() + 3);
      for (std::size_t i = 0; i < m_Machine.m_Disks.size(); ++i)
        boost::replace_all(line, " " + Disk(i) + "[", " " + std::to_string(i) + "[");
    } else if (found.empty()) {
      continue;
    } else if (!line.starts_with(" ")) {
      break;
    }
    found += (found.empty() ? "" : "|") + line;
  }
  return found;
}

int CContract::Request(unsigned long request, void* argument) {
  const int answer = Os().Ioctl(m_Array, request, argument);
  const int error = answer > 0 ? answer : ErrorOf(answer);
  m_Stopped = m_Stopped || (request == STOP_ARRAY && error == 0);
  return error;
}

int CContract::Device(unsigned long request, dev_t device) {
  const std::uintptr_t number =
      (minor(device) & 0xffU) | (major(device) << 8) | ((minor(device) & ~0xffU) << 12);
  return Request(request, reinterpret_cast<void*>(number));
}

int CContract::SetArrayInfo() {
  mdu_array_info_t info{};
  info.major_version = 1;
  return Request(SET_ARRAY_INFO, &info);
}

int CContract::AddDisk(std::size_t disk, bool active) {
  mdu_disk_info_t info{};
  const dev_t device = DiskDevice(disk);
  info.number = static_cast<int>(disk);
  info.major = static_cast<int>(major(device));
  info.minor = static_cast<int>(minor(device));
  info.raid_disk = active ? info.number : -1;
  info.state = active ? 1 << MD_DISK_ACTIVE : 0;
  return Request(ADD_NEW_DISK, &info);
}

mdu_array_info_t CContract::ArrayInfo() {
  mdu_array_info_t info{};
  EXPECT_EQ(Request(GET_ARRAY_INFO, &info), 0);
  return info;
}

std::vector<int> CContract::Counts() {
  const mdu_array_info_t info = ArrayInfo();
  return {info.raid_disks,    info.nr_disks,     info.active_disks,
          info.working_disks, info.failed_disks, info.spare_disks};
}

mdu_disk_info_t CContract::DiskInfo(int number) {
  mdu_disk_info_t info{};
  info.number = number;
  EXPECT_EQ(Request(GET_DISK_INFO, &info), 0);
  return info;
}

std::pair<int, int> CContract::Member(int number) {
  const mdu_disk_info_t info = DiskInfo(number);
  return {info.raid_disk, info.state};
}

int CContract::Create(const SArrayPlan& plan, std::size_t disks) {
  OpenArray();
  int error = SetArrayInfo();
  for (std::size_t i = 0; i < disks && error == 0; ++i) {
    WriteSuper(i, Superblock(i, plan));
    error = AddDisk(i, true);
  }
  return error != 0 ? error : Request(RUN_ARRAY);
}

}  // namespace NAMESPACE_piRVX
