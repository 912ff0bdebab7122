#pragma once
/// @file
/// What the plug-in relies on from the system below it, as tests that run on any OS::COperatingSystem: on the
/// simulated machine everywhere, and on Linux with three scratch disks (rvx_contract in the virtual machine).
/// Passing on both is what keeps the simulation true to the kernel.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/major.h>
#include <linux/raid/md_u.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "Src/md/ProcTexts.h"
#include "Src/md/Superblock.h"
#include "system/Descriptor.h"
#include "system/OperatingSystem.h"
#include "tests/support/TemporaryFolder.h"

namespace NAMESPACE_piRVX {

/// A machine to test.
struct SContractMachine {
  std::unique_ptr<OS::COperatingSystem> m_Os;
  /// Three disks that nothing uses and that are overwritten, by kernel name; the first on an AHCI controller.
  std::vector<std::string> m_Disks;
};
/// A fresh one for each test. Who runs the suite defines it.
SContractMachine MakeContractMachine();

/// What the superblocks of an array, of version 1.0, have in common. Sizes in sectors.
struct SArrayPlan {
  int m_Level{1};
  std::uint64_t m_Size{0};  ///< used of each member
  std::uint32_t m_Chunk{0};
  std::uint32_t m_RaidDisks{2};  ///< disks from this number on are spares
  std::uint64_t m_Events{1};
  bool m_Clean{true};
  std::uint64_t m_DataSize{0};  ///< 0: all but 128 KiB in front of the superblock, whole chunks
};

class CContract : public testing::Test {
 protected:
  void TearDown() override;

  OS::COperatingSystem& Os() { return *m_Machine.m_Os; }
  const std::string& Disk(std::size_t index) const { return m_Machine.m_Disks.at(index); }
  std::string DiskPath(std::size_t index) const { return "/dev/" + Disk(index); }
  dev_t DiskDevice(std::size_t index);
  /// Sectors of the disk, and of a superblock's place on it.
  std::uint64_t Sectors(std::size_t index) { return 2 * BlocksOf(Disk(index)); }
  std::uint64_t SuperSector(std::size_t index) { return Md::SuperOffset(BlocksOf(Disk(index))); }

  /// What a call that answers -1 left in errno; 0 for other answers.
  static int ErrorOf(std::int64_t answer) { return answer == -1 ? errno : 0; }
  /// The same of an opening, which is closed again.
  int OpenError(const std::string& path, int flags);
  /// True when the disk can be opened exclusively.
  bool IsFree(std::size_t disk) { return OpenError(DiskPath(disk), O_RDONLY | O_EXCL) == 0; }
  std::string Text(const std::string& path) { return OS::ReadText(Os(), path).value_or("(cannot be read)"); }
  static std::vector<std::string> Lines(const std::string& text);
  std::uint64_t BlocksOf(const std::string& name);
  unsigned int MdpMajor() { return static_cast<unsigned int>(Md::ParseMdMajor(Text("/proc/devices"))); }

  /// A disk's superblock for an array, sealed by its checksum.
  Md::md_superblock1 Superblock(std::size_t disk, const SArrayPlan& plan);
  static void Seal(Md::md_superblock1& superblock) {
    superblock.sb_csum = Md::SuperBlockChecksum(superblock);
  }
  /// The same with four of its bytes changed.
  Md::md_superblock1 Changed(std::size_t disk, const SArrayPlan& plan, std::size_t offset,
                             std::uint32_t value, bool sealed = true);
  /// Writes it to its place.
  void WriteSuper(std::size_t disk, const Md::md_superblock1& superblock);
  /// A fresh array device, opened. The one before is stopped and closed, as at the test's end.
  void OpenArray();
  const std::string& Name() const { return m_Name; }
  /// The array's lines of /proc/mdstat, joined by "|", without its name and with the disks' numbers in place
  /// of their names; empty when it is not listed.
  std::string MdStat();
  /// A file that md has for the array in sysfs.
  std::string Attribute(const char* name) { return Text("/sys/block/" + m_Name + "/md/" + name); }
  /// Requests on the array. The result is 0, errno, or what md answers when that is above 0.
  int Request(unsigned long request, void* argument = nullptr);
  int Device(unsigned long request, dev_t device);
  int SetArrayInfo();
  /// Under the disk's own number; in its own place when it is active.
  int AddDisk(std::size_t disk, bool active = false);
  mdu_array_info_t ArrayInfo();
  /// How many disks the array ought to have, has, and has active, working, failed and spare.
  std::vector<int> Counts();
  mdu_disk_info_t DiskInfo(int number);
  /// A member's place and state.
  std::pair<int, int> Member(int number);
  /// Writes superblocks to the first disks and starts them; the result is that of the first step that fails.
  int Create(const SArrayPlan& plan, std::size_t disks = 2);

 private:
  void CloseArray();

  SContractMachine m_Machine = MakeContractMachine();
  int m_Array{-1};
  bool m_Stopped{false};
  std::string m_Name;
};

}  // namespace NAMESPACE_piRVX
