/// @file
/// Commands that change the machine.

#include <algorithm>

#include "host/Change.h"
#include "host/CommandLine.h"
#include "host/Levels.h"
#include "host/Progress.h"
#include "host/Values.h"

namespace rvxctl {

namespace {

constexpr std::chrono::milliseconds LOOK_INTERVAL{250};
constexpr std::chrono::seconds APPEAR_LIMIT{30};
/// Bytes of a member; above it the size in a mirror's superblock is wrong.
constexpr unsigned long MIRROR_LIMIT = 1UL << 40;

/// Looks until the topology answers the question, or the time runs out.
template <class TQuestion>
bool Await(CSession& session, TQuestion question) {
  const auto end = std::chrono::steady_clock::now() + APPEAR_LIMIT;
  for (; std::chrono::steady_clock::now() < end; session.Pause(LOOK_INTERVAL)) {
    session.Renew();
    if (question(CTopology(session))) return true;
  }
  return false;
}

/// The array with this name; null when there is none.
const PI::CObject* FindArray(const CTopology& topology, const std::string& name) {
  const auto arrays = topology.OfKind(PI::OBJ_LOGICAL_DRIVE);
  const auto found = std::find_if(arrays.begin(), arrays.end(),
                                  [&](const PI::CObject* array) { return NameOf(*array) == name; });
  return found == arrays.end() ? nullptr : *found;
}

/// Follows the rebuild or resync that a change set off. A change has one answer: with --json nothing is shown
/// on the way.
void FollowToEnd(CContext& context, unsigned long id, const std::string& done) {
  context.Session().Start();
  const EProgress progress = context.Options().m_Json ? EProgress::HIDDEN : EProgress::SHOWN;
  if (const int status = FollowRun(context, id, progress); status != EXIT_DONE)
    throw CError(status, done + ", but the run did not complete");
}

int ShowDone(CContext& context, const std::string& text, Json data = Json::object()) {
  data["done"] = text;
  context.Show("change", data, text + "\n");
  return EXIT_DONE;
}

/// "sda, sdb"
std::string Listed(const std::vector<const PI::CObject*>& objects) {
  std::string names;
  for (const PI::CObject* const object : objects) names += (names.empty() ? "" : ", ") + NameOf(*object);
  return names;
}

struct SCreation {
  std::string m_Level;
  std::optional<std::string> m_Stripe;
  std::vector<std::string> m_Disks;
  SConsent m_Consent;
};

/// What is lost by it, and what a person may not expect of it.
std::string LossOf(const PI::CLogicalDrive& request, const std::vector<SDiskPlan>& disks) {
  const auto isLarge = [](const SDiskPlan& disk) { return disk.m_Bytes > MIRROR_LIMIT; };
  std::string loss = "What is on these disks is lost.";
  if (request.m_RaidLevel == PI::LEVEL_RAID1 && std::any_of(disks.begin(), disks.end(), isLarge))
    loss += " A mirror of disks above 1 TiB is refused, or comes out much smaller than they are.";
  return loss;
}

/// Waits for the array that was not there before.
int ShowCreated(CContext& context, const CTopology& before, const SConsent& consent) {
  unsigned long id = 0;
  std::string name;
  Await(context.Session(), [&](const CTopology& now) {
    for (const PI::CObject* const array : now.OfKind(PI::OBJ_LOGICAL_DRIVE))
      if (FindArray(before, NameOf(*array)) == nullptr) {
        id = array->m_ID;
        name = NameOf(*array);
      }
    return id != 0;
  });
  if (id == 0)
    return ShowDone(context, "The array was created, but has not shown up yet; see 'rvxctl array list'.");
  if (consent.m_Wait) FollowToEnd(context, id, name + " is created");
  return ShowDone(context, "Created " + name + ".", {{"array", name}, {"id", HexadecimalID(id)}});
}

int CreateArray(CContext& context, const SCreation& wanted) {
  const CTopology topology(context.Session());
  const std::vector<PI::CLevel> levels = OfferedLevels(topology);
  PI::CLogicalDrive request;
  request.m_RaidLevel = LevelOf(levels, wanted.m_Level);
  if (wanted.m_Stripe) request.m_StripeSize = StripeOf(levels, *wanted.m_Stripe);
  request.m_Containers.emplace_back();
  std::vector<const PI::CObject*> disks;
  std::vector<SDiskPlan> plans;
  for (const std::string& address : wanted.m_Disks) {
    disks.push_back(&topology.Find(address, PI::OBJ_PHYSICAL_DRIVE));
    request.m_Containers.front().m_Drives.emplace_back(disks.back()->m_ID);
    plans.push_back(PlanOf(context.Machine(), *disks.back()));
  }
  const SChange change{"create a " + wanted.m_Level + " array of " + Listed(disks),
                       topology,
                       topology.Adapter(),
                       PI::OP_CREATE_LOGICAL_DRIVE,
                       plans,
                       LossOf(request, plans),
                       wanted.m_Level,
                       [&](PI::COperation& operation) { operation.m_pRequest = &request; }};
  if (!CarryOut(context, change, wanted.m_Consent)) return EXIT_DONE;
  return ShowCreated(context, topology, wanted.m_Consent);
}

struct SDeletion {
  std::string m_Array;
  bool m_Last{false};
  bool m_All{false};
  SConsent m_Consent;
};

/// What a deletion asks whom for, and which arrays go by it.
struct SDoomed {
  PI::_OPERATION_CODE m_Code;
  const PI::CObject& m_Asked;
  const char* m_Which;
  std::vector<const PI::CObject*> m_Arrays;
};

SDoomed DoomedBy(const CTopology& topology, const SDeletion& wanted) {
  const auto arrays = topology.OfKind(PI::OBJ_LOGICAL_DRIVE);
  if (wanted.m_All) return {PI::OP_DELETE_ALL_LOGICAL_DRIVES, topology.Adapter(), "all arrays", arrays};
  if (wanted.m_Last)
    return {PI::OP_DELETE_LAST_LOGICAL_DRIVE,
            topology.Adapter(),
            "the last array",
            {arrays.empty() ? arrays.end() : arrays.end() - 1, arrays.end()}};
  const PI::CObject& array = topology.Find(wanted.m_Array, PI::OBJ_LOGICAL_DRIVE);
  return {PI::OP_DELETE_LOGICAL_DRIVE, array, "", {&array}};
}

int DeleteArray(CContext& context, const SDeletion& wanted) {
  if (!wanted.m_Array.empty() + wanted.m_Last + wanted.m_All != 1)
    throw CError(EXIT_USAGE, "say which array: ARRAY, --last or --all");
  CSession& session = context.Session();
  const CTopology topology(session);
  const SDoomed doomed = DoomedBy(topology, wanted);
  std::vector<SDiskPlan> plans;
  for (const PI::CObject* const array : doomed.m_Arrays) {
    // Its file system and mounts are what is lost.
    plans.push_back(PlanOf(context.Machine(), *array));
    for (const unsigned long id : array->m_Children)
      if (const PI::CObject* const disk = topology.FindID(id))
        plans.push_back(PlanOf(context.Machine(), *disk));
  }
  const std::string which = doomed.m_Which;
  const std::string names = Listed(doomed.m_Arrays);
  const SChange change{"delete " + which + (which.empty() || names.empty() ? "" : ": ") + names,
                       topology,
                       doomed.m_Asked,
                       doomed.m_Code,
                       plans,
                       "What is stored on it is lost."};
  if (!CarryOut(context, change, wanted.m_Consent)) return EXIT_DONE;
  // The plug-in's answer for all of them is that of the last one; what is still there then was refused.
  std::vector<const PI::CObject*> left;
  const bool gone = Await(session, [&](const CTopology& now) {
    left.clear();
    for (const PI::CObject* const array : doomed.m_Arrays)
      if (FindArray(now, NameOf(*array)) != nullptr) left.push_back(array);
    return left.empty();
  });
  if (!gone)
    throw CError(EXIT_PLUGIN_ERROR, "still there: " + Listed(left) + "; 'rvxctl operations' may tell why");
  return ShowDone(context, "Deleted " + names + ".");
}

struct SSpare {
  std::string m_Disk;
  std::string m_Array;
  SConsent m_Consent;
};

/// The number by which an array is asked for; throws CError when another one has it, too.
unsigned long OwnNumberOf(const CTopology& topology, const PI::CObject& array) {
  const auto number = NumberOf(array, PI::PROP_ARRAY_NUMBER);
  for (const PI::CObject* const other : topology.OfKind(PI::OBJ_LOGICAL_DRIVE))
    if (other->m_ID != array.m_ID && NumberOf(*other, PI::PROP_ARRAY_NUMBER) == number)
      throw CError(EXIT_NOT_ALLOWED,
                   NameOf(array) + " and " + NameOf(*other) +
                       " have the same number, and the plug-in is told the number alone: stop " +
                       "one of them, or use mdadm --add");
  return static_cast<unsigned long>(number.value_or(-1));
}

/// A degraded array begins to rebuild onto its new spare soon.
void FollowRebuild(CContext& context, const std::string& array, const std::string& done) {
  unsigned long id = 0;
  Await(context.Session(), [&](const CTopology& now) {
    const PI::CObject* const object = FindArray(now, array);
    if (object == nullptr) throw CError(EXIT_PLUGIN_ERROR, "the array is gone");
    id = object->m_ID;
    return NumberOf(*object, PI::PROP_ACTIVITY) == PI::ACTIVITY_REBUILDING ||
           NumberOf(*object, PI::PROP_STATUS) != PI::STATUS_DEGRADED;
  });
  FollowToEnd(context, id, done);
}

int AddSpare(CContext& context, const SSpare& wanted) {
  const CTopology topology(context.Session());
  const PI::CObject& disk = topology.Find(wanted.m_Disk, PI::OBJ_PHYSICAL_DRIVE);
  const PI::CObject& array = topology.Find(wanted.m_Array, PI::OBJ_LOGICAL_DRIVE);
  const unsigned long number = OwnNumberOf(topology, array);
  const SChange change{"make " + NameOf(disk) + " a hot spare of " + NameOf(array),
                       topology,
                       disk,
                       PI::OP_CREATE_DEDICATED_HOTSPARE,
                       {PlanOf(context.Machine(), disk)},
                       "What is on the disk is lost.",
                       {},
                       [&](PI::COperation& operation) { operation.m_Parameters.at(0).SetValue(number); }};
  if (!CarryOut(context, change, wanted.m_Consent)) return EXIT_DONE;
  const std::string done = NameOf(disk) + " is a hot spare of " + NameOf(array);
  if (wanted.m_Consent.m_Wait) FollowRebuild(context, NameOf(array), done);
  return ShowDone(context, done + ".");
}

int ReleaseSpare(CContext& context, const SSpare& wanted) {
  const CTopology topology(context.Session());
  const PI::CObject& disk = topology.Find(wanted.m_Disk, PI::OBJ_PHYSICAL_DRIVE);
  const SChange change{"release " + NameOf(disk) + " from its array and wipe its superblock",
                       topology,
                       disk,
                       PI::OP_DELETE_DEDICATED_HOTSPARE,
                       {PlanOf(context.Machine(), disk)},
                       "What is on the disk is lost."};
  if (!CarryOut(context, change, wanted.m_Consent)) return EXIT_DONE;
  return ShowDone(context, NameOf(disk) + " is released.");
}

struct SRebuild {
  std::string m_Array;
  SConsent m_Consent;
};

int StartRebuild(CContext& context, const SRebuild& wanted) {
  const CTopology topology(context.Session());
  const PI::CObject& array = topology.Find(wanted.m_Array, PI::OBJ_LOGICAL_DRIVE);
  const SChange change{"start the rebuild of " + NameOf(array), topology, array, PI::OP_START_REBUILD};
  if (!CarryOut(context, change, wanted.m_Consent)) return EXIT_DONE;
  if (wanted.m_Consent.m_Wait) FollowToEnd(context, array.m_ID, "the rebuild is started");
  return ShowDone(context, "The rebuild of " + NameOf(array) + " is started.");
}

int CancelRebuild(CContext& context, const SRebuild& wanted) {
  const CTopology topology(context.Session());
  const PI::CObject& array = topology.Find(wanted.m_Array, PI::OBJ_LOGICAL_DRIVE);
  const SChange change{"cancel the rebuild of " + NameOf(array),
                       topology,
                       array,
                       PI::OP_CANCEL_REBUILD,
                       {},
                       "The array stays degraded."};
  if (!CarryOut(context, change, wanted.m_Consent)) return EXIT_DONE;
  return ShowDone(context, "The rebuild of " + NameOf(array) + " is cancelled.");
}

int Rescan(CContext& context) {
  CSession& session = context.Session();
  const CTopology topology(session);
  CarryOut(context, {"rescan the system", topology, topology.Adapter(), PI::OP_RESCAN_ADAPTER}, {});
  session.Start();
  if (!AwaitPass(session, topology.Plugin().m_UpdateCounter))
    throw CError(EXIT_BUSY, "the rescan has not ended within 30 s");
  const CTopology now(session);
  return ShowDone(context, "Rescanned: " + std::to_string(now.OfKind(PI::OBJ_PHYSICAL_DRIVE).size()) +
                               " disks, " + std::to_string(now.OfKind(PI::OBJ_LOGICAL_DRIVE).size()) +
                               " arrays.");
}

void AddConsent(CLI::App* leaf, SConsent& consent) {
  leaf->add_flag("--yes", consent.m_Yes, "do not ask");
  leaf->add_flag("--dry-run", consent.m_DryRun, "show plan and check, change nothing");
}

void AddWaiting(CLI::App* leaf, SConsent& consent) {
  AddConsent(leaf, consent);
  leaf->add_flag("--wait", consent.m_Wait, "follow what this sets off to its end");
}

void AddArrays(CGroup group) {
  const auto [create, creation] =
      group.Leaf<SCreation>("create", "makes an array; what is on its disks is lost", CreateArray);
  create->add_option("--level", creation.m_Level, "such as raid1; 'rvxctl levels' names all")
      ->required()
      ->type_name("LEVEL");
  create->add_option("--stripe", creation.m_Stripe, "in KiB, of what 'rvxctl levels' tells")
      ->type_name("KIB");
  create->add_option("DISK", creation.m_Disks, "the disks, in order")->required();
  AddWaiting(create, creation.m_Consent);

  const auto [remove, deletion] =
      group.Leaf<SDeletion>("delete", "stops an array and wipes its superblocks", DeleteArray);
  remove->add_option("ARRAY", deletion.m_Array, "the array");
  remove->add_flag("--last", deletion.m_Last, "the last one of the list");
  remove->add_flag("--all", deletion.m_All, "every array");
  AddConsent(remove, deletion.m_Consent);
}

void AddSpares(CGroup group) {
  const auto [add, spare] =
      group.Leaf<SSpare>("add", "makes a disk a spare; what is on it is lost", AddSpare);
  add->add_option("DISK", spare.m_Disk, "the disk")->required();
  add->add_option("ARRAY", spare.m_Array, "the array")->required();
  AddWaiting(add, spare.m_Consent);

  const auto [release, member] =
      group.Leaf<SSpare>("release", "takes a spare or failed disk out of its array", ReleaseSpare);
  release->add_option("DISK", member.m_Disk, "the disk")->required();
  AddConsent(release, member.m_Consent);
}

void AddRebuilds(CGroup group) {
  const auto [start, started] =
      group.Leaf<SRebuild>("start", "starts the rebuild of a degraded array", StartRebuild);
  start->add_option("ARRAY", started.m_Array, "the array")->required();
  AddWaiting(start, started.m_Consent);

  const auto [cancel, cancelled] =
      group.Leaf<SRebuild>("cancel", "cancels the rebuild that runs", CancelRebuild);
  cancel->add_option("ARRAY", cancelled.m_Array, "the array")->required();
  AddConsent(cancel, cancelled.m_Consent);
}

}  // namespace

void AddChanging(CGroup& all) {
  AddArrays(all.At("array"));
  AddSpares(all.Add("spare", "hot spares of one array"));
  AddRebuilds(all.Add("rebuild", "rebuilds of an array"));
  all.Leaf("rescan", "looks at the system now", Rescan);
}

}  // namespace rvxctl
