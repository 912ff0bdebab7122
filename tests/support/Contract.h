#pragma once
/// @file
/// What the plug-in relies on from the system below it, as tests that run on any COperatingSystem: on the
/// simulated machine everywhere, and on Linux with three scratch disks (rvx_contract in the virtual machine).
/// Passing on both is what keeps the simulation true to the kernel.

#include <gtest/gtest.h>
#include <linux/raid/md_u.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "system/Descriptor.h"
#include "system/OperatingSystem.h"

namespace NAMESPACE_piRVX {

/// A machine to test, with disks that the tests may destroy.
struct SContractMachine {
  std::string m_Name;
  std::function<std::unique_ptr<COperatingSystem>()> m_Make;
  /// Three disks that nothing uses, by kernel name; the first on an AHCI controller.
  std::vector<std::string> m_Disks;

  friend void PrintTo(const SContractMachine& machine, std::ostream* stream) { *stream << machine.m_Name; }
};

/// A superblock of version 1.0 for one member of an array; a test changes what it wants to be wrong. Sizes in
/// sectors.
struct SMemberPlan {
  int m_Level{1};
  std::uint64_t m_Size{0};  ///< used of each member
  std::uint32_t m_Chunk{0};
  std::uint32_t m_RaidDisks{2};
  std::uint32_t m_Number{0};
  std::uint16_t m_Role{0};
  std::uint64_t m_Events{1};
  bool m_Clean{true};
  std::uint64_t m_DataSize{0};  ///< 0: all but 128 KiB in front of the superblock, whole chunks
  std::uint8_t m_Set{1};        ///< tells one array from another
};

class CContract : public testing::TestWithParam<SContractMachine> {
 protected:
  CContract();
  void TearDown() override;

  COperatingSystem& Os() { return *m_Os; }
  const std::string& Disk(std::size_t index) const { return GetParam().m_Disks.at(index); }
  std::string DiskPath(std::size_t index) const { return "/dev/" + Disk(index); }
  dev_t DiskDevice(std::size_t index);
  /// Sectors of the disk, and of a superblock's place on it.
  std::uint64_t Sectors(std::size_t index);
  std::uint64_t SuperSector(std::size_t index) { return (Sectors(index) - 16) & ~std::uint64_t{7}; }

  /// What a call that answers -1 left in errno; 0 for other answers.
  static int ErrorOf(std::int64_t answer) { return answer == -1 ? errno : 0; }
  std::string Text(const std::string& path);
  static std::vector<std::string> Lines(const std::string& text);
  /// The whole text against an extended regular expression.
  static bool Matches(const std::string& text, const std::string& pattern);
  /// The line of /proc/mdstat that begins with the array's name, and those that follow up to the next array.
  std::vector<std::string> MdStatLines();
  /// A field of a line of /proc/partitions.
  std::uint64_t BlocksOf(const std::string& name);
  unsigned int MdpMajor();

  /// Writes 1024 bytes to where a superblock stands.
  void WriteSuper(std::size_t disk, const std::string& bytes);
  std::string Superblock(std::size_t disk, const SMemberPlan& plan);
  /// Changes a field of a superblock; Seal() makes its checksum right again.
  template <typename TValue>
  static void Put(std::string& bytes, std::size_t offset, TValue value) {
    std::memcpy(bytes.data() + offset, &value, sizeof(value));
  }
  static void Seal(std::string& bytes);
  /// A fresh array device, opened; its name is Name(). The one before is stopped and closed, as at the test's
  /// end.
  int OpenArray();
  const std::string& Name() const { return m_Name; }
  /// Requests on the array. The result is 0 or errno.
  int Request(unsigned long request, void* argument = nullptr);
  int SetArrayInfo();
  int AddDisk(std::size_t disk, int number = 0, int slot = -1, int state = 0);
  int Device(unsigned long request, dev_t device);
  mdu_array_info_t ArrayInfo();
  mdu_disk_info_t DiskInfo(int number);
  /// Writes a superblock to each of the first disks and starts them; the result is that of the first step
  /// that fails.
  int Create(SMemberPlan plan, std::size_t disks);
  /// True when the disk can be opened exclusively.
  bool IsFree(std::size_t disk);
  /// Polls until the condition holds; false when a generous time has passed.
  static bool Eventually(const std::function<bool()>& condition);

 private:
  std::unique_ptr<COperatingSystem> m_Os;
  void CloseArray();

  int m_Array{-1};
  bool m_Stopped{false};
  std::string m_Name;
};

}  // namespace NAMESPACE_piRVX
