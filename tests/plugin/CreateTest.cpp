// Creation of arrays, their names, and superblocks on their way to and from the disks.

#include "Src/piRVXAdapterSuperBlock.h"
#include "tests/support/Arrays.h"

using namespace NAMESPACE_piRVX;
using testing::IsEmpty;

namespace {

const std::string THREE = DisksOf({1000000, 976773, 1100000});

TEST(Create, EveryLevelAndStripeAsMdRunsIt) {
  const std::pair<unsigned int, int> stripes[] = {{40049, 4},  {40050, 8},  {40051, 16},
                                                  {40052, 32}, {40053, 64}, {40054, 128},
                                                  {40048, 64}, {0, 64},     {99999, 64}};
  const std::tuple<std::uint32_t, int, std::vector<std::string>> levels[] = {
      {PI::LEVEL_RAID0, 0, {"sdb", "sdc", "sda"}},
      {PI::LEVEL_RAID1, 1, {"sdb", "sda"}},
      {PI::LEVEL_RAID1, 1, {"sda", "sdb"}},
      {PI::LEVEL_CONCATENATION, -1, {"sdc", "sdb"}}};
  for (const auto& [level, mdLevel, disks] : levels) {
    for (auto [stripe, chunk] : stripes) {
      if (mdLevel == -1 && chunk == 64) chunk = 4;  // its own default, also for 64 KiB
      SCOPED_TRACE(Text("level %d, stripe %d", mdLevel, stripe));
      SMdRig rig(THREE);
      ASSERT_EQ(Create(rig.m_Plugin, level, stripe, disks), PI::OK);
      EXPECT_TRUE(rig.m_Plugin.Drive("sdb").m_Busy && rig.m_Plugin.m_Adapter.m_Busy);
      EXPECT_TRUE(Take(rig.m_Plugin.m_PrivateEvent));
      EXPECT_FALSE(Take(rig.m_Plugin.m_ForceWorker)) << "the next scan finds the array";
      EXPECT_THAT(rig.m_Plugin.m_LogicalDrives, IsEmpty()) << "the model is the scan's";

      // sdb, the smaller: 976772 - 8 = 976764 KiB in front of the superblock, less 128, in whole chunks.
      const int size = mdLevel == 1 ? 976636 / chunk * chunk : 0;
      const int count = static_cast<int>(disks.size());
      // Members go in active but not in sync, into an array without disks.
      std::vector<std::string> changes = {"node /dev/md_d0 60666 253:0",
                                          Text("set 1 0 0 0 %d %d %d 0 0 0 0 0 %d %d 0 0 0 %d", mdLevel, size,
                                               count, count, count, chunk * 1024)};
      std::vector<std::string> paths;
      std::set<std::string> uuids;
      for (std::size_t at = 0; at < disks.size(); ++at) {
        const CRVXPhysicalDrive& drive = rig.m_Plugin.Drive(disks[at]);
        changes.push_back(Text("add %d 8 %d %d 2", at, drive.m_MinorNumber, at));
        paths.push_back(drive.DevicePath());
        const Md::md_superblock1 record = SuperBlockOf(rig.m_Machine, drive);
        EXPECT_STREQ(record.set_name, "md_d0");
        EXPECT_EQ(record.dev_number, at);
        EXPECT_EQ(record.data_size, Md::DataSize(record.super_offset, static_cast<std::uint32_t>(chunk * 2)));
        for (const std::uint8_t* uuid : {record.set_uuid, record.device_uuid}) uuids.emplace(uuid, uuid + 16);
      }
      changes.emplace_back("run 0");
      EXPECT_EQ(rig.m_Own.m_Changes, changes);
      EXPECT_EQ(rig.m_System.OpenedForWriting(), paths);
      EXPECT_EQ(uuids.size(), 1 + disks.size()) << "one of the array, one of each member";

      const auto info = ArrayInfo(rig.m_Machine, "md_d0");
      EXPECT_EQ((std::vector{info.level, info.size, info.chunk_size, info.raid_disks}),
                (std::vector{mdLevel, size, chunk * 1024, count}));
    }
  }
}

TEST(Create, RefusesBeforeAnythingIsWritten) {
  using TDisks = std::vector<std::string>;
  const TDisks two = {"sda", "sdb"};
  const auto RAID0 = PI::LEVEL_RAID0;
  const auto READY = PI::STATUS_READY;
  const char* const notFree = "() -> disk ID (8/16) is not free";
  // End of the trace, level, disks, containers, status of sdb.
  const std::tuple<const char*, std::uint32_t, TDisks, std::size_t, std::uint32_t> cases[] = {
      {"() -> to create at least 1 container necessary", RAID0, two, 0, READY},
      {"() -> wrong number of containers specified", RAID0, two, 2, READY},
      {"() -> excactly 2 drives have to be specified", PI::LEVEL_RAID1, {"sda", "sdb", "sdc"}, 1, READY},
      {"() -> at least 2 drive has to be specified", RAID0, {"sda"}, 1, READY},
      {"() -> unsupported RAID level", PI::LEVEL_RAID10, two, 1, READY},
      {"() -> 20008", RAID0, {"sda", "?", "sdb"}, 1, READY},
      {" () -> disk ID (8/0) must be unique", RAID0, {"sda", "sdb", "sda"}, 1, READY},
      {notFree, RAID0, two, 1, PI::STATUS_OK},
      {notFree, RAID0, two, 1, PI::STATUS_FAILED},
      {notFree, RAID0, two, 1, PI::STATUS_REBUILDING},
      {notFree, RAID0, two, 1, PI::STATUS_SPARE}};
  for (const auto& [text, level, disks, containers, status] : cases) {
    SCOPED_TRACE(text);
    SRig rig(THREE);
    rig.m_Plugin.Drive("sdb").m_Status = status;
    const CTraceCapture trace(TRACE_LIFECYCLE);
    EXPECT_EQ(Create(rig.m_Plugin, level, 0, disks, containers),
              disks[1 % disks.size()] == "?" ? 20008U : 20006U);
    EXPECT_TRUE(trace.Shows("Src/piRVXAdapter", std::string("LEAVE CreateLogicalDrive") + text));
    EXPECT_THAT(rig.m_System.OpenedForWriting(), IsEmpty());
    EXPECT_FALSE(rig.m_Plugin.m_Adapter.m_Busy || Take(rig.m_Plugin.m_PrivateEvent));
  }
  SRig rig(THREE);
  const unsigned long id = rig.m_Plugin.m_Adapter.m_ID;
  EXPECT_EQ(Execute(rig.m_Plugin, id, Operation(PI::OP_CREATE_LOGICAL_DRIVE)), 20006U) << "without a request";
  EXPECT_EQ(Create(rig.m_Plugin, RAID0, 0, {"sda", "sdb", "sdb"}), 20003U) << "by md alone";
  EXPECT_TRUE(IsSuperBlock(SuperBlockOf(rig.m_Machine, rig.m_Plugin.Drive("sda")))) << "nothing is undone";
}

TEST(Create, ThatFailsLeavesANodeWithoutAccessForOthers) {
  const std::tuple<const char*, int, unsigned int, mode_t> cases[] = {
      {"sdb", 0, 0, 0644},
      {"?", 0, 20008, 0640},
      {"sdb", -1, 20003, 0640}};  // md answers 1 for a concatenation
  for (const auto& [disk, answer, status, mode] : cases) {
    SMdRig rig(THREE);
    if (answer != 0) rig.m_Own.m_Answers[RUN_ARRAY] = answer;
    EXPECT_EQ(Create(rig.m_Plugin, PI::LEVEL_CONCATENATION, 0, {"sda", disk}), status);
    struct stat node {};
    EXPECT_EQ(rig.m_Machine.Status("/dev/md_d0", node), 0);
    EXPECT_EQ(node.st_mode, S_IFBLK | mode) << status;
  }
}

TEST(ArrayName, IsTheLowestFreeNumber) {
  std::vector<std::uint32_t> all(256);
  for (std::uint32_t number = 0; number < 256; ++number) all[number] = 255 - number;
  const std::vector<std::uint32_t> allButTheLast(all.begin() + 1, all.end());
  // Numbers in use, and the name; none when it is empty.
  const std::pair<std::vector<std::uint32_t>, const char*> cases[] = {
      {{}, "md_d0"}, {{4, 2, 0, 1}, "md_d3"}, {allButTheLast, "md_d255"}, {all, ""}};
  for (const auto& [used, wanted] : cases) {
    SRig rig(THREE);
    for (const std::uint32_t number : used)
      rig.m_Plugin.m_LogicalDrives.emplace_back().m_ArrayNumber = number;
    char name[30] = "";
    EXPECT_EQ(rig.m_Plugin.GetUnusedArrayName(name), *wanted != '\0' ? 0 : -1);
    EXPECT_STREQ(name, wanted);
    EXPECT_EQ(Create(rig.m_Plugin, PI::LEVEL_RAID0, 0, {"sda", "sdb"}), *wanted != '\0' ? 0U : 20049U);
  }
}

TEST(ArrayName, MakesTheNodeWhereThereIsNone) {
  const std::vector<std::string> made = {"node /dev/md_d1 60666 253:64"};
  const std::vector<std::string> none;
  // End of the trace, key of the array with number 0, major number of md, result, what is made.
  const std::tuple<std::string, const char*, std::int64_t, int, std::vector<std::string>> cases[] = {
      {"create device /dev/md_d1 with minor 64", "MD&BLKDEV:Major=253&Minor=0", 253, 0, made},
      {"create device /dev/md_d1 with minor 64", "MD&BLKDEV:Major=9&Minor=640", 253, 0, made},
      {"can't create /dev/md_d1, Operation not permitted", "64", 253, 0, none},
      {"can't create /dev/md_d1, No such device", "64", -1, 0, none},  // the kernel has no such arrays
      {"reuse already existing device md_d1", "MD&BLKDEV:Major=9&Minor=64", 253, 0, none},
      {"minor 64 already used by md_d0", "MD&BLKDEV:Major=9&Minor=64", 253, -1, none},
      {"C libraray too old for more than 4 mdp devices", "", 0x1000000FD, 0, none}};
  for (const auto& [text, key, mdMajor, result, changes] : cases) {
    SCOPED_TRACE(text);
    const char* const node = R"("nodes": [{"path": "/dev/md_d1", "device": "253:64"}])";
    SMdRig rig(DisksOf({300000, 300000}, text.starts_with("reuse") ? node : ""));
    CRVXLogicalDrive& array = rig.m_Plugin.m_LogicalDrives.emplace_back();
    array.m_ArrayNumber = 0;
    array.m_KernelName = "md_d0";
    array.m_DeviceKey = key;
    rig.m_Plugin.m_MdMajor = mdMajor;
    if (text.ends_with("permitted")) rig.m_System.FailAt(OS::ECall::MakeNode, 1, EPERM);
    const CTraceCapture trace(TRACE_LIFECYCLE);
    char name[30] = "";
    EXPECT_EQ(rig.m_Plugin.GetUnusedArrayName(name), result);
    EXPECT_EQ(rig.m_Own.m_Changes, changes);
    EXPECT_TRUE(trace.Shows("Src/piRVXAdapter", "GetUnusedArrayName() " + text));
  }
}

TEST(SuperBlockDoor, WhatIsWrittenIsReadBack) {
  for (const std::uint64_t size : {203ULL, 976773ULL, 8589934599ULL}) {
    SRig rig(DisksOf({size}));
    Md::md_superblock1 written{};
    Md::md_superblock1 read{};
    written.magic = Md::md_superblock1::MAGIC;
    EXPECT_EQ(WriteSuperBlock1(rig.m_System, rig.m_Plugin.Drive("sda"), &written), PI::OK);
    EXPECT_EQ(GetSuperBlock1(rig.m_Plugin, 8, 0, &read), PI::OK);
    EXPECT_EQ(std::memcmp(&read, &written, sizeof(read)), 0) << "the caller's record stands on the disk";
    EXPECT_TRUE(IsSuperBlock(read)) << size;
  }
}

TEST(SuperBlockDoor, FailuresHaveTheirStatusAndReadingSaysNothingOfTheRecord) {
  // What fails first when writing is the member's UUID, which does not count.
  using TCase = std::tuple<OS::ECall, unsigned int, unsigned int>;
  for (const auto& [call, writing, reading] :
       {TCase(OS::ECall::Open, 0, 20003), TCase(OS::ECall::Read, 0, 0), TCase(OS::ECall::Seek, 20003, 0),
        TCase(OS::ECall::Write, 20018, 0), TCase(OS::ECall::Sync, 20018, 0)}) {
    SCOPED_TRACE(static_cast<int>(call));
    SRig rig(THREE);
    Md::md_superblock1 record{};
    rig.m_System.FailAt(call, 1, EIO);
    EXPECT_EQ(WriteSuperBlock1(rig.m_System, rig.m_Plugin.Drive("sda"), &record), writing);
    rig.m_System.FailAt(call, 1, EIO);
    EXPECT_EQ(GetSuperBlock1(rig.m_Plugin, 8, 16, &record), reading) << "of a disk without a superblock";
  }
  SRig rig(THREE);
  Md::md_superblock1 record{};
  rig.m_Machine.Apply(R"({"hold_disk": "sda"})");
  EXPECT_EQ(WriteSuperBlock1(rig.m_System, rig.m_Plugin.Drive("sda"), &record), PI::ERR_DEVICE_IO);
  rig.m_System.ShortenAt(OS::ECall::Write, 1, 1023);
  EXPECT_EQ(WriteSuperBlock1(rig.m_System, rig.m_Plugin.Drive("sdb"), &record), PI::ERR_WRITE_FAILED);
  EXPECT_EQ(GetSuperBlock1(rig.m_Plugin, 9, 0, &record), PI::ERR_DRIVE_NOT_FOUND);
}

TEST(SuperBlockDoor, WithoutAUuidMdRefusesTheArray) {
  SRig rig(THREE);
  rig.m_System.ShortenAt(OS::ECall::Read, 1, 15);
  EXPECT_EQ(Create(rig.m_Plugin, PI::LEVEL_RAID0, 0, {"sda", "sdb"}), PI::ERR_DEVICE_IO);
}

TEST(SuperBlockDoor, ASleepingDiskIsStartedWhereTheServerHasTheTool) {
  // The disk and the tool, the status, how often the tool runs, and ms slept.
  const std::tuple<const char*, unsigned int, std::uint64_t, std::uint64_t> cases[] = {
      {R"("asleep": true}], "sdparm": true)", 0, 2, 3000},
      {R"("asleep": false}], "sdparm": true)", 0, 1, 0},
      {R"("asleep": true}], "sdparm": false)", 20018, 0, 0}};
  for (const auto& [machine, status, runs, slept] : cases) {
    SCOPED_TRACE(machine);
    SRig rig(Text(R"({"controllers": [{"name": "c", "pci": "0000:00:1f.2", "driver": "ahci"}],
                      "disks": [{"name": "sda", "controller": "c", "size": 300000, %s})",
                  machine));
    const std::uint64_t start = rig.m_Machine.Now();
    Md::md_superblock1 record{};
    EXPECT_EQ(WriteSuperBlock1(rig.m_System, rig.m_Plugin.Drive("sda"), &record), status);
    EXPECT_EQ(rig.m_Machine.CommandCount("sdparm"), runs);
    EXPECT_EQ(rig.m_Machine.Now() - start, slept);
  }
}

}  // namespace
