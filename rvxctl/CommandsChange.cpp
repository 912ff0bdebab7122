/// @file
/// Commands that change the machine.

#include <algorithm>
#include <set>

#include "host/Proposals.h"
#include "host/Rules.h"
#include "host/Values.h"
#include "rvxctl/CommandLine.h"
#include "rvxctl/Consent.h"
#include "rvxctl/Progress.h"

namespace Host {

namespace {

constexpr std::chrono::milliseconds LOOK_INTERVAL{250};
constexpr std::chrono::seconds APPEAR_LIMIT{30};
constexpr std::chrono::seconds DELETION_LIMIT{3};

/// Looks until the topology answers the question, or the time runs out.
template <class TQuestion>
bool Await(CSession& session, TQuestion question, std::chrono::seconds limit = APPEAR_LIMIT) {
  const auto end = std::chrono::steady_clock::now() + limit;
  for (; std::chrono::steady_clock::now() < end; session.Pause(LOOK_INTERVAL)) {
    session.Renew();
    if (question(CTopology(session))) return true;
  }
  return false;
}

/// What comes behind a change that is done: where it fails or is broken off, text and document say that the
/// change is done. `goesOn` is added where it is the person who goes.
template <class TStep>
void BehindChange(CContext& context, std::string done, const Json& data, TStep step,
                  const std::string& goesOn = "") {
  try {
    step();
  } catch (const CError& error) {
    if (error.m_ExitStatus >= EXIT_SIGNAL) done += goesOn;
    const CError told(error.m_ExitStatus, done + "; " + error.what(), error.m_Status);
    Json document = data;
    document["done"] = done;
    if (context.Options().m_Json) context.Show("change", document, "", Json::array({ErrorJson(told)}));
    throw CError(told);
  }
}

/// Follows the rebuild or resync that a change set off. A change has one answer: with --json nothing is shown
/// on the way.
void FollowToEnd(CContext& context, const std::string& array, const std::string& done, const Json& data) {
  CSession& session = context.Session();
  session.Start();
  const EProgress progress = context.Options().m_Json ? EProgress::HIDDEN : EProgress::SHOWN;
  const auto follow = [&] {
    const unsigned long id = CTopology(session).Find(array, PI::OBJ_LOGICAL_DRIVE).m_ID;
    if (const int status = FollowRun(context, id, progress); status != EXIT_DONE)
      throw CError(status, "the run did not complete: 'rvxctl status' tells how the array is");
  };
  BehindChange(context, done, data, follow, " and goes on: 'rvxctl array watch " + array + "' follows it");
}

int ShowDone(CContext& context, const std::string& text, Json data = Json::object()) {
  data["done"] = text;
  try {
    context.Show("change", data, text + "\n");
  } catch (const CError& error) {
    throw CError(error.m_ExitStatus, text + " But " + error.what());
  }
  return EXIT_DONE;
}

/// Those of the members that have md's superblock still, or cannot be read: at the next start they are taken
/// for members again.
std::vector<std::string> StillMembers(const CInventory& inventory, const std::vector<std::string>& disks) {
  std::vector<std::string> members;
  for (const std::string& name : disks) {
    const SContents contents = inventory.Machine().Contents("/dev/" + name);
    if (!contents.m_IsReadable || std::ranges::any_of(contents.m_All, [](const std::string& one) {
          return one.starts_with("linux_raid_member");
        }))
      members.push_back(name);
  }
  return members;
}

CError NotWiped(const std::vector<std::string>& disks) {
  return {EXIT_PLUGIN_ERROR,
          Joined(disks) +
              " still has its superblock, or cannot be read: at the next start md may take it "
              "for a member again; mdadm --zero-superblock wipes it"};
}

/// As CarryOut, for a change that is done or not: false after a dry run, and a failure is thrown.
bool Execute(CContext& context, const Proposal& propose, const SConsent& consent) {
  const auto execution = CarryOut(context, propose, consent);
  if (execution && execution->m_Failure) throw CError(*execution->m_Failure);
  return execution.has_value();
}

struct SCreation : Proposals::SCreation {
  SConsent m_Consent;
};

int CreateArray(CContext& context, const SCreation& wanted) {
  CSession& session = context.Session();
  std::set<std::string> before;
  std::vector<std::string> disks;
  const Proposal propose = [&](const CInventory& inventory) {
    before.clear();
    for (const SArrayEntry& array : inventory.Arrays()) before.insert(array.m_Name);
    SChange change = Proposals::Creation(inventory, wanted, wanted.m_Consent.m_Rules);
    disks.clear();
    for (const SDiskPlan& disk : change.m_Disks) disks.push_back(disk.m_Name);
    return change;
  };
  if (!Execute(context, propose, wanted.m_Consent)) return EXIT_DONE;
  std::string name;
  Json data = {{"array", nullptr}, {"disks", disks}};
  std::string size;
  const auto look = [&](const CTopology& now) {
    const CInventory inventory(now, context.Machine());
    for (const PI::CObject* const array : now.OfKind(PI::OBJ_LOGICAL_DRIVE))
      if (inventory.EntryOf(*array).HasMembers(disks) && !before.contains(NameOf(*array))) {
        name = NameOf(*array);
        const auto bytes = inventory.FactsOf(*array).m_Bytes;
        size = bytes ? SizeOfKiB(*bytes >> 10) : SizeText(NumberOf(*array, PI::PROP_ARRAY_CAPACITY));
        data["array"] = name;
        data["id"] = HexadecimalID(array->m_ID);
        data["size"] = size;
        data["bytes"] = bytes ? Json(*bytes) : Json(nullptr);
      }
    return !name.empty();
  };
  BehindChange(context, "the array is created: 'rvxctl array list' shows it", data,
               [&] { Await(session, look); });
  if (name.empty())
    return ShowDone(context, "The array was created, but has not shown up yet; see 'rvxctl array list'.",
                    data);
  if (wanted.m_Consent.m_Wait) FollowToEnd(context, name, name + " is created", data);
  return ShowDone(context, "Created " + name + ": " + size + ".", data);
}

struct SDeletion : Proposals::SDeletion {
  SConsent m_Consent;
};

/// An array of a deletion, with its members before.
struct SDeleted {
  explicit SDeleted(std::string array) : m_Array(std::move(array)) {}
  std::string m_Array;
  std::vector<std::string> m_Disks;   ///< managed disks: the plug-in wipes them
  std::vector<std::string> m_Others;  ///< partitions, disks that are missing or not managed
};

/// What is gone and what is left, whatever the plug-in answered: its answer for several is that of the last.
int ShowDeleted(CContext& context, const std::vector<SDeleted>& wanted, const SExecution& execution) {
  std::vector<std::string> left;
  // md's end of an array takes effect at once; a moment more is for whoever looks at it just then.
  const auto look = [&](const CTopology& now) {
    left.clear();
    for (const SDeleted& one : wanted)
      if (now.FindArray(one.m_Array) != nullptr) left.push_back(one.m_Array);
    return left.empty() || execution.m_Failure;
  };
  BehindChange(context, "the deletion is carried out: 'rvxctl array list' shows what is left", Json::object(),
               [&] { Await(context.Session(), look, DELETION_LIMIT); });
  Json deleted = Json::array();
  std::string gone;
  std::vector<std::string> disks;
  std::vector<std::string> others;  // it was said before that these keep their superblocks
  for (const SDeleted& one : wanted)
    if (std::ranges::find(left, one.m_Array) == left.end()) {
      deleted.push_back(one.m_Array);
      gone += (gone.empty() ? "" : ", ") + one.m_Array;
      disks.insert(disks.end(), one.m_Disks.begin(), one.m_Disks.end());
      others.insert(others.end(), one.m_Others.begin(), one.m_Others.end());
    }
  const CTopology now(context.Session());
  const CInventory inventory(now, context.Machine());
  const std::vector<std::string> marked = StillMembers(inventory, disks);
  std::vector<std::string> notWiped = marked;
  notWiped.insert(notWiped.end(), others.begin(), others.end());
  if (!execution.m_Failure && left.empty() && marked.empty())
    return ShowDone(context,
                    "Deleted " + gone + "." +
                        (others.empty() ? "" : " Still with its superblock: " + Joined(others) + "."),
                    {{"deleted", deleted}, {"left", Json::array()}, {"notWiped", notWiped}});
  Json stayed = Json::array();
  std::string names;
  for (const std::string& name : left) {
    std::string why = Rules::WhyNot([&] { Rules::RequireDeletable(inventory, *now.FindArray(name), true); });
    if (why.empty()) why = "md did not stop it";
    stayed.push_back({{"array", name}, {"why", why}});
    names.append(names.empty() ? "" : "; ").append(name).append(" (").append(why).append(")");
  }
  const std::vector<std::string>& kept = execution.m_Failure ? notWiped : others;  // NotWiped tells the rest
  const std::string text = (gone.empty() ? "Nothing was deleted." : "Deleted: " + gone + ".") +
                           (left.empty() ? "" : " Still there: " + names + ".") +
                           (kept.empty() ? "" : " Still with its superblock: " + Joined(kept) + ".");
  const CError error = execution.m_Failure.value_or(
      marked.empty() ? CError(EXIT_PLUGIN_ERROR, "not all arrays are deleted") : NotWiped(marked));
  const CError told(error.m_ExitStatus, std::string(error.what()) + "\n" + text, error.m_Status);
  if (context.Options().m_Json)
    context.Show("change", {{"deleted", deleted}, {"left", stayed}, {"notWiped", notWiped}, {"done", text}},
                 "", Json::array({ErrorJson(told)}));
  throw CError(told);
}

int DeleteArray(CContext& context, const SDeletion& wanted) {
  if (!wanted.m_Array.empty() + wanted.m_Last + wanted.m_All != 1)
    throw CError(EXIT_USAGE, "say which array: ARRAY, --last or --all");
  context.Session();
  std::vector<SDeleted> deleted;
  const Proposal propose = [&](const CInventory& inventory) {
    deleted.clear();
    for (const PI::CObject* const array : Proposals::ArraysOf(inventory, wanted, wanted.m_Consent.m_Rules)) {
      SDeleted& one = deleted.emplace_back(NameOf(*array));
      for (const SMember& member : inventory.EntryOf(*array).m_Members)
        (member.m_Disk != nullptr ? one.m_Disks : one.m_Others).push_back(member.m_Name);
    }
    return Proposals::Deletion(inventory, wanted, wanted.m_Consent.m_Rules);
  };
  const auto execution = CarryOut(context, propose, wanted.m_Consent);
  return execution ? ShowDeleted(context, deleted, *execution) : EXIT_DONE;
}

struct SSpare {
  std::string m_Disk;
  std::string m_Array;
  SConsent m_Consent;
};

/// A degraded array begins to rebuild onto its new spare soon.
void FollowRebuild(CContext& context, const std::string& array, const std::string& done, const Json& data) {
  const auto wait = [&] {
    Await(context.Session(), [&](const CTopology& now) {
      const PI::CObject* const object = now.FindArray(array);
      if (object == nullptr) throw CError(EXIT_PLUGIN_ERROR, "the array is gone");
      return NumberOf(*object, PI::PROP_ACTIVITY) == PI::ACTIVITY_REBUILDING ||
             NumberOf(*object, PI::PROP_STATUS) != PI::STATUS_DEGRADED;
    });
  };
  BehindChange(context, done, data, wait, ": 'rvxctl array watch " + array + "' follows it");
  FollowToEnd(context, array, done, data);
}

/// What a disk is now: "sdc is a hot spare of md_d0"
std::string RoleText(const CInventory& inventory, const std::string& disk, const std::string& array) {
  const PI::CObject* const object = inventory.Topology().FindArray(array);
  if (object == nullptr) return array + " is gone";
  for (const SMember& member : inventory.EntryOf(*object).m_Members) {
    if (member.m_Name != disk) continue;
    // In the order of ERole.
    constexpr const char* ROLES[] = {" is an active member of ", " is a hot spare of ",  " has failed in ",
                                     " is being rebuilt in ",    " is missing in ",      " is offline in ",
                                     " is the journal of ",      " is a replacement in "};
    const char* const role = ROLES[static_cast<std::size_t>(member.m_Role)];
    return std::string(disk).append(role).append(array);
  }
  return disk + " is no member of " + array;
}

int AddSpare(CContext& context, const SSpare& wanted) {
  CSession& session = context.Session();
  std::string diskName;
  std::string arrayName;
  const Proposal propose = [&](const CInventory& inventory) {
    diskName = NameOf(inventory.FindForChange(wanted.m_Disk, PI::OBJ_PHYSICAL_DRIVE));
    arrayName = NameOf(inventory.FindForChange(wanted.m_Array, PI::OBJ_LOGICAL_DRIVE));
    return Proposals::SpareAddition(inventory, wanted.m_Disk, wanted.m_Array, wanted.m_Consent.m_Rules);
  };
  if (!Execute(context, propose, wanted.m_Consent)) return EXIT_DONE;
  const Json data = {{"disk", diskName}, {"array", arrayName}};
  if (wanted.m_Consent.m_Wait)
    FollowRebuild(context, arrayName, diskName + " is added to " + arrayName, data);
  else
    session.Renew();
  const CTopology now(session);
  const CInventory inventory(now, context.Machine());
  return ShowDone(context, RoleText(inventory, diskName, arrayName) + ".", data);
}

int ReleaseSpare(CContext& context, const SSpare& wanted) {
  context.Session();
  std::string name;
  const Proposal propose = [&](const CInventory& inventory) {
    name = NameOf(inventory.FindForChange(wanted.m_Disk, PI::OBJ_PHYSICAL_DRIVE));
    return Proposals::Release(inventory, wanted.m_Disk, wanted.m_Consent.m_Rules);
  };
  if (!Execute(context, propose, wanted.m_Consent)) return EXIT_DONE;
  // The plug-in's answer says nothing of what md and the disk said.
  context.Session().Renew();
  const CTopology now(context.Session());
  const CInventory inventory(now, context.Machine());
  for (const SArrayEntry& array : inventory.Arrays())
    if (std::ranges::find(array.m_Members, name, &SMember::m_Name) != array.m_Members.end())
      throw CError(EXIT_PLUGIN_ERROR, name + " is still in " + array.m_Name + ": md did not let it go");
  const auto members = StillMembers(inventory, {name});
  const Json data = {{"disk", name}, {"notWiped", members}};
  BehindChange(context, name + " is released", data, [&] {
    if (!members.empty()) throw NotWiped(members);
  });
  return ShowDone(context, name + " is released.", data);
}

struct SRebuild {
  std::string m_Array;
  SConsent m_Consent;
};

int ChangeRebuild(CContext& context, const SRebuild& wanted, bool start) {
  context.Session();
  std::string name;
  const Proposal propose = [&](const CInventory& inventory) {
    name = NameOf(inventory.FindForChange(wanted.m_Array, PI::OBJ_LOGICAL_DRIVE));
    return Proposals::Rebuild(inventory, wanted.m_Array, start, wanted.m_Consent.m_Rules);
  };
  if (!Execute(context, propose, wanted.m_Consent)) return EXIT_DONE;
  if (start && wanted.m_Consent.m_Wait)
    FollowToEnd(context, name, "the rebuild is started", {{"array", name}});
  return ShowDone(context, "The rebuild of " + name + (start ? " is started." : " is cancelled."),
                  {{"array", name}});
}

int StartRebuild(CContext& context, const SRebuild& wanted) { return ChangeRebuild(context, wanted, true); }
int CancelRebuild(CContext& context, const SRebuild& wanted) { return ChangeRebuild(context, wanted, false); }

int Rescan(CContext& context) {
  CSession& session = context.Session();
  const CTopology topology(session);
  PI::COperation rescan;
  rescan.m_Code = rescan.m_SecondCode = PI::OP_RESCAN_ADAPTER;
  if (const unsigned int status = session.Run(topology.Adapter().m_ID, rescan); status != PI::OK)
    throw PluginError(status, "rescan");
  session.Start();
  if (!AwaitPass(session, topology.Plugin().m_UpdateCounter))
    throw CError(EXIT_BUSY, "the rescan has not ended within 30 s");
  const CTopology now(session);
  const auto count = [&](PI::_OBJECT_KIND kind, const std::string& what) {
    const std::size_t number = now.OfKind(kind).size();
    return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
  };
  return ShowDone(context, "Rescanned: " + count(PI::OBJ_PHYSICAL_DRIVE, "disk") + ", " +
                               count(PI::OBJ_LOGICAL_DRIVE, "array") + ".");
}

void AddConsent(CLI::App* leaf, SConsent& consent) {
  leaf->add_flag("--yes", consent.m_Yes, "do not ask");
  leaf->add_flag("--dry-run", consent.m_DryRun, "show the plan and whether it is allowed");
  leaf->add_option("--if-unchanged", consent.m_IfUnchanged, "only in the state of a plan with this token")
      ->type_name("TOKEN");
  // For tests of the plug-in's own answers.
  leaf->add_flag_callback(
          "--plugin-alone", [&consent] { consent.m_Rules = ERules::PLUGIN_ALONE; },
          "leave out rvxctl's own rules")
      ->group("");
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
  remove->add_flag("--last", deletion.m_Last, "the plug-in's last one; the plan names it");
  remove->add_flag("--all", deletion.m_All, "every array");
  remove->add_flag("--force-partition-members", deletion.m_PartitionMembers,
                   "overwrite the ends of disks with such members");
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

}  // namespace Host
