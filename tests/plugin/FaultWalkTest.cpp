// Reading and operations on a machine that fails: every call of the door in turn.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "Src/piRVXTrace.h"
#include "tests/support/Arrays.h"
#include "tests/support/NoMemory.h"

using namespace NAMESPACE_piRVX;
using ECall = CFaultyMachine::ECall;

namespace {

/// Disks and arrays in a line each, without identifiers. A disk that came back stands at the end, so the
/// order is left out.
std::multiset<std::string> ModelText(const CTestInstance& plugin) {
  std::multiset<std::string> lines;
  for (const auto& drive : plugin.m_PhysicalDrives)
    lines.insert(Text("%s %d %d %d %d", drive.m_DisplayName, drive.m_Status, drive.m_SpareState,
                      drive.m_IsMemberOf, drive.m_Medium));
  for (const auto& array : plugin.m_LogicalDrives)
    lines.insert(Text("%s %d %d %d %d", array.m_KernelName, array.m_Status, array.m_RaidLevel,
                      array.m_LogicalSize, array.m_Children.size()));
  return lines;
}

/// Command 1 on a machine with a failing door, and everything that only reads.
struct SWalk : public SBareRig<> {
  SWalk() {
    gSmartData.clear();  // the cache outlives instances
  }
  ~SWalk() { EXPECT_TRUE(m_Door.OpenedForWriting().empty()) << "reading opened something for writing"; }

  void Read() {
    // A scan that cannot read is an empty one, not a failed one.
    EXPECT_EQ(m_Plugin.Begin(), PI::OK);
    const std::vector<PI::CObject> objects = m_Plugin.Topology();
    EXPECT_EQ(objects.size(), 2 + m_Plugin.m_PhysicalDrives.size() + m_Plugin.m_LogicalDrives.size());
    std::set<unsigned long> ids;
    for (const PI::CObject& object : objects) ids.insert(object.m_ID);
    EXPECT_EQ(ids.size(), objects.size());
    for (const PI::CObject& object : objects) {
      for (const unsigned long child : object.m_Children) EXPECT_EQ(ids.count(child), 1U);
      const auto properties = m_Plugin.Properties(object.m_ID);
      EXPECT_EQ(properties.size(), object.m_Properties.size());
      for (const PI::CProperty& listed : properties)
        EXPECT_EQ(m_Plugin.Property(object.m_ID, listed.m_ID).m_Value.index(), listed.m_Value.index())
            << listed.m_ID;
    }
    EXPECT_EQ(m_Machine.OpenDescriptors(), 0U);
  }

  /// The first pass after the failure: the model is what it would be without it.
  void ExpectRecovery() {
    static const auto expected = [] {
      SRig rig;
      rig.Pass();
      return ModelText(rig.m_Plugin);
    }();
    m_Door.Clear();
    SWorkerState worker;
    m_Plugin.WorkerPass(worker);
    EXPECT_EQ(ModelText(m_Plugin), expected);
  }
};

TEST(FaultWalkOfReading, EverySingleCallMayFail) {
  for (const bool shortened : {false, true}) {
    std::uint64_t failures = 0;
    for (std::uint64_t n = 1;; ++n) {
      SCOPED_TRACE(testing::Message() << (shortened ? "short read " : "call ") << n);
      SWalk walk;
      if (shortened)
        walk.m_Door.ShortenAt(ECall::Read, n, 3);
      else
        walk.m_Door.FailAt(ECall::Any, n, n % 2 == 0 ? EIO : ENOMEM);
      walk.Read();
      if (walk.m_Door.Struck() == 0) break;
      ++failures;
      walk.ExpectRecovery();
      if (HasFailure()) return;  // one failure point tells enough
    }
    EXPECT_GT(failures, 80U) << "the walk did not reach the scan";
  }
}

TEST(FaultWalkOfReading, AWholeKindOfCallsMayFail) {
  const struct {
    ECall m_Kind;
    std::size_t m_Drives;
    std::size_t m_Arrays;
  } cases[] = {
      {ECall::Open, 0, 0},           {ECall::Read, 0, 0},           {ECall::Any, 0, 0},
      {ECall::GetCommandPath, 0, 2}, {ECall::ExecuteCommand, 0, 2}, {ECall::ReadLink, 0, 2},
      {ECall::Ioctl, 8, 2},          {ECall::Close, 8, 2},
  };
  for (const auto& entry : cases) {
    SCOPED_TRACE(static_cast<int>(entry.m_Kind));
    SWalk walk;
    walk.m_Door.FailAt(entry.m_Kind, 1, EIO, ~std::uint64_t{0} - 1000);
    walk.Read();
    EXPECT_GT(walk.m_Door.Struck(), 0U);
    EXPECT_EQ(walk.m_Plugin.m_PhysicalDrives.size(), entry.m_Drives);
    EXPECT_EQ(walk.m_Plugin.m_LogicalDrives.size(), entry.m_Arrays);
    walk.ExpectRecovery();
  }
}

// --- operations ------------------------------------------------------------------------------------------

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

using TAct = std::function<unsigned int(SMdRig&)>;

struct SOperation {
  const char* m_Name;
  TAct m_Act;
  /// When the first, second ... call of the machine fails, and last when none does: how many give which
  /// status. 0 is also what is not reported on purpose.
  std::string m_Statuses;
  unsigned int m_WithoutMemory;
  std::string m_MayWrite;  ///< letters of disks
};

void PrintTo(const SOperation& operation, std::ostream* stream) { *stream << operation.m_Name; }

TAct Creates(std::uint32_t level, std::vector<std::string> disks) {
  return [=](SMdRig& rig) { return Create(rig.m_Plugin, level, PI::STRIPE_64K, disks); };
}
TAct OfAdapter(unsigned int code) {
  return [=](SMdRig& rig) { return Execute(rig.m_Plugin, rig.m_Plugin.m_Adapter.m_ID, Operation(code)); };
}
TAct OfArray(const char* name, unsigned int code) {
  return [=](SMdRig& rig) { return Execute(rig.m_Plugin, rig.m_Plugin.Array(name).m_ID, Operation(code)); };
}
TAct OfDrive(const char* name, const PI::COperation& operation) {
  return [=](SMdRig& rig) { return Execute(rig.m_Plugin, rig.m_Plugin.Drive(name).m_ID, operation); };
}
/// On a kernel that takes what this one refuses.
TAct Obeyed(const TAct& act) {
  return [=](SMdRig& rig) {
    for (const unsigned long request :
         std::vector<unsigned long>{HOT_REMOVE_DISK, SET_DISK_FAULTY, ADD_NEW_DISK})
      rig.m_Own.m_Answers[request] = 0;
    return act(rig);
  };
}

const SOperation OPERATIONS[] = {
    {"CreateMirror", Creates(PI::LEVEL_RAID1, {"sdi", "sdh"}),
     "1x0 2x20029 3x20003 4x0 2x20003 2x20018 1x20003 4x0 2x20003 2x20018 2x20003 1x0 ", 20007, "hi"},
    {"Delete", OfArray("md_d0", PI::OP_DELETE_LOGICAL_DRIVE), "2x20003 20x0 2x20003 2x20018 1x0 ", 20003,
     "abc"},
    {"DeleteAll", OfAdapter(PI::OP_DELETE_ALL_LOGICAL_DRIVES), "26x0 2x20003 12x0 2x20003 2x20018 1x0 ",
     20003, "abcfg"},
    {"DeleteBusy", OfArray("md_d1", PI::OP_DELETE_LOGICAL_DRIVE), "1x20020 ", 20020, ""},
    {"MakeSpare", OfDrive("sdh", Operation(PI::OP_CREATE_DEDICATED_HOTSPARE, 2)),
     "1x20029 1x20003 1x20000 4x20003 5x0 2x20003 2x20018 1x20003 1x0 ", 20007, "h"},
    {"ReleaseSpare", OfDrive("sdc", Operation(PI::OP_DELETE_DEDICATED_HOTSPARE)),
     "1x20029 1x20003 2x0 1x20000 1x0 1x20000 10x0 ", 20007, "c"},
    {"StartRebuild", OfArray("md_d2", PI::OP_START_REBUILD), "6x20003 1x20000 2x20003 ", 20003, ""},
    {"StartRebuildObeyed", Obeyed(OfArray("md_d2", PI::OP_START_REBUILD)),
     "2x20003 2x0 1x20003 1x0 1x20000 2x20003 1x0 ", 0, ""},
    {"CancelRebuild", OfArray("md_d1", PI::OP_CANCEL_REBUILD), "5x20003 1x20000 2x20003 ", 20003, ""},
    {"CancelRebuildObeyed", Obeyed(OfArray("md_d1", PI::OP_CANCEL_REBUILD)),
     "2x20003 1x0 1x20003 1x0 1x20000 1x20003 1x0 ", 0, ""}};

class FaultWalk : public testing::TestWithParam<SOperation> {
 protected:
  using TArm = std::function<void(CFaultyMachine&, std::uint64_t)>;
  /// Runs the operation with its n-th call failing as `arm` sets it up, for every n until none is left. The
  /// last status is that without a failure.
  static std::vector<unsigned int> Walk(const TArm& arm) {
    std::vector<unsigned int> statuses;
    for (std::uint64_t n = 1;; ++n) {
      SCOPED_TRACE(Text("call %d", n));
      SMdRig rig(MACHINE);
      const std::uint64_t before = rig.m_Door.Struck();
      arm(rig.m_Door, n);
      statuses.push_back(GetParam().m_Act(rig));
      const bool struck = rig.m_Door.Struck() != before;
      rig.m_Door.Clear();
      for (const std::string& path : rig.m_Door.OpenedForWriting())
        EXPECT_NE(GetParam().m_MayWrite.find(path.substr(std::string("/dev/sd").size())), std::string::npos);
      ExpectTruth(rig);
      if (!struck || HasFailure()) return statuses;
    }
  }

 private:
  /// The next pass shows the machine as an instance sees it that has never seen it before.
  static void ExpectTruth(SMdRig& rig) {
    rig.m_Own.m_Answers.clear();
    rig.Pass();
    CTestInstance fresh(rig.m_Machine);
    ASSERT_EQ(fresh.Begin(), PI::OK);
    SWorkerState worker;
    fresh.WorkerPass(worker);  // follows the progress of what is rebuilt
    EXPECT_EQ(Model(rig.m_Plugin), Model(fresh));
  }
};

TEST_P(FaultWalk, EveryCallThatFailsHasItsStatus) {
  for (const int error : {EIO, ENOMEM, EBUSY, ENOENT}) {
    SCOPED_TRACE(Text("error %d", error));
    const auto statuses =
        Walk([error](CFaultyMachine& door, std::uint64_t n) { door.FailAt(ECall::Any, n, error); });
    std::string text;
    for (auto at = statuses.begin(), end = at; at != statuses.end(); at = end) {
      end = std::find_if(at, statuses.end(), [at](unsigned int status) { return status != *at; });
      text += Text("%dx%d ", end - at, *at);
    }
    EXPECT_EQ(text, GetParam().m_Statuses);
  }
  SMdRig rig(MACHINE);
  const CNoMemory noMemory;
  EXPECT_EQ(GetParam().m_Act(rig), GetParam().m_WithoutMemory);
}

TEST_P(FaultWalk, EveryCloseThatFailsAndEveryReadAndWriteThatFallsShort) {
  const auto expectKnown = [](const TArm& arm) {
    const auto statuses = Walk(arm);
    for (const unsigned int status : statuses)
      EXPECT_THAT(GetParam().m_Statuses, testing::HasSubstr(Text("x%d ", status)));
    return statuses.size();
  };
  expectKnown([](CFaultyMachine& door, std::uint64_t n) { door.FailAt(ECall::Close, n, EIO); });
  for (const std::size_t size : {0U, 7U, 1023U}) {
    SCOPED_TRACE(Text("%d bytes", size));
    expectKnown([size](CFaultyMachine& door, std::uint64_t n) { door.ShortenAt(ECall::Read, n, size); });
    const std::size_t writes =
        expectKnown([size](CFaultyMachine& door, std::uint64_t n) { door.ShortenAt(ECall::Write, n, size); });
    EXPECT_EQ(writes > 1, !GetParam().m_MayWrite.empty());
  }
}

INSTANTIATE_TEST_SUITE_P(Operations, FaultWalk, testing::ValuesIn(OPERATIONS),
                         [](const auto& instance) { return std::string(instance.param.m_Name); });

}  // namespace
