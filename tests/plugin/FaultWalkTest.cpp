// Reading and operations on a machine that fails: every call of the door in turn.

#include "Src/piRVXPhysicalDriveSmart.h"
#include "tests/support/Arrays.h"
#include "tests/support/FailingCalls.h"

using namespace NAMESPACE_piRVX;

namespace {

/// The next pass shows the machine as a new instance sees it; identifiers and progress are each one's own.
void ExpectTruth(CTestInstance& plugin, Simulation::CSimulatedSystem& machine) {
  CTestInstance fresh(machine);
  ASSERT_EQ(fresh.Begin(), PI::OK);
  for (CTestInstance* const instance : {&plugin, &fresh}) {
    SWorkerState worker;
    instance->WorkerPass(worker);
  }
  EXPECT_EQ(plugin.m_Adapter.ScannedFields(), fresh.m_Adapter.ScannedFields());
  ASSERT_EQ(plugin.m_PhysicalDrives.size(), fresh.m_PhysicalDrives.size());
  for (CRVXPhysicalDrive& drive : fresh.m_PhysicalDrives)
    EXPECT_EQ(plugin.Drive(drive.m_KernelName).ScannedFields(), drive.ScannedFields());
  ASSERT_EQ(plugin.m_LogicalDrives.size(), fresh.m_LogicalDrives.size());
  for (CRVXLogicalDrive array : fresh.m_LogicalDrives) {
    CRVXLogicalDrive& known = plugin.Array(array.m_KernelName);
    EXPECT_EQ(known.m_Children.size(), array.m_Children.size());
    array.m_Children = known.m_Children;
    array.m_Progress = known.m_Progress;
    EXPECT_EQ(known.ScannedFields(), array.ScannedFields());
  }
}

/// A mirror with a spare, one that is rebuilt and stands still, one with a failed member; three free disks.
const std::string MACHINE =
    DisksOf({300000, 300000, 300000, 300000, 300000, 300000, 300000, 300000, 300000, 300000},
            R"("sync_speed": 0, "arrays": [
                 {"name": "md_d0", "level": "raid1", "chunk": 64, "members": ["sda", "sdb"], "spares": ["sdc"]},
                 {"name": "md_d1", "level": "raid1", "chunk": 64, "recovery": {"done": 30000},
                  "members": ["sdd", {"disk": "sde", "slot": 1, "state": "rebuilding"}]},
                 {"name": "md_d2", "level": "raid1", "chunk": 64, "raid_disks": 2, "members": ["sdf"],
                  "faulty": ["sdg"]}])");

using SWalkRig = SBareRig<CMdSystem>;
using TAct = std::function<unsigned int(SWalkRig&)>;

struct SOperation {
  const char* m_Name;
  TAct m_Act;
  std::string m_Statuses;  ///< all that failing calls lead to; 0 is also what is not reported on purpose
  std::string m_Refused;   ///< what follows when md refuses each of REQUESTS
  unsigned int m_WithoutMemory;
  std::string m_MayWrite;  ///< letters of disks
  bool m_Reads{false};     ///< and begins itself, on the demo machine
};
const std::vector<unsigned long> REQUESTS = {GET_ARRAY_INFO, GET_DISK_INFO, SET_ARRAY_INFO,  ADD_NEW_DISK,
                                             RUN_ARRAY,      STOP_ARRAY,    HOT_REMOVE_DISK, SET_DISK_FAULTY};

/// A scan that cannot read is an empty one, not a failed one.
unsigned int ReadAll(SWalkRig& rig) {
  const unsigned int status = rig.m_Plugin.Begin();
  for (const PI::CObject& object : rig.m_Plugin.Topology())
    EXPECT_EQ(rig.m_Plugin.Properties(object.m_ID).size(), object.m_Properties.size());
  return status;
}
unsigned int CreateMirror(SWalkRig& rig) {
  return Create(rig.m_Plugin, PI::LEVEL_RAID1, PI::STRIPE_64K, {"sdi", "sdh"});
}
/// An operation of the array or drive of that name, or else of the adapter.
TAct Of(const std::string& name, const PI::COperation& operation) {
  return [=](SWalkRig& rig) {
    CTestInstance& plugin = rig.m_Plugin;
    unsigned long id = plugin.m_Adapter.m_ID;
    if (name.starts_with("sd")) id = plugin.Drive(name).m_ID;
    if (name.starts_with("md")) id = plugin.Array(name).m_ID;
    return Execute(plugin, id, operation);
  };
}
/// On a kernel that takes what this one refuses.
TAct Obeyed(const TAct& act) {
  return [=](SWalkRig& rig) {
    rig.m_Own.m_Answers.insert({{HOT_REMOVE_DISK, 0}, {SET_DISK_FAULTY, 0}, {ADD_NEW_DISK, 0}});
    return act(rig);
  };
}

const SOperation OPERATIONS[] = {
    {"Read", ReadAll, " 0 ", "0 0 0 0 0 0 0 0 ", 0, "", true},
    {"CreateMirror", CreateMirror, " 0 20003 20018 20029 ", "0 0 20003 20003 20003 0 0 0 ", 20007, "hi"},
    {"Delete", Of("md_d0", Operation(50050)), " 0 20003 20018 ", "0 0 0 0 0 20003 0 0 ", 20003, "abc"},
    {"DeleteAll", Of("", Operation(50052)), " 0 20003 20018 ", "0 0 0 0 0 20003 0 0 ", 20003, "abcfg"},
    {"MakeSpare", Of("sdh", Operation(50036, 2)), " 0 20000 20003 20018 20029 ",
     "20003 20000 0 20003 0 0 0 0 ", 20007, "h"},
    {"ReleaseSpare", Of("sdc", Operation(50038)), " 0 20000 20003 20029 ", "20003 20000 0 0 0 0 0 0 ", 20007,
     "c"},
    {"StartRebuild", Obeyed(Of("md_d2", Operation(50054))), " 0 20000 20003 ",
     "20003 20003 0 20003 0 0 20003 0 ", 0, ""},
    {"CancelRebuild", Obeyed(Of("md_d1", Operation(50057))), " 0 20000 20003 ",
     "20003 20003 0 0 0 0 0 20003 ", 0, ""}};

/// Its status on a machine whose door is armed, and whether a call failed.
std::pair<unsigned int, bool> Outcome(const SOperation& operation,
                                      const std::function<void(CFaultySystem&)>& arm) {
  gSmartData.clear();  // the cache outlives instances
  SWalkRig rig(operation.m_Reads ? Simulation::CSimulatedSystem::DemoDescription() : MACHINE);
  if (!operation.m_Reads) {
    EXPECT_EQ(rig.m_Plugin.Begin(), PI::OK);
  }
  arm(rig.m_System);
  const unsigned int status = operation.m_Act(rig);
  const bool struck = rig.m_System.Struck() != 0;
  rig.m_System.Clear();
  for (const std::string& path : rig.m_System.OpenedForWriting())
    EXPECT_NE(operation.m_MayWrite.find(path.substr(std::string("/dev/sd").size())), std::string::npos)
        << path;
  rig.m_Own.m_Answers.clear();
  ExpectTruth(rig.m_Plugin, rig.m_Machine);
  return {status, struck};
}

constexpr std::size_t FAIL = ~std::size_t{0};

/// All statuses with the n-th call of a kind failing, or moving `size` bytes at most, for every n.
std::set<unsigned int> Walk(const SOperation& operation, OS::ECall call, std::size_t size) {
  std::set<unsigned int> statuses;
  std::uint64_t n = 0;
  for (bool struck = true; struck && !testing::Test::HasFailure();) {
    SCOPED_TRACE(Text("call %d of kind %d", ++n, static_cast<int>(call)));
    unsigned int status = 0;
    std::tie(status, struck) = Outcome(operation, [&](CFaultySystem& door) {
      size == FAIL ? door.FailAt(call, n, EIO) : door.ShortenAt(call, n, size);
    });
    statuses.insert(status);
  }
  EXPECT_GT(n, call != CFaultySystem::ANY ? 0U : operation.m_Reads ? 80U : 8U) << "it did not get far";
  return statuses;
}

TEST(FaultWalk, EveryFailureHasItsStatusAndTheNextPassShowsTheTruth) {
  for (const SOperation& operation : OPERATIONS) {
    SCOPED_TRACE(operation.m_Name);
    std::string statuses = " ";
    for (const unsigned int status : Walk(operation, CFaultySystem::ANY, FAIL))
      statuses += Text("%d ", status);
    EXPECT_EQ(statuses, operation.m_Statuses);
    for (const auto& [call, size] : {std::pair{OS::ECall::Close, FAIL},
                                     {OS::ECall::Read, std::size_t{0}},
                                     {OS::ECall::Read, 3},
                                     {OS::ECall::Read, 1023},
                                     {OS::ECall::Write, 0},
                                     {OS::ECall::Write, 1023}})
      for (const unsigned int status : Walk(operation, call, size))
        EXPECT_THAT(statuses, testing::HasSubstr(Text(" %d ", status)));
    for (const OS::ECall call :
         {CFaultySystem::ANY, OS::ECall::Open, OS::ECall::Close, OS::ECall::Read, OS::ECall::Ioctl,
          OS::ECall::Status, OS::ECall::ReadLink, OS::ECall::GetCommandPath, OS::ECall::ExecuteCommand}) {
      SCOPED_TRACE(static_cast<int>(call));
      const auto result = Outcome(operation, [&](CFaultySystem& door) { door.FailAt(call, 1, EIO, 100000); });
      EXPECT_TRUE(result.second || !operation.m_Reads) << "every call of a kind fails";
    }
    std::string refused;
    for (const unsigned long request : REQUESTS) {
      SMdRig rig(MACHINE);
      rig.m_Own.m_Answers[request] = EIO;
      refused += Text("%d ", operation.m_Act(rig));
    }
    EXPECT_EQ(refused, operation.m_Refused);
    SMdRig rig(MACHINE);
    const CFailingAllocation noMemory(CFailingAllocation::ALL_THAT_DO_NOT_THROW);
    EXPECT_EQ(operation.m_Act(rig), operation.m_WithoutMemory);
  }
}

}  // namespace
