#include <algorithm>

#include "tests/contract/Contract.h"

namespace NAMESPACE_piRVX {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Pair;

TEST_F(CContract, AFreshArrayKnowsNothing) {
  OpenArray();
  mdu_array_info_t info{};
  mdu_disk_info_t disk{};
  EXPECT_EQ(Request(GET_ARRAY_INFO, &info), ENODEV);
  EXPECT_EQ(Request(GET_DISK_INFO, &disk), ENODEV);
  EXPECT_EQ(Request(RUN_ARRAY), EINVAL);
  EXPECT_EQ(BlocksOf(Name()), 0U) << "a device without a size is not listed";
  ASSERT_EQ(SetArrayInfo(), 0);
  EXPECT_EQ(MdStat(), "") << "nor does the choice of a format show";
  EXPECT_EQ(Request(RUN_ARRAY), EINVAL);
}

TEST_F(CContract, AMirrorThatWasNeverInSyncResyncs) {
  const std::uint64_t blocks = (SuperSector(0) - 256) / 2 / 64 * 64;
  const std::string head =
      "active raid1 1[1] 0[0]|      " + std::to_string(blocks) + " blocks super 1.0 [2/2] [UU]|      ";
  ASSERT_EQ(Create({.m_Size = 2 * blocks, .m_Chunk = 128, .m_Clean = false}), 0);
  EXPECT_THAT(MdStat(), testing::StartsWith(head));
  EXPECT_EQ(BlocksOf(Name()), blocks);
  std::string seen;
  ASSERT_TRUE(Eventually([&] { return (seen = MdStat()).find("speed=") != std::string::npos; })) << seen;
  EXPECT_EQ(seen.find(']', head.size()) - head.size(), 22U) << "the bar's width: " << seen;
  EXPECT_THAT(seen.substr(std::min(head.size(), seen.size())),
              MatchesRegex("\\[=*>\\.*\\]  resync =[ 0-9]{3}\\.[0-9]% \\([0-9]+/" + std::to_string(blocks) +
                           "\\) finish=[0-9]+\\.[0-9]min speed=[0-9]+K/sec\\|      "));
  EXPECT_THAT(Counts(), ElementsAre(2, 2, 2, 2, 0, 0)) << "members count as active while they resync";
  EXPECT_EQ(ArrayInfo().state, 1);
  ASSERT_TRUE(Eventually([&] { return MdStat() == head; })) << MdStat();
  EXPECT_THAT(Text("/proc/mdstat"), EndsWith("\nunused devices: <none>\n"));
}

TEST_F(CContract, ARunningMirrorReportsItselfAndHoldsItsMembers) {
  ASSERT_EQ(Create({.m_Size = 2048, .m_Chunk = 128}), 0);
  EXPECT_EQ(MdStat(), "active raid1 1[1] 0[0]|      1024 blocks super 1.0 [2/2] [UU]|      ") << "in sync";
  const mdu_array_info_t info = ArrayInfo();
  EXPECT_THAT((std::vector{info.major_version, info.minor_version, info.level, info.size, info.state,
                           info.chunk_size}),
              ElementsAre(1, 0, 1, 1024, 1, 65536));
  EXPECT_THAT(Counts(), ElementsAre(2, 2, 2, 2, 0, 0));
  EXPECT_EQ("md_d" + std::to_string(info.md_minor), Name());
  for (const int number : {0, 1}) {
    const mdu_disk_info_t disk = DiskInfo(number);
    EXPECT_EQ(makedev(static_cast<unsigned>(disk.major), static_cast<unsigned>(disk.minor)),
              DiskDevice(static_cast<std::size_t>(number)));
    EXPECT_THAT(Member(number), Pair(number, 6));
    EXPECT_FALSE(IsFree(static_cast<std::size_t>(number)));
  }
  for (const int number : {2, 383, 100000}) {
    EXPECT_THAT(Member(number), Pair(-1, 8));
    EXPECT_EQ(DiskInfo(number).major + DiskInfo(number).minor, 0);
  }
  EXPECT_TRUE(Eventually([&] { return Attribute("array_state") == "clean\n"; })) << Attribute("array_state");
  for (const auto& [attribute, text] : {std::pair{"level", "raid1\n"},
                                        {"raid_disks", "2\n"},
                                        {"degraded", "0\n"},
                                        {"sync_action", "idle\n"},
                                        {"sync_completed", "none\n"},
                                        {"sync_speed", "none\n"}})
    EXPECT_EQ(Attribute(attribute), text) << attribute;
  EXPECT_EQ(Request(RUN_ARRAY), EBUSY);
  ASSERT_EQ(Request(STOP_ARRAY), 0);
  EXPECT_TRUE(IsFree(0) && IsFree(1));
  EXPECT_EQ(MdStat(), "");
  EXPECT_EQ(BlocksOf(Name()), 0U);
}

TEST_F(CContract, LevelsWithoutRedundancyBearNoLoss) {
  for (const auto& [level, name, layout] :
       {std::tuple{0, "raid0 1[1] 0[0]|      4096 blocks super 1.0 64k chunks|      ", -1},
        {-1, "linear 1[1] 0[0]|      4096 blocks super 1.0 64k rounding|      ", 0}}) {
    SCOPED_TRACE(name);
    const SArrayPlan plan{.m_Level = level, .m_Chunk = 128, .m_DataSize = 4096 + 64};
    const std::string shown = std::string("active ") + name;
    ASSERT_EQ(Create(plan), 0);
    EXPECT_EQ(BlocksOf(Name()), 4096U) << "whole chunks of both members";
    EXPECT_EQ(MdStat(), shown);
    EXPECT_EQ(OpenError("/sys/block/" + Name() + "/md/sync_action", O_RDONLY), ENOENT);
    const mdu_array_info_t info = ArrayInfo();
    EXPECT_THAT((std::vector{info.size, info.level, info.layout}), ElementsAre(0, level, layout));
    WriteSuper(2, Superblock(2, plan));
    EXPECT_EQ(AddDisk(2), EINVAL);
    EXPECT_EQ(Device(HOT_REMOVE_DISK, DiskDevice(0)), EBUSY);
    EXPECT_EQ(Device(SET_DISK_FAULTY, DiskDevice(0)), EBUSY);
    EXPECT_EQ(MdStat(), shown) << "it shows nothing of it";
    EXPECT_THAT(Member(0), Pair(0, 6));

    EXPECT_EQ(Create({.m_Level = level, .m_Chunk = 128, .m_RaidDisks = 3}), level == 0 ? EINVAL : 1)
        << "a member is missing";
  }
  EXPECT_EQ(Create({.m_Level = 0}), EINVAL) << "stripes of no size";

  OpenArray();
  ASSERT_EQ(SetArrayInfo(), 0);
  for (const std::size_t disk : {0UL, 1UL}) {
    WriteSuper(disk, Superblock(disk, {.m_Level = 0, .m_Chunk = 128, .m_DataSize = 4096UL << disk}));
    ASSERT_EQ(AddDisk(disk), 0);
  }
  EXPECT_EQ(Request(RUN_ARRAY), 0) << "members of different sizes";
  EXPECT_EQ(BlocksOf(Name()), 2048U + 4096U);
  EXPECT_EQ(ArrayInfo().layout, -1);
}

TEST_F(CContract, AHalfBuiltArrayKeepsItsMembersUntilItIsStopped) {
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
  EXPECT_EQ(Attribute("array_state") + Attribute("level"), "inactive\n");
  EXPECT_EQ(MdStat(), "inactive 0[0](S)|      " + std::to_string((SuperSector(0) - 256) / 2) +
                          " blocks super 1.0|       ");
  ASSERT_EQ(Request(STOP_ARRAY), 0);
  EXPECT_TRUE(IsFree(0));
  EXPECT_EQ(MdStat(), "");
}

TEST_F(CContract, MembersThatDoNotFitAreRefused) {
  const struct {
    const char* m_What;
    std::size_t m_Offset;
    std::uint32_t m_Value;
    bool m_Sealed{true};
    int m_Error{EINVAL};
  } cases[] = {{"no magic number", 0, 0},
               {"more roles than fit", 220, 3000},
               {"data behind the superblock", 140, 1},
               {"a wrong checksum", 64, 1, false},
               {"another array", 16, 7},
               {"another level", 72, 0},
               {"a number that is taken", 160, 0, true, EBUSY}};
  OpenArray();
  ASSERT_EQ(SetArrayInfo(), 0);
  WriteSuper(0, Superblock(0, {.m_Size = 2048}));
  ASSERT_EQ(AddDisk(0), 0);
  for (const auto& one : cases) {
    WriteSuper(1, Changed(1, {.m_Size = 2048}, one.m_Offset, one.m_Value, one.m_Sealed));
    EXPECT_EQ(AddDisk(1), one.m_Error) << one.m_What;
    EXPECT_TRUE(IsFree(1)) << one.m_What;
  }
  mdu_disk_info_t nowhere{};
  nowhere.major = 240;
  EXPECT_EQ(Request(ADD_NEW_DISK, &nowhere), ENXIO);
  const OS::CDescriptor held(Os(), DiskPath(1), O_RDONLY | O_EXCL);
  EXPECT_EQ(AddDisk(1), EBUSY);
}

TEST_F(CContract, AMirrorLargerThanItsMembersDoesNotStart) {
  ASSERT_EQ(Create({.m_Size = Sectors(0)}), EINVAL) << "data that would run into the superblock";
  EXPECT_FALSE(IsFree(0) || IsFree(1)) << "the members stay busy";
  EXPECT_EQ(AddDisk(2), EINVAL) << "by now the array has its geometry, but does not run";
  EXPECT_THAT(MdStat(), testing::StartsWith("inactive "));
  ASSERT_EQ(Request(STOP_ARRAY), 0);
  EXPECT_TRUE(IsFree(0) && IsFree(1));
  // The reserve in front of a superblock is not guarded: more than data_size, less than up to the superblock.
  EXPECT_EQ(Create({.m_Size = std::min(SuperSector(0), SuperSector(1)) - 128}), 0);
}

TEST_F(CContract, ASpareTakesTheFailedMembersPlace) {
  const SArrayPlan plan{.m_Size = SuperSector(0) - 256};
  ASSERT_EQ(Create(plan), 0);
  WriteSuper(2, Superblock(2, plan));
  ASSERT_EQ(AddDisk(2), 0);
  EXPECT_FALSE(IsFree(2));
  EXPECT_TRUE(Eventually([&] { return ArrayInfo().spare_disks == 1; }));
  EXPECT_THAT(Member(2), Pair(-1, 0));
  EXPECT_THAT(MdStat(), testing::StartsWith("active raid1 2[2](S) 1[1] 0[0]|"));

  EXPECT_EQ(Device(HOT_REMOVE_DISK, DiskDevice(1)), EBUSY) << "an active member";
  const dev_t own = makedev(MdpMajor(), static_cast<unsigned>(ArrayInfo().md_minor) * 64);
  EXPECT_EQ(Device(HOT_REMOVE_DISK, own), ENXIO) << "the array's own number is no member's";
  EXPECT_EQ(Device(SET_DISK_FAULTY, own), ENODEV);

  ASSERT_EQ(Device(SET_DISK_FAULTY, DiskDevice(1)), 0);
  std::string seen;
  ASSERT_TRUE(Eventually([&] { return (seen = MdStat()).find("recovery =") != std::string::npos; })) << seen;
  EXPECT_THAT(seen, MatchesRegex("active raid1 2\\[2\\] 1\\[1\\]\\(F\\) 0\\[0\\]\\|.*\\[2/1\\] \\[U_\\]\\|"
                                 "      \\[=*>\\.*\\]  recovery =[ 0-9]{3}\\.[0-9]% .*\\|      "));
  EXPECT_THAT(Member(1), Pair(-1, 1));
  EXPECT_THAT(Member(2), Pair(1, 0));
  EXPECT_THAT(Attribute("sync_completed"),
              MatchesRegex("[0-9]+ / " + std::to_string(SuperSector(0) - 256) + "\n"));
  EXPECT_EQ(Attribute("sync_action") + Attribute("degraded"), "recover\n1\n");
  EXPECT_THAT(Counts(), ElementsAre(2, 3, 1, 2, 1, 1));
  EXPECT_EQ(ArrayInfo().state & 1, 1);
  EXPECT_EQ(Device(HOT_REMOVE_DISK, DiskDevice(2)), EBUSY) << "the member that is being rebuilt";

  ASSERT_TRUE(Eventually([&] { return ArrayInfo().active_disks == 2; }));
  EXPECT_THAT(Member(2), Pair(1, 6));
  ASSERT_EQ(Device(HOT_REMOVE_DISK, DiskDevice(1)), 0);
  EXPECT_TRUE(IsFree(1));
  EXPECT_THAT(Member(1), Pair(-1, 8)) << "the slot is empty again";
}

TEST_F(CContract, AFailedMemberCanBeTakenBackAndTheLastOneDoesNotFail) {
  ASSERT_EQ(Create({.m_Size = 4096}), 0);
  ASSERT_EQ(Device(SET_DISK_FAULTY, DiskDevice(1)), 0);
  ASSERT_TRUE(Eventually([&] { return Member(1).first == -1; }));
  EXPECT_THAT(MdStat(), HasSubstr("[2/1] [U_]|"));
  EXPECT_EQ(AddDisk(1, true), EBUSY) << "md still holds it";
  ASSERT_EQ(Device(HOT_REMOVE_DISK, DiskDevice(1)), 0);
  ASSERT_EQ(AddDisk(1, true), 0);
  EXPECT_TRUE(Eventually([&] { return ArrayInfo().active_disks == 2; }));

  ASSERT_EQ(Create({.m_Size = 2048}, 1), 0) << "one member of two is enough to start";
  EXPECT_THAT(Counts(), ElementsAre(2, 1, 1, 1, 0, 0));
  EXPECT_EQ(Device(SET_DISK_FAULTY, DiskDevice(0)), EBUSY);
  EXPECT_THAT(Member(0), Pair(0, 6));
  EXPECT_EQ(MdStat(), "active raid1 0[0]|      1024 blocks super 1.0 [2/1] [U_]|      ");
}

TEST_F(CContract, WhatIsStoppedInOrderIsAssembledFromItsSuperblocks) {
  ASSERT_EQ(Create({.m_Size = 4096}), 0);
  {
    const OS::CDescriptor other(Os(), "/dev/" + Name(), O_RDONLY);
    ASSERT_TRUE(other.IsOpen());
    EXPECT_EQ(Request(STOP_ARRAY), EBUSY) << "somebody has it open";
    EXPECT_FALSE(IsFree(0));
  }
  ASSERT_TRUE(Eventually([&] { return Request(STOP_ARRAY) == 0; }));
  EXPECT_EQ(Request(STOP_ARRAY), EBUSY) << "a device that was stopped waits for its last user to go";
  OpenArray();
  ASSERT_EQ(SetArrayInfo(), 0);
  ASSERT_EQ(AddDisk(1), 0);
  ASSERT_EQ(AddDisk(0), 0);
  ASSERT_EQ(Request(RUN_ARRAY), 0);
  EXPECT_EQ(MdStat(), "active raid1 0[0] 1[1]|      2048 blocks super 1.0 [2/2] [UU]|      ") << "no resync";
}

TEST_F(CContract, AMemberThatMissedSomethingIsLeftOut) {
  OpenArray();
  ASSERT_EQ(SetArrayInfo(), 0);
  WriteSuper(0, Superblock(0, {.m_Size = 4096, .m_Events = 9}));
  WriteSuper(1, Superblock(1, {.m_Size = 4096, .m_Events = 2}));
  ASSERT_EQ(AddDisk(0), 0);
  ASSERT_EQ(AddDisk(1), 0);
  ASSERT_EQ(Request(RUN_ARRAY), 0);
  EXPECT_EQ(ArrayInfo().nr_disks, 1);
  EXPECT_THAT(MdStat(), HasSubstr("[2/1] [U_]|"));
  EXPECT_TRUE(IsFree(1));
}

TEST_F(CContract, WaitingOnMdstatEndsWithTheNextChange) {
  for (const char* quiet : {"/proc/mdstat", "/proc/partitions"})
    EXPECT_EQ(Os().WaitExceptional(OS::CDescriptor(Os(), quiet, O_RDONLY).Get(), 100), 0)
        << "what was before the opening does not count";
  EXPECT_EQ(ErrorOf(Os().WaitExceptional(-1, 50)), EBADF);

  const OS::CDescriptor before(Os(), "/proc/mdstat", O_RDONLY);
  ASSERT_EQ(Create({.m_Size = SuperSector(0) - 256, .m_Clean = false}), 0);
  EXPECT_EQ(Os().WaitExceptional(before.Get(), 60000), 1);
  EXPECT_EQ(Os().WaitExceptional(before.Get(), 60000), 1) << "it stays until the file is read";
  // The resync that runs now ends by itself, which wakes a thread that waits already.
  bool woken = false;
  ASSERT_TRUE(Eventually([&] {
    const OS::CDescriptor file(Os(), "/proc/mdstat", O_RDONLY);
    if (MdStat().find("resync") == std::string::npos) return true;
    woken = Os().WaitExceptional(file.Get(), 60000) == 1 || woken;
    return false;
  }));
  EXPECT_TRUE(woken);
  for (const unsigned long request :
       {static_cast<unsigned long>(SET_DISK_FAULTY), static_cast<unsigned long>(STOP_ARRAY)}) {
    const OS::CDescriptor file(Os(), "/proc/mdstat", O_RDONLY);
    ASSERT_EQ(request == STOP_ARRAY ? Request(STOP_ARRAY) : Device(SET_DISK_FAULTY, DiskDevice(1)), 0);
    EXPECT_EQ(Os().WaitExceptional(file.Get(), 60000), 1);
    ASSERT_TRUE(request == STOP_ARRAY || Eventually([&] { return Member(1).first == -1; }));
  }
}

}  // namespace NAMESPACE_piRVX
