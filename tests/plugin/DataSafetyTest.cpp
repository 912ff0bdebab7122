// What could hurt data: arrays that share a number, disks that were swapped, a model that lost its shape.

#include "tests/support/Arrays.h"
#include "tests/support/FailingCalls.h"

using namespace NAMESPACE_piRVX;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// A mirror md_d0 of sda and sdb; sdc, sdd and sde are free.
const std::string MIRROR = DisksOf({4096, 4096, 4096, 4096, 4096}, MirrorOfTwo("md_d0"));
constexpr char OTHER[] = R"({"add_array": {"name": "md0", "level": "raid1", "members": ["sdc", "sdd"]}})";

std::string Bytes(const SRig& rig, const std::string& disks) {
  std::string bytes;
  for (const char disk : disks) bytes += rig.m_Machine.DiskBytes(std::string("sd") + disk, 0, 4096UL * 1024);
  return bytes;
}

/// The names in the lists, whose objects the adapter must call its children and each by another identifier.
std::multiset<std::string> SoundModel(CTestInstance& plugin) {
  std::multiset<std::string> names;
  std::set<unsigned long> ids;
  const auto look = [&](const auto& list) {
    for (const auto& object : list) {
      names.insert(object.m_KernelName);
      ids.insert(object.m_ID);
    }
  };
  look(plugin.m_PhysicalDrives);
  look(plugin.m_LogicalDrives);
  EXPECT_EQ(ids.size(), names.size());
  EXPECT_THAT(plugin.m_Adapter.m_Children, testing::UnorderedElementsAreArray(ids));
  EXPECT_THAT(plugin.m_Plugin.m_Children, ElementsAre(plugin.m_Adapter.m_ID));
  return names;
}

TEST(EqualNumbers, BothStandInTheModelAndEventsNameTheRightOne) {
  SRig rig(MIRROR);
  CTestInstance& plugin = rig.m_Plugin;
  const auto pass = [&](const char* change) {
    plugin.TakeEvents();
    rig.m_Machine.Apply(change);
    for (int time = 0; time < 3; ++time) rig.Pass();
  };
  rig.Pass();
  const unsigned long first = plugin.Array("md_d0").m_ID;
  pass(OTHER);
  const unsigned long second = plugin.Array("md0").m_ID;
  EXPECT_THAT(plugin.TakeObjects(PI::EVT_LOGICALDRIVE_ADDED), ElementsAre(second));
  EXPECT_EQ(plugin.Array("md_d0").m_ID, first);
  SoundModel(plugin);
  pass(R"({"fail_member": {"array": "md0", "disk": "sdd"}})");
  EXPECT_THAT(plugin.TakeObjects(PI::EVT_LOGICALDRIVE_DEGRADED), ElementsAre(second)) << "once";
  pass(R"({"stop_array": "md_d0"})");  // the later passes look whether the number is in use again
  EXPECT_THAT(plugin.TakeObjects(PI::EVT_LOGICALDRIVE_DELETED), ElementsAre(first));
  EXPECT_EQ(plugin.Array("md0").m_ID, second);
}

TEST(EqualNumbers, FoundAtStartTheyStayTwoObjects) {
  SRig rig(DisksOf({4096, 4096, 4096, 4096},
                   R"("arrays": [{"name": "md_d0", "level": "raid1", "members": ["sda", "sdb"]},
                                 {"name": "md0", "level": "raid0", "members": ["sdc", "sdd"]}])"));
  const std::pair ids(rig.m_Plugin.Array("md_d0").m_ID, rig.m_Plugin.Array("md0").m_ID);
  rig.Pass();
  EXPECT_EQ(std::pair(rig.m_Plugin.Array("md_d0").m_ID, rig.m_Plugin.Array("md0").m_ID), ids);
  EXPECT_EQ(rig.m_Plugin.Array("md0").m_RaidLevel, PI::LEVEL_RAID0);
}

TEST(EqualNumbers, AnArrayThatComesBackUnderItsOtherNameIsTheSame) {
  SRig rig(MIRROR);
  const unsigned long id = rig.m_Plugin.Array("md_d0").m_ID;
  rig.m_Machine.Apply(R"({"stop_array": "md_d0"})");
  rig.m_Machine.Apply(R"({"add_array": {"name": "md0", "level": "raid1", "members": ["sda", "sdb"]}})");
  rig.Pass();
  EXPECT_EQ(rig.m_Plugin.Array("md0").m_ID, id);
  EXPECT_EQ(rig.m_Plugin.m_LogicalDrives.size(), 1U);
}

TEST(EqualNumbers, DeletingOneTouchesTheOthersDisksNeitherAtOnceNorWhenItIsRepeated) {
  // Of the other one, running or stopped since the scan: then nothing but the plug-in protects its disks.
  for (const bool stopped : {false, true}) {
    SCOPED_TRACE(stopped);
    SRig rig(MIRROR);
    rig.m_Machine.Apply(OTHER);
    rig.Pass();
    const unsigned long id = rig.m_Plugin.Array("md_d0").m_ID;
    if (stopped) rig.m_Machine.Apply(R"({"stop_array": "md0"})");
    const std::string others = Bytes(rig, "cde");
    EXPECT_EQ(Execute(rig.m_Plugin, id, Operation(PI::OP_DELETE_LOGICAL_DRIVE)), PI::OK);
    EXPECT_FALSE(IsSuperBlock(SuperBlockOf(rig.m_Machine, rig.m_Plugin.Drive("sda"))));
    EXPECT_FALSE(IsSuperBlock(SuperBlockOf(rig.m_Machine, rig.m_Plugin.Drive("sdb"))));
    rig.Pass();
    EXPECT_EQ(Execute(rig.m_Plugin, id, Operation(PI::OP_DELETE_LOGICAL_DRIVE)), PI::INVALID_OBJECT_ID);
    EXPECT_EQ(Bytes(rig, "cde"), others);
  }
}

void Swap(Simulation::CSimulatedSystem& machine, const char* disk, const char* more) {
  machine.Apply(Text(R"({"remove_disk": "%s"})", disk));
  machine.Apply(Text(R"({"add_disk": {"name": "%s", "controller": "sas", %s}})", disk, more));
}

TEST(SwappedDisk, IsNotWrittenTo) {
  const std::string zeros(4096UL * 1024, '\0');
  // A larger disk under the same name; and the name leads to another disk's number.
  for (const char* const disk : {R"("size": 8192)", R"("device": "8:240", "size": 4096)"}) {
    SCOPED_TRACE(disk);
    SRig rig(MIRROR);
    Swap(rig.m_Machine, "sdd", disk);
    const CTraceCapture trace(TRACE_LIFECYCLE);
    EXPECT_EQ(Create(rig.m_Plugin, PI::LEVEL_RAID1, 0, {"sdc", "sdd"}), PI::ERR_DEVICE_IO);
    EXPECT_TRUE(
        trace.Shows("Src/piRVXAdapter", "WriteSuperBlock1() can't open /dev/sdd, No such device or address"));
    EXPECT_TRUE(rig.m_Machine.DiskBytes("sdd", 0, zeros.size()) == zeros);
  }
  // A failed member that was replaced since the scan: the model still counts it to the array.
  SRig rig(MIRROR);
  rig.m_Machine.Apply(R"({"fail_member": {"array": "md_d0", "disk": "sdb"}})");
  rig.Pass();
  rig.m_Machine.Apply(R"({"remove_member": {"array": "md_d0", "disk": "sdb"}})");
  Swap(rig.m_Machine, "sdb", R"("size": 8192)");
  EXPECT_EQ(Execute(rig.m_Plugin, rig.m_Plugin.Array("md_d0").m_ID, Operation(PI::OP_DELETE_LOGICAL_DRIVE)),
            PI::ERR_DEVICE_IO);
  EXPECT_TRUE(rig.m_Machine.DiskBytes("sdb", 0, 2 * zeros.size()) == zeros + zeros);
}

TEST(Devices, WhatIsNoBlockDeviceIsNotOpened) {
  SRigOf<CHookedSystem> rig(MIRROR);
  for (const char* const path : {"/dev/sdc", "/dev/md_d0", "/dev/md_d1"}) rig.m_Machine.SetFile(path, "");
  std::string opened;
  rig.m_Own.m_Hook = [&](const std::string& call) -> CHookedSystem::TAnswer {
    if (call.starts_with("open /dev/") && call != "open /dev/urandom") opened += call + ", ";
    return {};
  };
  rig.Pass();
  EXPECT_EQ(Create(rig.m_Plugin, PI::LEVEL_RAID1, 0, {"sdd", "sde"}), PI::ERR_OPEN_FAILED);
  EXPECT_EQ(Execute(rig.m_Plugin, rig.m_Plugin.Array("md_d0").m_ID, Operation(PI::OP_DELETE_LOGICAL_DRIVE)),
            PI::ERR_DEVICE_IO);
  EXPECT_EQ(opened, "open /dev/sda, open /dev/sdb, open /dev/sdd, open /dev/sde, ");
}

std::string Everything(CTestInstance& plugin) {
  std::string text = Text("adapter %d %s:", plugin.m_Adapter.m_UpdateCounter, plugin.m_Adapter.m_Description);
  for (const unsigned long id : plugin.m_Adapter.m_Children) text += Text(" %d", id);
  for (auto& drive : plugin.m_PhysicalDrives)
    text += Text("\n%d %d %s %d", drive.m_ID, drive.m_UpdateCounter, drive.m_DisplayName, drive.m_Status);
  for (auto& array : plugin.m_LogicalDrives)
    text += Text("\n%d %d %s %d %d", array.m_ID, array.m_UpdateCounter, array.m_KernelName, array.m_Status,
                 array.m_Children.size());
  return text + Text("\nevents %d, estimates %d", plugin.m_EventQueue.size(), plugin.m_Estimators.size());
}

void ChangeMachine(Simulation::CSimulatedSystem& machine) {
  for (const char* const change :
       {R"({"stop_array": "md1"})", R"({"remove_disk": "sdd"})", R"({"remove_disk": "sdc"})",
        R"({"fail_member": {"array": "md_d0", "disk": "sdb"}})",
        R"({"add_disk": {"name": "sdx", "size": 4096, "controller": "sas"}})",
        R"({"add_array": {"name": "md7", "level": "raid0", "members": ["sde", "sdx"]}})"})
    machine.Apply(change);
}
const std::string CHANGING =
    DisksOf({4096, 4096, 4096, 4096, 4096},
            R"("arrays": [{"name": "md_d0", "level": "raid1", "members": ["sda", "sdb"]},
                          {"name": "md1", "level": "raid0", "members": ["sdc", "sdd"]}])");

TEST(Merge, RunningOutOfMemoryAnywhereLeavesTheModelAsItWas) {
  SRig rig(CHANGING);
  CTestInstance& plugin = rig.m_Plugin;
  rig.Pass();
  PI::CETR::Add(plugin.m_Estimators, plugin.Array("md1").m_ID, 10, 0, false);
  ChangeMachine(rig.m_Machine);
  SFound scan(plugin);
  ASSERT_EQ(scan.m_Status, PI::OK);
  plugin.TakeEvents();
  const auto saved =
      std::tuple(plugin.m_Adapter, plugin.m_PhysicalDrives, plugin.m_LogicalDrives, plugin.m_Estimators);
  const std::string before = Everything(plugin);
  unsigned long failures = 0;
  for (bool failed = true; failed; ++failures) {
    plugin.TakeEvents();
    std::tie(plugin.m_Adapter, plugin.m_PhysicalDrives, plugin.m_LogicalDrives, plugin.m_Estimators) = saved;
    try {
      const CFailingAllocation failing(failures + 1);
      EXPECT_EQ(plugin.UpdateSystem(scan.m_Adapter, scan.m_Drives, scan.m_Arrays), PI::OK);
    } catch (const std::bad_alloc&) {
      ASSERT_EQ(Everything(plugin), before) << "allocation " << failures;
    }
    failed = CFailingAllocation::HasFailed();  // also where a formatted text was only cut short by it
  }
  EXPECT_GT(failures, 40U);
  EXPECT_THAT(SoundModel(plugin), ElementsAre("md7", "md_d0", "sda", "sdb", "sde", "sdx"));
  EXPECT_EQ(plugin.m_EventQueue.size(), 3U) << "of two disks and an array that left";
  EXPECT_THAT(plugin.m_Estimators, IsEmpty()) << "an estimate goes with its array";
}

TEST(Merge, APassThatRanOutOfMemoryIsMadeUpForByTheNext) {
  unsigned long failures = 0;
  for (bool failed = true; failed && !testing::Test::HasFailure(); ++failures) {
    SCOPED_TRACE(failures + 1);
    SRig rig(CHANGING);
    ChangeMachine(rig.m_Machine);
    try {
      const CFailingAllocation failing(failures + 1);
      rig.Pass();
    } catch (const std::bad_alloc&) {
      // As the worker's loop takes it.
    }
    failed = CFailingAllocation::HasFailed();
    SoundModel(rig.m_Plugin);
    for (int pass = 0; failed && pass < 2; ++pass) rig.Pass();
    EXPECT_THAT(SoundModel(rig.m_Plugin), ElementsAre("md7", "md_d0", "sda", "sdb", "sde", "sdx"));
  }
  EXPECT_GT(failures, 500U);
}

TEST(Pass, AConfigurationDocumentThatChangesCounts) {
  SMdRig rig(MIRROR);
  const auto changes = [&](int slot) {  // of the failed member
    const unsigned long counter = rig.m_Plugin.Array("md_d0").m_UpdateCounter;
    rig.m_Own.m_Disks = {{0, {0, 8, 0, 0, Md::DISK_ACTIVE | Md::DISK_SYNC}},
                         {1, {1, 8, 16, slot, Md::DISK_FAULTY}}};
    rig.Pass();
    return rig.m_Plugin.Array("md_d0").m_UpdateCounter - counter;
  };
  for (int pass = 0; pass < 2; ++pass) changes(-1);
  EXPECT_EQ(changes(-1), 0U);
  EXPECT_EQ(changes(1), 1U) << "it is no spare of the document any more";
}

}  // namespace
