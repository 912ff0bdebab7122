#include <fcntl.h>
#include <linux/major.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tests/support/Contract.h"

namespace NAMESPACE_piRVX {

TEST_P(CContract, AFreshArrayKnowsNothing) {
  OpenArray();
  mdu_array_info_t info{};
  mdu_disk_info_t disk{};
  EXPECT_EQ(Request(GET_ARRAY_INFO, &info), ENODEV);
  EXPECT_EQ(Request(GET_DISK_INFO, &disk), ENODEV);
  EXPECT_EQ(Device(SET_DISK_FAULTY, DiskDevice(0)), ENODEV);
  EXPECT_EQ(Request(RUN_ARRAY), EINVAL);
  EXPECT_EQ(BlocksOf(Name()), 0U) << "a device without a size is not listed";
  EXPECT_TRUE(MdStatLines().empty());
  ASSERT_EQ(SetArrayInfo(), 0);
  EXPECT_TRUE(MdStatLines().empty()) << "nor does the choice of a format show";
  EXPECT_EQ(Request(RUN_ARRAY), EINVAL);
}

TEST_P(CContract, AMirrorThatWasNeverInSyncResyncs) {
  const std::uint64_t size = 2 * ((SuperSector(0) - 256) / 2 / 64 * 64);
  ASSERT_EQ(Create({.m_Level = 1, .m_Size = size, .m_Chunk = 128, .m_Clean = false}, 2), 0);
  auto lines = MdStatLines();
  ASSERT_GE(lines.size(), 2U);
  EXPECT_EQ(lines[0], Name() + " : active raid1 " + Disk(1) + "[1] " + Disk(0) + "[0]");
  EXPECT_EQ(lines[1], "      " + std::to_string(size / 2) + " blocks super 1.0 [2/2] [UU]");
  EXPECT_EQ(BlocksOf(Name()), size / 2);
  const std::string progress = "      \\[=*>\\.*\\]  resync =[ 0-9]{3}\\.[0-9]% \\([0-9]+/" +
                               std::to_string(size / 2) + "\\) finish=[0-9]+\\.[0-9]min speed=[0-9]+K/sec";
  ASSERT_TRUE(Eventually([&] {
    lines = MdStatLines();
    return lines.size() == 4 && Matches(lines[2], progress);
  })) << Text("/proc/mdstat");
  EXPECT_EQ(lines[2].find(']') - lines[2].find('['), 22U) << lines[2];
  EXPECT_EQ(lines[3], "      ");
  const mdu_array_info_t info = ArrayInfo();
  EXPECT_EQ(info.active_disks, 2) << "members count as active while they resync";
  EXPECT_EQ(info.state, 1);

  ASSERT_TRUE(Eventually([&] { return MdStatLines().size() == 3; }));
  EXPECT_EQ(MdStatLines()[2], "      ");
  EXPECT_EQ(Lines(Text("/proc/mdstat")).back(), "unused devices: <none>");
}

TEST_P(CContract, ARunningMirrorReportsItselfAndHoldsItsMembers) {
  const std::uint64_t size = 2048;
  ASSERT_EQ(Create({.m_Level = 1, .m_Size = size, .m_Chunk = 128}, 2), 0);
  EXPECT_EQ(MdStatLines().size(), 3U) << "in sync, so nothing is under way";
  const mdu_array_info_t info = ArrayInfo();
  EXPECT_EQ(info.major_version, 1);
  EXPECT_EQ(info.minor_version, 0);
  EXPECT_EQ(info.level, 1);
  EXPECT_EQ(info.size, static_cast<int>(size / 2));
  EXPECT_EQ(info.raid_disks, 2);
  EXPECT_EQ(info.nr_disks, 2);
  EXPECT_EQ(info.state, 1);
  EXPECT_EQ(std::vector({info.active_disks, info.working_disks, info.failed_disks, info.spare_disks}),
            std::vector({2, 2, 0, 0}));
  EXPECT_EQ(info.chunk_size, 65536);
  EXPECT_EQ("md_d" + std::to_string(info.md_minor), Name());
  for (const int number : {0, 1}) {
    const mdu_disk_info_t disk = DiskInfo(number);
    EXPECT_EQ(makedev(static_cast<unsigned>(disk.major), static_cast<unsigned>(disk.minor)),
              DiskDevice(static_cast<std::size_t>(number)));
    EXPECT_EQ(disk.raid_disk, number);
    EXPECT_EQ(disk.state, 6);
    EXPECT_FALSE(IsFree(static_cast<std::size_t>(number)));
  }
  for (const int number : {2, 383, 100000}) {
    const mdu_disk_info_t empty = DiskInfo(number);
    EXPECT_EQ(std::vector({empty.major, empty.minor, empty.raid_disk, empty.state}),
              std::vector({0, 0, -1, 8}));
  }
  EXPECT_EQ(Request(RUN_ARRAY), EBUSY);
  ASSERT_EQ(Request(STOP_ARRAY), 0);
  EXPECT_TRUE(IsFree(0) && IsFree(1));
  EXPECT_TRUE(MdStatLines().empty());
  EXPECT_EQ(BlocksOf(Name()), 0U);
}

TEST_P(CContract, StripesAndConcatenationsBearNoLoss) {
  for (const auto& [level, name, unit] : {std::tuple{0, "raid0", "chunks"}, {-1, "linear", "rounding"}}) {
    SCOPED_TRACE(name);
    ASSERT_EQ(Create({.m_Level = level, .m_Chunk = 128, .m_DataSize = 4096 + 64}, 2), 0);
    EXPECT_EQ(BlocksOf(Name()), 4096U) << "whole chunks of both members";
    const auto lines = MdStatLines();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0], Name() + " : active " + name + " " + Disk(1) + "[1] " + Disk(0) + "[0]");
    EXPECT_EQ(lines[1], std::string("      4096 blocks super 1.0 64k ") + unit);
    EXPECT_EQ(ArrayInfo().size, 0);
    EXPECT_EQ(ArrayInfo().level, level);
    WriteSuper(2, Superblock(2, {.m_Level = level, .m_Chunk = 128, .m_Number = 2, .m_Role = 0xffff}));
    EXPECT_EQ(AddDisk(2, 2), EINVAL);
    EXPECT_EQ(Device(HOT_REMOVE_DISK, DiskDevice(0)), EBUSY);
    EXPECT_EQ(Device(SET_DISK_FAULTY, DiskDevice(0)), EBUSY);
    EXPECT_EQ(MdStatLines().at(0), lines[0]) << "it shows nothing of it";
    EXPECT_EQ(DiskInfo(0).state, 6);
    EXPECT_EQ(ArrayInfo().layout, level == 0 ? -1 : 0);
    EXPECT_EQ(Request(STOP_ARRAY), 0);
  }
}

TEST_P(CContract, StripesTakeMembersOfDifferentSizes) {
  OpenArray();
  ASSERT_EQ(SetArrayInfo(), 0);
  for (const std::size_t disk : {0UL, 1UL}) {
    SMemberPlan plan{.m_Level = 0, .m_Chunk = 128, .m_DataSize = std::uint64_t{4096} << disk};
    plan.m_Number = plan.m_Role = static_cast<std::uint16_t>(disk);
    WriteSuper(disk, Superblock(disk, plan));
    ASSERT_EQ(AddDisk(disk), 0);
  }
  EXPECT_EQ(Request(RUN_ARRAY), 0);
  EXPECT_EQ(BlocksOf(Name()), 2048U + 4096U);
  EXPECT_EQ(ArrayInfo().layout, -1);
}

TEST_P(CContract, LevelsWithoutRedundancyNeedAllMembers) {
  for (const int level : {0, -1}) {
    EXPECT_EQ(Create({.m_Level = level, .m_Chunk = 128, .m_RaidDisks = 3}, 2), EINVAL) << level;
    EXPECT_EQ(Request(STOP_ARRAY), 0);
  }
  EXPECT_EQ(Create({.m_Level = 0, .m_Chunk = 0}, 2), EINVAL) << "stripes of no size";
}

TEST_P(CContract, AHalfBuiltArrayKeepsItsMembersUntilItIsStopped) {
  OpenArray();
  ASSERT_EQ(SetArrayInfo(), 0);
  WriteSuper(0, Superblock(0, {.m_Size = 2048}));
  ASSERT_EQ(AddDisk(0), 0);
  EXPECT_FALSE(IsFree(0));
  EXPECT_EQ(SetArrayInfo(), EBUSY);
  EXPECT_EQ(AddDisk(0), EBUSY) << "twice";
  mdu_array_info_t info{};
  EXPECT_EQ(Request(GET_ARRAY_INFO, &info), ENODEV);
  EXPECT_EQ(BlocksOf(Name()), 0U);
  const auto lines = MdStatLines();
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0], Name() + " : inactive " + Disk(0) + "[0](S)");
  EXPECT_EQ(lines[1], "      " + std::to_string((SuperSector(0) - 256) / 2) + " blocks super 1.0");
  EXPECT_EQ(lines[2], "       ");
  ASSERT_EQ(Request(STOP_ARRAY), 0);
  EXPECT_TRUE(IsFree(0));
  EXPECT_TRUE(MdStatLines().empty());
}

TEST_P(CContract, MembersThatDoNotFitAreRefused) {
  struct SCase {
    const char* m_What;
    std::size_t m_Offset;
    std::uint32_t m_Value;
    bool m_Sealed;
    int m_Error;
  };
  const std::vector<SCase> cases = {{"no magic number", 0, 0, true, EINVAL},
                                    {"another format", 4, 0, true, EINVAL},
                                    {"unknown features", 8, 0x80000000, true, EINVAL},
                                    {"padding in use", 12, 1, true, EINVAL},
                                    {"more roles than fit", 220, 3000, true, EINVAL},
                                    {"data behind the superblock", 140, 1, true, EINVAL},
                                    {"hardly any data", 136, 8, true, EINVAL},
                                    {"at another place", 144, 8, true, EINVAL},
                                    {"reserved bytes in use", 240, 1, true, EINVAL},
                                    {"a wrong checksum", 64, 1, false, EINVAL},
                                    {"another array", 16, 7, true, EINVAL},
                                    {"another level", 72, 0, true, EINVAL},
                                    {"another chunk size", 88, 8, true, EINVAL},
                                    {"a number that is taken", 160, 0, true, EBUSY}};
  OpenArray();
  ASSERT_EQ(SetArrayInfo(), 0);
  WriteSuper(0, Superblock(0, {.m_Size = 2048}));
  ASSERT_EQ(AddDisk(0), 0);
  for (const SCase& one : cases) {
    std::string bytes = Superblock(1, {.m_Size = 2048, .m_Number = 1, .m_Role = 1});
    Put(bytes, one.m_Offset, one.m_Value);
    if (one.m_Sealed) Seal(bytes);
    WriteSuper(1, bytes);
    EXPECT_EQ(AddDisk(1), one.m_Error) << one.m_What;
    EXPECT_TRUE(IsFree(1)) << one.m_What;
  }
  mdu_disk_info_t nowhere{};
  nowhere.major = 240;
  EXPECT_EQ(Request(ADD_NEW_DISK, &nowhere), ENXIO);
  const CDescriptor held(Os(), DiskPath(1), O_RDONLY | O_EXCL);
  EXPECT_EQ(AddDisk(1), EBUSY);
}

TEST_P(CContract, AMirrorLargerThanItsMembersDoesNotStart) {
  // Data that would run into the superblock is refused, and the members stay busy.
  ASSERT_EQ(Create({.m_Size = Sectors(0)}, 2), EINVAL);
  EXPECT_FALSE(IsFree(0) || IsFree(1));
  EXPECT_EQ(AddDisk(2), EINVAL) << "by now the array has its geometry, but does not run";
  ASSERT_EQ(MdStatLines().size(), 3U);
  EXPECT_TRUE(MdStatLines()[0].starts_with(Name() + " : inactive ")) << MdStatLines()[0];
  ASSERT_EQ(Request(STOP_ARRAY), 0);
  EXPECT_TRUE(IsFree(0) && IsFree(1));
}

TEST_P(CContract, TheReserveInFrontOfASuperblockIsNotGuarded) {
  const std::uint64_t smaller = std::min(SuperSector(0), SuperSector(1));
  EXPECT_EQ(Create({.m_Size = smaller - 128}, 2), 0) << "more than data_size, less than up to the superblock";
}

TEST_P(CContract, ASpareTakesTheFailedMembersPlace) {
  const std::uint64_t size = SuperSector(0) - 256;
  SMemberPlan plan{.m_Size = size};
  ASSERT_EQ(Create(plan, 2), 0);
  plan.m_Number = 2;
  plan.m_Role = 0xffff;
  WriteSuper(2, Superblock(2, plan));
  ASSERT_EQ(AddDisk(2, 2), 0);
  EXPECT_FALSE(IsFree(2));
  EXPECT_TRUE(Eventually([&] { return ArrayInfo().spare_disks == 1; }));
  EXPECT_EQ(DiskInfo(2).raid_disk, -1);
  EXPECT_EQ(DiskInfo(2).state, 0);
  EXPECT_EQ(MdStatLines().at(0),
            Name() + " : active raid1 " + Disk(2) + "[2](S) " + Disk(1) + "[1] " + Disk(0) + "[0]");

  EXPECT_EQ(Device(HOT_REMOVE_DISK, DiskDevice(1)), EBUSY) << "an active member";
  const dev_t own = makedev(MdpMajor(), static_cast<unsigned>(ArrayInfo().md_minor) * 64);
  EXPECT_EQ(Device(HOT_REMOVE_DISK, own), ENXIO) << "the array's own number is no member's";
  EXPECT_EQ(Device(SET_DISK_FAULTY, own), ENODEV);

  ASSERT_EQ(Device(SET_DISK_FAULTY, DiskDevice(1)), 0);
  ASSERT_TRUE(Eventually([&] { return DiskInfo(1).raid_disk == -1 && DiskInfo(2).raid_disk == 1; }));
  const std::string recovery = "      \\[=*>\\.*\\]  recovery =[ 0-9]{3}\\.[0-9]% .*";
  ASSERT_TRUE(Eventually([&] { return MdStatLines().size() == 4 && Matches(MdStatLines()[2], recovery); }))
      << Text("/proc/mdstat");
  EXPECT_EQ(DiskInfo(1).state, 1);
  EXPECT_EQ(DiskInfo(2).state, 0);
  const mdu_array_info_t info = ArrayInfo();
  EXPECT_EQ(info.raid_disks, 2);
  EXPECT_EQ(std::vector(
                {info.nr_disks, info.active_disks, info.working_disks, info.failed_disks, info.spare_disks}),
            std::vector({3, 1, 2, 1, 1}));
  EXPECT_EQ(info.state & 1, 1);
  EXPECT_EQ(MdStatLines().at(0),
            Name() + " : active raid1 " + Disk(2) + "[2] " + Disk(1) + "[1](F) " + Disk(0) + "[0]");
  EXPECT_TRUE(MdStatLines().at(1).ends_with("[2/1] [U_]"));
  EXPECT_EQ(Device(HOT_REMOVE_DISK, DiskDevice(2)), EBUSY) << "the member that is being rebuilt";

  ASSERT_TRUE(Eventually([&] { return ArrayInfo().active_disks == 2; }));
  EXPECT_EQ(DiskInfo(2).state, 6);
  ASSERT_EQ(Device(HOT_REMOVE_DISK, DiskDevice(1)), 0);
  EXPECT_TRUE(IsFree(1));
  EXPECT_EQ(DiskInfo(1).state, 8) << "the slot is empty again";
}

TEST_P(CContract, AFailedMemberCanBeTakenBack) {
  ASSERT_EQ(Create({.m_Size = 4096}, 2), 0);
  ASSERT_EQ(Device(SET_DISK_FAULTY, DiskDevice(1)), 0);
  ASSERT_TRUE(Eventually([&] { return DiskInfo(1).raid_disk == -1; }));
  EXPECT_TRUE(MdStatLines().at(1).ends_with("[2/1] [U_]"));
  EXPECT_EQ(AddDisk(1, 1, 1, 2), EBUSY) << "md still holds it";
  ASSERT_EQ(Device(HOT_REMOVE_DISK, DiskDevice(1)), 0);
  ASSERT_EQ(AddDisk(1, 1, 1, 2), 0);
  EXPECT_TRUE(Eventually([&] { return ArrayInfo().active_disks == 2; }));
}

TEST_P(CContract, TheLastMemberDoesNotFail) {
  ASSERT_EQ(Create({.m_Size = 2048}, 1), 0) << "one member of two is enough to start";
  EXPECT_EQ(ArrayInfo().active_disks, 1);
  EXPECT_TRUE(MdStatLines().at(1).ends_with("[2/1] [U_]"));
  EXPECT_EQ(Device(SET_DISK_FAULTY, DiskDevice(0)), EBUSY);
  EXPECT_EQ(DiskInfo(0).state, 6);
  EXPECT_EQ(MdStatLines().at(0), Name() + " : active raid1 " + Disk(0) + "[0]");
}

TEST_P(CContract, AnArrayThatIsOpenElsewhereDoesNotStop) {
  ASSERT_EQ(Create({.m_Size = 2048}, 2), 0);
  {
    const CDescriptor other(Os(), "/dev/" + Name(), O_RDONLY);
    ASSERT_TRUE(other.IsOpen());
    EXPECT_EQ(Request(STOP_ARRAY), EBUSY);
    EXPECT_FALSE(IsFree(0));
  }
  ASSERT_TRUE(Eventually([&] { return Request(STOP_ARRAY) == 0; }));
  EXPECT_EQ(Request(STOP_ARRAY), EBUSY) << "a device that was stopped waits for its last user to go";
}

TEST_P(CContract, WhatWasStoppedIsAssembledFromItsSuperblocks) {
  ASSERT_EQ(Create({.m_Size = 4096}, 2), 0);
  ASSERT_EQ(Request(STOP_ARRAY), 0);
  OpenArray();
  ASSERT_EQ(SetArrayInfo(), 0);
  ASSERT_EQ(AddDisk(1), 0);
  ASSERT_EQ(AddDisk(0), 0);
  ASSERT_EQ(Request(RUN_ARRAY), 0);
  EXPECT_EQ(ArrayInfo().active_disks, 2);
  EXPECT_EQ(MdStatLines().size(), 3U) << "no resync: it was stopped in order";
  EXPECT_EQ(MdStatLines().at(0), Name() + " : active raid1 " + Disk(0) + "[0] " + Disk(1) + "[1]");
}

TEST_P(CContract, AMemberThatMissedSomethingIsLeftOut) {
  OpenArray();
  ASSERT_EQ(SetArrayInfo(), 0);
  WriteSuper(0, Superblock(0, {.m_Size = 4096, .m_Events = 9}));
  WriteSuper(1, Superblock(1, {.m_Size = 4096, .m_Number = 1, .m_Role = 1, .m_Events = 2}));
  ASSERT_EQ(AddDisk(0), 0);
  ASSERT_EQ(AddDisk(1), 0);
  ASSERT_EQ(Request(RUN_ARRAY), 0);
  EXPECT_EQ(ArrayInfo().nr_disks, 1);
  EXPECT_TRUE(MdStatLines().at(1).ends_with("[2/1] [U_]"));
  EXPECT_TRUE(IsFree(1));
}

TEST_P(CContract, WaitingOnMdstatEndsWithTheNextChange) {
  {
    const CDescriptor quiet(Os(), "/proc/mdstat", O_RDONLY);
    EXPECT_EQ(Os().WaitExceptional(quiet.Get(), 100), 0) << "what was before the opening does not count";
    const CDescriptor disk(Os(), "/proc/partitions", O_RDONLY);
    EXPECT_EQ(Os().WaitExceptional(disk.Get(), 50), 0);
  }
  EXPECT_EQ(ErrorOf(Os().WaitExceptional(-1, 50)), EBADF);

  const CDescriptor before(Os(), "/proc/mdstat", O_RDONLY);
  ASSERT_EQ(Create({.m_Size = SuperSector(0) - 256, .m_Clean = false}, 2), 0);
  EXPECT_EQ(Os().WaitExceptional(before.Get(), 60000), 1);
  EXPECT_EQ(Os().WaitExceptional(before.Get(), 60000), 1) << "it stays until the file is read";
  // The resync that runs now ends by itself, which wakes a thread that waits already.
  bool woken = false;
  ASSERT_TRUE(Eventually([&] {
    const CDescriptor file(Os(), "/proc/mdstat", O_RDONLY);
    if (MdStatLines().size() == 3) return true;
    woken = Os().WaitExceptional(file.Get(), 60000) == 1 || woken;
    return false;
  }));
  EXPECT_TRUE(woken);
  const CDescriptor beforeFailure(Os(), "/proc/mdstat", O_RDONLY);
  ASSERT_EQ(Device(SET_DISK_FAULTY, DiskDevice(1)), 0);
  EXPECT_EQ(Os().WaitExceptional(beforeFailure.Get(), 60000), 1);
  ASSERT_TRUE(Eventually([&] { return DiskInfo(1).raid_disk == -1; }));
  const CDescriptor beforeStop(Os(), "/proc/mdstat", O_RDONLY);
  ASSERT_EQ(Request(STOP_ARRAY), 0);
  EXPECT_EQ(Os().WaitExceptional(beforeStop.Get(), 60000), 1);
}

}  // namespace NAMESPACE_piRVX
