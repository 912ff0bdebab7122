// Operations on a machine that fails: every call of the door in turn.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "Src/piRVXTrace.h"
#include "tests/support/Arrays.h"

using namespace NAMESPACE_piRVX;
using ECall = CFaultyMachine::ECall;

namespace {

/// A mirror with a spare, one that is rebuilt and stands still, one with a failed member, and three free
/// disks.
const std::string MACHINE =
    DisksOf({300000, 300000, 300000, 300000, 300000, 300000, 300000, 300000, 300000, 300000},
            R"("sync_speed": 0, "arrays": [
                 {"name": "md_d0", "level": "raid1", "chunk": 64, "members": ["sda", "sdb"], "spares": ["sdc"]},
                 {"name": "md_d1", "level": "raid1", "chunk": 64, "recovery": {"done": 30000},
                  "members": ["sdd", {"disk": "sde", "slot": 1, "state": "rebuilding"}]},
                 {"name": "md_d2", "level": "raid1", "chunk": 64, "raid_disks": 2, "members": ["sdf"],
                  "faulty": ["sdg"]}])");

/// All that a scan finds, without identifiers.
std::string Model(CTestInstance& plugin) {
  std::string text = Text("%s %d %d\n", plugin.m_Adapter.m_Name, plugin.m_Adapter.m_Status,
                          plugin.m_Adapter.m_ProgressWatch);
  std::map<unsigned long, std::string> names;
  for (const CRVXPhysicalDrive& drive : plugin.m_PhysicalDrives) {
    names[drive.m_ID] = drive.m_KernelName;
    text += Text("%s %d %s: %d KiB, %d usable, status %d, activity %d, spare %d, of %d\n", drive.m_KernelName,
                 drive.m_DriveNumber, drive.m_DeviceKey, drive.m_Size, drive.m_UsableSize, drive.m_Status,
                 drive.m_Activity, drive.m_SpareState, drive.m_IsMemberOf);
  }
  for (const CRVXLogicalDrive& array : plugin.m_LogicalDrives) {
    text += Text("%s %s: %d KiB of %d, level %d, stripe %d, status %d, activity %d, %d percent:",
                 array.m_KernelName, array.m_DeviceKey, array.m_PhysicalSize, array.m_LogicalSize,
                 array.m_RaidLevel, array.m_StripeSize, array.m_Status, array.m_Activity, array.m_Progress);
    for (const unsigned long member : array.m_Children) text += " " + names[member];
    const PI::CLogicalDrive description(array.m_Configuration);
    text += Text(", %d containers, %d spares\n", description.m_Containers.size(),
                 description.m_DedicatedHotSpares.size());
  }
  return text;
}

struct SOperation {
  const char* m_Name;
  std::function<unsigned int(SRig&)> m_Act;
  std::set<unsigned int> m_Statuses;
  std::vector<std::string> m_MayWrite;
};

void PrintTo(const SOperation& operation, std::ostream* stream) { *stream << operation.m_Name; }

std::function<unsigned int(SRig&)> Creates(std::uint32_t level, std::vector<std::string> disks) {
  return [=](SRig& rig) { return Create(rig.m_Plugin, level, PI::STRIPE_64K, disks); };
}
std::function<unsigned int(SRig&)> OfAdapter(unsigned int code) {
  return [=](SRig& rig) { return Execute(rig.m_Plugin, rig.m_Plugin.m_Adapter.m_ID, Operation(code)); };
}
std::function<unsigned int(SRig&)> OfArray(const char* name, unsigned int code) {
  return [=](SRig& rig) { return Execute(rig.m_Plugin, rig.m_Plugin.Array(name).m_ID, Operation(code)); };
}

const SOperation OPERATIONS[] = {
    {"CreateStripes",
     Creates(PI::LEVEL_RAID0, {"sdh", "sdi", "sdj"}),
     {0, 20003, 20018, 20029},
     {"h", "i", "j"}},
    {"CreateMirror", Creates(PI::LEVEL_RAID1, {"sdi", "sdh"}), {0, 20003, 20018, 20029}, {"h", "i"}},
    {"CreateConcatenation",
     Creates(PI::LEVEL_CONCATENATION, {"sdj", "sdh"}),
     {0, 20003, 20018, 20029},
     {"h", "j"}},
    {"Delete", OfArray("md_d0", PI::OP_DELETE_LOGICAL_DRIVE), {0, 20003, 20018}, {"a", "b", "c"}},
    {"DeleteLast", OfAdapter(PI::OP_DELETE_LAST_LOGICAL_DRIVE), {0, 20003, 20018}, {"f", "g"}},
    {"DeleteAll", OfAdapter(PI::OP_DELETE_ALL_LOGICAL_DRIVES), {0, 20003, 20018}, {"a", "b", "c", "f", "g"}},
    {"DeleteBusy", OfArray("md_d1", PI::OP_DELETE_LOGICAL_DRIVE), {20020}, {}},
    {"CheckDeletion",
     [](SRig& rig) {
       return Check(rig.m_Plugin, rig.m_Plugin.Array("md_d2").m_ID, Operation(PI::OP_DELETE_LOGICAL_DRIVE));
     },
     {0, 20003},
     {}},
    {"MakeSpare",
     [](SRig& rig) {
       return Execute(rig.m_Plugin, rig.m_Plugin.Drive("sdh").m_ID,
                      Operation(PI::OP_CREATE_DEDICATED_HOTSPARE, 2));
     },
     {0, 20000, 20003, 20018, 20029},
     {"h"}},
    {"ReleaseSpare",
     [](SRig& rig) {
       return Execute(rig.m_Plugin, rig.m_Plugin.Drive("sdc").m_ID,
                      Operation(PI::OP_DELETE_DEDICATED_HOTSPARE));
     },
     {0, 20000, 20003, 20029},
     {"c"}},
    {"StartRebuild", OfArray("md_d2", PI::OP_START_REBUILD), {20000, 20003}, {}},
    {"CancelRebuild", OfArray("md_d1", PI::OP_CANCEL_REBUILD), {20000, 20003}, {}},
    {"Rescan", OfAdapter(PI::OP_RESCAN_ADAPTER), {0}, {}},
    {"Levels", OfAdapter(PI::OP_GET_RAID_LEVEL_INFORMATION), {0}, {}},
    {"Configuration", OfArray("md_d0", PI::OP_GET_CONFIGURATION), {0}, {}},
};

class FaultWalk : public testing::TestWithParam<SOperation> {
 protected:
  /// Runs the operation with its n-th call failing as `arm` sets it up, for every n until none is left.
  /// Returns how many failures there were.
  std::uint64_t Walk(const std::function<void(CFaultyMachine&, std::uint64_t)>& arm) {
    for (std::uint64_t n = 1;; ++n) {
      SCOPED_TRACE(Text("call %d", n));
      SRig rig(MACHINE);
      const std::uint64_t before = rig.m_Door.Struck();
      arm(rig.m_Door, n);
      const unsigned int status = GetParam().m_Act(rig);
      const bool struck = rig.m_Door.Struck() != before;
      rig.m_Door.Clear();
      EXPECT_EQ(GetParam().m_Statuses.count(status), 1U) << status;
      ExpectNothingLeft(rig);
      ExpectTruth(rig);
      if (!struck || HasFailure()) return n - 1;
    }
  }

 private:
  static void ExpectNothingLeft(SRig& rig) {
    EXPECT_EQ(rig.m_Machine.OpenDescriptors(), 0U);
    EXPECT_TRUE(CTestInstance::IsFree(rig.m_Plugin.m_DataLock));
    EXPECT_TRUE(CTestInstance::IsFree(rig.m_Plugin.m_EventsLock));
    for (const std::string& path : rig.m_Door.OpenedForWriting())
      EXPECT_THAT(GetParam().m_MayWrite, testing::Contains(path.substr(std::string("/dev/sd").size())))
          << path;
  }
  /// The next pass shows the machine as an instance sees it that has never seen it before.
  static void ExpectTruth(SRig& rig) {
    rig.Pass();
    CTestInstance fresh(rig.m_Machine);
    std::vector<PI::CAdapterID> adapterIDs;
    ASSERT_EQ(fresh.Execute(PI::CMD_INITIALIZE, 0, &adapterIDs), PI::OK);
    SWorkerState worker;
    fresh.WorkerPass(worker);  // follows the progress of what is rebuilt
    EXPECT_EQ(Model(rig.m_Plugin), Model(fresh));
  }
};

TEST_P(FaultWalk, EveryCallThatFails) {
  const bool asksTheMachine = GetParam().m_Statuses != std::set<unsigned int>{0} &&
                              GetParam().m_Statuses != std::set<unsigned int>{20020};
  for (const int error : {EIO, ENOMEM, EBUSY, ENOENT}) {
    SCOPED_TRACE(Text("error %d", error));
    const std::uint64_t failures =
        Walk([error](CFaultyMachine& door, std::uint64_t n) { door.FailAt(ECall::Any, n, error); });
    EXPECT_EQ(failures >= 4, asksTheMachine) << failures << " calls failed";
  }
  SCOPED_TRACE("close");
  Walk([](CFaultyMachine& door, std::uint64_t n) { door.FailAt(ECall::Close, n, EIO); });
}

TEST_P(FaultWalk, EveryReadAndWriteThatFallsShort) {
  for (const std::size_t size : {0U, 7U, 1023U}) {
    SCOPED_TRACE(Text("%d bytes", size));
    Walk([size](CFaultyMachine& door, std::uint64_t n) { door.ShortenAt(ECall::Read, n, size); });
    const std::uint64_t writes =
        Walk([size](CFaultyMachine& door, std::uint64_t n) { door.ShortenAt(ECall::Write, n, size); });
    EXPECT_EQ(writes != 0, !GetParam().m_MayWrite.empty());
  }
}

INSTANTIATE_TEST_SUITE_P(Operations, FaultWalk, testing::ValuesIn(OPERATIONS),
                         [](const auto& instance) { return std::string(instance.param.m_Name); });

}  // namespace
