// Deletion of arrays and the check before it.

#include "tests/support/Arrays.h"

using namespace NAMESPACE_piRVX;
using testing::IsEmpty;

namespace {

constexpr unsigned int ALL = PI::OP_DELETE_ALL_LOGICAL_DRIVES;
constexpr unsigned int LAST = PI::OP_DELETE_LAST_LOGICAL_DRIVE;
constexpr unsigned int SECOND = PI::OP_DELETE_LOGICAL_DRIVE;  ///< of md_d1

class CPartitionSystem : public OS::CForwardingSystem {
 public:
  using OS::CForwardingSystem::CForwardingSystem;
  std::vector<KVTX::CPartition> GetPartitions(const std::string& device) override {
    return m_Partitions[device];
  }
  std::map<std::string, std::vector<KVTX::CPartition>> m_Partitions;
};

struct SDeletionRig : public SRigOf<CPartitionSystem> {
  SDeletionRig()
      : SRigOf(DisksOf({300000, 300000, 300000, 300000, 300000, 300000, 300000},
                       R"("arrays": [{"name": "md_d0", "level": "raid1", "members": ["sda", "sdb"]},
                                     {"name": "md_d1", "level": "raid1", "members": ["sdc", "sdd"]},
                                     {"name": "md_d2", "level": "raid1", "members": ["sde", "sdf"]}])")) {}
  unsigned long Target(unsigned int code) {
    return code == SECOND ? m_Plugin.Array("md_d1").m_ID : m_Plugin.m_Adapter.m_ID;
  }
  unsigned int Run(unsigned int code) { return Execute(m_Plugin, Target(code), Operation(code)); }
  /// The status of each check and the code that it leaves in the operation.
  std::string Ask(const std::vector<unsigned int>& codes) {
    std::string text;
    for (const unsigned int code : codes) {
      PI::COperation operation = Operation(code);
      operation.m_ConfirmationCode = 1;
      const unsigned int status = m_Plugin.Execute(PI::CMD_CHECK_OPERATION, Target(code), &operation);
      text += Text("%d %d, ", status, operation.m_ConfirmationCode);
    }
    return text;
  }
};

TEST(DeletionCheck, OnlyMetadata10MayGo) {
  const std::string head = "Personalities : [raid1]\n";
  const std::string own = "md_d1 : active raid1 sdb[1] sda[0]\n";
  const std::string good = "      299856 blocks super 1.0 [2/2] [UU]\n      \n";
  const std::pair<std::optional<std::string>, unsigned int> cases[] = {
      {head + own + good, 0},
      {head + "md_d2 : active raid1 sdc[0]\n      1 blocks super 1.2 [1/1] [U]\n", 0},  // not told of: passes
      {head + own + "      299856 blocks [2/2] [UU]\n      \n", 20003},
      // The longer name is of another version.
      {head + "md_d10 : active raid1 sdc[0]\n      1 blocks super 1.2 [1/1] [U]\n" + own + good, 20003},
      {head + own + good + "md_d10 : active raid1 sdc[0]\n      1 blocks super 1.2 [1/1] [U]\n", 20003},
      {head + own, 20003},
      // The version ends the file, whose last character is taken for the end of the line.
      {head + own + "super 1.0", 20003},
      // The end of a line as long as a read comes as a piece of its own.
      {head + "md_d1 :" + std::string(120, ' ') + "\n" + good, 20003},
      {std::nullopt, 20003}};
  for (const auto& [text, status] : cases) {
    SDeletionRig rig;
    rig.m_Machine.SetFile("/proc/mdstat", text);
    EXPECT_EQ(rig.Ask({SECOND}), Text("%d 1, ", status)) << text.value_or("no file");
  }
}

TEST(DeletionCheck, TheFirstWarningWinsAndTheFirstRefusalStops) {
  const KVTX::CPartition FREE{"/dev/p1", "", ""};
  const KVTX::CPartition MOUNTED{"/dev/p2", "", "/srv"};
  const KVTX::CPartition LETTER{"/dev/p3", "D", ""};
  const KVTX::CPartition BOTH{"/dev/p4", "E", "/mnt"};
  SDeletionRig rig;
  auto& partitions = rig.m_Own.m_Partitions;
  EXPECT_EQ(rig.Ask({ALL, LAST}), "0 22005, 0 22003, ");
  partitions["/dev/md_d1"] = {FREE, MOUNTED, LETTER};
  partitions["/dev/md_d2"] = {BOTH, MOUNTED};
  EXPECT_EQ(rig.Ask({SECOND, ALL, LAST}), "0 22075, 0 22077, 0 22076, ");
  partitions["/dev/md_d1"] = {LETTER, MOUNTED};
  EXPECT_EQ(rig.Ask({SECOND}), "0 22074, ");
  auto& arrays = rig.m_Plugin.m_LogicalDrives;
  for (auto& array : arrays) array.m_Activity = PI::ACTIVITY_RESYNCING;
  EXPECT_EQ(rig.Ask({ALL}), "0 22076, ") << "a resync does not block";
  arrays[2].m_Activity = PI::ACTIVITY_REBUILDING;
  EXPECT_EQ(rig.Ask({ALL, LAST}), "20020 22076, 20020 1, ") << "of all, the code so far is stored";
  arrays.clear();
  EXPECT_EQ(rig.Ask({ALL, LAST}), "20049 1, 20049 1, ");
}

TEST(Deletion, StopsTheArraysAndWipesTheirMembersAndNothingElse) {
  // The operation, places of arrays that rebuild, the status, letters of the disks that are wiped.
  const std::tuple<unsigned int, std::vector<std::size_t>, unsigned int, std::string> cases[] = {
      {SECOND, {}, 0, "cd"},     {SECOND, {0}, 0, "cd"},     {SECOND, {1}, 20020, ""}, {LAST, {}, 0, "ef"},
      {LAST, {1}, 0, "ef"},      {LAST, {2}, 20020, ""},     {ALL, {}, 0, "abcdef"},   {ALL, {1}, 0, "abef"},
      {ALL, {2}, 20020, "abcd"}, {ALL, {0, 1, 2}, 20020, ""}};  // of all the last counts
  for (const auto& [code, rebuilding, status, members] : cases) {
    SCOPED_TRACE(Text("%d wipes %s", code, members));
    SDeletionRig rig;
    auto& arrays = rig.m_Plugin.m_LogicalDrives;
    for (auto& array : arrays) array.m_Activity = PI::ACTIVITY_RESYNCING;  // which blocks nothing
    for (const std::size_t at : rebuilding) arrays[at].m_Activity = PI::ACTIVITY_REBUILDING;
    EXPECT_EQ(rig.Run(code), status);
    std::string wiped;
    for (const std::string& path : rig.m_System.OpenedForWriting()) wiped += path.back();
    EXPECT_EQ(wiped, members);
    for (const CRVXPhysicalDrive& drive : rig.m_Plugin.m_PhysicalDrives) {
      const bool stays =
          drive.m_IsMemberOf >= 0 && wiped.find(drive.m_KernelName.back()) == std::string::npos;
      EXPECT_EQ(SuperBlockOf(rig.m_Machine, drive).magic != 0, stays) << drive.m_KernelName;
    }
    EXPECT_EQ(Take(rig.m_Plugin.m_ForceWorker), code != ALL && status == 0);
    EXPECT_EQ(Take(rig.m_Plugin.m_PrivateEvent), code == ALL || (code == LAST && status == 0));
    EXPECT_EQ(rig.m_Plugin.m_Adapter.m_Busy, code != SECOND && !wiped.empty());
    rig.Pass();
    EXPECT_EQ(arrays.size(), 3 - wiped.size() / 2);
  }
  SRig rig(DisksOf({300000}));
  const unsigned long id = rig.m_Plugin.m_Adapter.m_ID;
  EXPECT_EQ(Execute(rig.m_Plugin, id, Operation(ALL)), PI::OK);
  EXPECT_EQ(Execute(rig.m_Plugin, id, Operation(LAST)), PI::ERR_NOT_AVAILABLE);
  EXPECT_FALSE(Take(rig.m_Plugin.m_PrivateEvent));
}

TEST(Deletion, TheLastWriteCounts) {
  const std::pair<std::string, unsigned int> cases[] = {{"the first write fails", 0},
                                                        {"the last write fails", 20018},
                                                        {"no member is known", 20003},
                                                        {"md refuses", 20003}};
  for (const auto& [what, status] : cases)
    for (const unsigned int code : {LAST, SECOND}) {
      SCOPED_TRACE(what);
      SRig rig(DisksOf({300000, 300000, 300000}, MirrorOfTwo("md_d1")));
      if (what.ends_with("write fails")) rig.m_System.FailAt(OS::ECall::Write, status == 0 ? 1 : 2, EIO);
      if (what == "no member is known")
        for (auto& drive : rig.m_Plugin.m_PhysicalDrives) drive.m_IsMemberOf = CRVXPhysicalDrive::NO_ARRAY;
      const bool mounted = what == "md refuses";
      if (mounted) rig.m_Machine.Apply(R"({"mount": {"device": "md_d1", "at": "/srv"}})");
      const unsigned long id = code == LAST ? rig.m_Plugin.m_Adapter.m_ID : rig.m_Plugin.Array("md_d1").m_ID;
      EXPECT_EQ(Execute(rig.m_Plugin, id, Operation(code)), status);
      EXPECT_EQ(Take(rig.m_Plugin.m_PrivateEvent), code == LAST) << "after every attempt";
      EXPECT_EQ(Take(rig.m_Plugin.m_ForceWorker), status == 0);
      EXPECT_EQ(rig.m_Plugin.m_Adapter.m_Busy, code == LAST && status == 0);
      EXPECT_EQ(rig.m_System.OpenedForWriting().empty(), status == 20003);
      rig.Pass();
      EXPECT_EQ(rig.m_Plugin.m_LogicalDrives.size(), mounted ? 1U : 0U);
    }
}

}  // namespace
