/// @file
/// Commands that change the machine. Each asks the plug-in's own check first and lets the plug-in do it.

#include <algorithm>
#include <iostream>

#include "host/Commands.h"
#include "host/Plan.h"
#include "host/Progress.h"
#include "host/Reasons.h"

namespace rvxctl {

namespace {

constexpr std::chrono::milliseconds LOOK_INTERVAL{250};
constexpr std::chrono::seconds APPEAR_LIMIT{30};
/// Bytes of a member; above it the size in a mirror's superblock is wrong.
constexpr unsigned long MIRROR_LIMIT = 1UL << 40;

constexpr struct SLevelName {
  const char* m_Name;
  PI::_CHOICE m_Level;
} LEVELS[] = {{"raid0", PI::LEVEL_RAID0}, {"raid1", PI::LEVEL_RAID1}, {"linear", PI::LEVEL_CONCATENATION}};

constexpr struct SStripe {
  int m_KiB;
  PI::_CHOICE m_Choice;
} STRIPES[] = {{4, PI::STRIPE_4K},   {8, PI::STRIPE_8K},   {16, PI::STRIPE_16K},
               {32, PI::STRIPE_32K}, {64, PI::STRIPE_64K}, {128, PI::STRIPE_128K}};

/// One change: which operation of which object, and what to tell before.
struct SChange {
  std::string m_What;  ///< "create a raid1 array of sdb and sdc"
  const CTopology& m_Topology;
  const PI::CObject& m_Object;
  PI::_OPERATION_CODE m_Code;
  std::vector<SDiskPlan> m_Disks;
  std::string m_Loss;     ///< what is lost by it; empty: nothing, and nobody is asked
  std::string m_Level{};  ///< md's name of the level, for hints
};

PI::COperation OperationOf(const SChange& change) {
  for (const PI::COperation& operation : change.m_Object.m_Operations)
    if (operation.m_Code == change.m_Code) return operation;
  throw CError(EXIT_NOT_ALLOWED, NameOf(change.m_Object) + " does not offer this operation");
}

/// The catalogue's words for a warning that the check raised; empty when it raised none.
std::string WarningOf(const CTexts& texts, const PI::COperation& before, const PI::COperation& after) {
  if (after.m_ConfirmationCode == before.m_ConfirmationCode) return {};
  switch (after.m_ConfirmationCode) {
    case PI::REASON_DRIVE_LETTER:
    case PI::REASON_MOUNTED:
    case PI::CONFIRM_DELETE_DRIVE_LETTER:
    case PI::CONFIRM_DELETE_MOUNTED:
      return texts.Of(after.m_ConfirmationCode);
    default:
      return {};
  }
}

/// The plug-in's refusal of the check or of the execution.
CError Refused(CContext& context, const SChange& change, unsigned int status, bool executed) {
  const CTexts& texts = context.Session().Texts();
  std::string help;
  if (!executed) help = ReasonOf(texts, change.m_Topology, change.m_Object, change.m_Code, status);
  const std::string hint = HintFor(context, change.m_Code, status, change.m_Level, executed);
  help += (help.empty() || hint.empty() ? "" : "\n") + hint;
  return PluginError(texts, status, (executed ? "could not " : "cannot ") + change.m_What, help);
}

/// Check, plan, consent, execution. `fill` completes the operation. False after a dry run.
template <class TFill>
bool Carry(CContext& context, const SChange& change, const SConsent& consent, TFill fill) {
  CSession& session = context.Session();
  const CTexts& texts = session.Texts();
  PI::COperation operation = OperationOf(change);
  const PI::COperation offered = operation;
  fill(operation);
  const unsigned int check = session.Check(change.m_Object.m_ID, operation);
  const std::string warning = check == PI::OK ? WarningOf(texts, offered, operation) : "";

  std::string text =
      "This will " + change.m_What + "." + (change.m_Loss.empty() ? "" : " " + change.m_Loss) + "\n";
  if (!change.m_Disks.empty()) text += PlanText(change.m_Disks);
  if (!warning.empty()) text += "WARNING: " + warning + "\n";
  if (consent.m_DryRun) {
    const Json data = {
        {"plan", change.m_What},
        {"disks", PlanJson(change.m_Disks)},
        {"check", {{"status", check}, {"name", check == PI::OK ? "OK" : texts.StatusName(check)}}},
        {"warning", warning.empty() ? Json(nullptr) : Json(warning)}};
    const Json errors =
        check == PI::OK ? Json::array() : Json::array({ErrorJson(Refused(context, change, check, false))});
    context.Show(
        "plan", data,
        text + "The plug-in's check: " + (check == PI::OK ? std::string("allowed") : texts.OfStatus(check)) +
            "\nNothing was changed.\n",
        errors);
  }
  if (check != PI::OK) throw Refused(context, change, check, false);
  if (consent.m_DryRun) return false;
  if (!change.m_Loss.empty()) {
    std::cerr << text;
    if (!consent.m_Yes) Confirm(texts.Find(offered.m_ConfirmationCode).value_or("Go on?"));
  }
  // Before the plug-in's threads run: what was consented to is carried out on the model that was shown.
  session.HoldSignals();
  if (const unsigned int status = session.Run(change.m_Object.m_ID, operation); status != PI::OK)
    throw Refused(context, change, status, true);
  return true;
}

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
  if (const int status = FollowRun(context, id, context.Options().m_Json); status != EXIT_DONE)
    throw CError(status, done + ", but the run did not complete");
}

int ShowDone(CContext& context, const std::string& text, Json data = Json::object()) {
  data["done"] = text;
  context.Show("change", data, text + "\n");
  return EXIT_DONE;
}

}  // namespace

int CreateArray(CContext& context, const std::string& level, int stripe,
                const std::vector<std::string>& disks, const SConsent& consent) {
  const auto wanted = std::find_if(std::begin(LEVELS), std::end(LEVELS),
                                   [&](const SLevelName& name) { return level == name.m_Name; });
  if (wanted == std::end(LEVELS))
    throw CError(EXIT_USAGE, "the level is raid0, raid1 or linear, not " + level);
  const auto size = std::find_if(std::begin(STRIPES), std::end(STRIPES),
                                 [&](const SStripe& s) { return stripe == s.m_KiB; });
  if (stripe != 0 && size == std::end(STRIPES))
    throw CError(EXIT_USAGE, "the stripe size is 4, 8, 16, 32, 64 or 128 KiB, not " + std::to_string(stripe));

  CSession& session = context.Session();
  const CTopology topology(session);
  PI::CLogicalDrive request;
  request.m_RaidLevel = wanted->m_Level;
  request.m_StripeSize = stripe == 0 ? 0 : static_cast<unsigned int>(size->m_Choice);
  request.m_Containers.emplace_back();
  std::vector<SDiskPlan> plans;
  std::string names;
  for (const std::string& address : disks) {
    const PI::CObject& disk = topology.Find(address, PI::OBJ_PHYSICAL_DRIVE);
    request.m_Containers.front().m_Drives.emplace_back(disk.m_ID);
    plans.push_back(PlanOf(context, session.Texts(), disk));
    names += (names.empty() ? "" : ", ") + NameOf(disk);
  }
  std::string loss = "What is on these disks is lost.";
  if (wanted->m_Level == PI::LEVEL_RAID1 &&
      std::any_of(plans.begin(), plans.end(),
                  [](const SDiskPlan& plan) { return plan.m_Bytes > MIRROR_LIMIT; }))
    loss += " A mirror of disks above 1 TiB is refused, or comes out much smaller than they are.";
  const SChange change{"create a " + level + " array of " + names,
                       topology,
                       topology.Adapter(),
                       PI::OP_CREATE_LOGICAL_DRIVE,
                       plans,
                       loss,
                       level};
  if (!Carry(context, change, consent, [&](PI::COperation& operation) { operation.m_pRequest = &request; }))
    return EXIT_DONE;

  unsigned long id = 0;
  std::string name;
  Await(session, [&](const CTopology& now) {
    for (const PI::CObject* const array : now.OfKind(PI::OBJ_LOGICAL_DRIVE))
      if (FindArray(topology, NameOf(*array)) == nullptr) {
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

int DeleteArray(CContext& context, const std::string& array, bool last, bool all, const SConsent& consent) {
  CSession& session = context.Session();
  const CTopology topology(session);
  const auto arrays = topology.OfKind(PI::OBJ_LOGICAL_DRIVE);
  std::vector<const PI::CObject*> doomed;
  if (all)
    doomed = arrays;
  else if (last && !arrays.empty())
    doomed = {arrays.back()};
  else if (!last)
    doomed = {&topology.Find(array, PI::OBJ_LOGICAL_DRIVE)};

  std::string names;
  std::vector<SDiskPlan> plans;
  for (const PI::CObject* const object : doomed) {
    names += (names.empty() ? "" : ", ") + NameOf(*object);
    plans.push_back(
        PlanOf(context, session.Texts(), *object));  // its file system and mounts are what is lost
    for (const unsigned long id : object->m_Children)
      if (const PI::CObject* const disk = topology.FindID(id))
        plans.push_back(PlanOf(context, session.Texts(), *disk));
  }
  const PI::_OPERATION_CODE code = all    ? PI::OP_DELETE_ALL_LOGICAL_DRIVES
                                   : last ? PI::OP_DELETE_LAST_LOGICAL_DRIVE
                                          : PI::OP_DELETE_LOGICAL_DRIVE;
  const std::string which = all ? "all arrays" : last ? "the last array" : "";
  const SChange change{"delete " + which + (which.empty() || names.empty() ? "" : ": ") + names,
                       topology,
                       all || last ? topology.Adapter() : *doomed.front(),
                       code,
                       plans,
                       "What is stored on it is lost."};
  if (!Carry(context, change, consent, [](PI::COperation&) {})) return EXIT_DONE;
  // The plug-in's answer for all of them is that of the last one; what is still there then was refused.
  std::string left;
  const bool gone = Await(session, [&](const CTopology& now) {
    left.clear();
    for (const PI::CObject* const object : doomed)
      if (FindArray(now, NameOf(*object)) != nullptr) left += (left.empty() ? "" : ", ") + NameOf(*object);
    return left.empty();
  });
  if (!gone) throw CError(EXIT_PLUGIN_ERROR, "still there: " + left + "; 'rvxctl operations' may tell why");
  return ShowDone(context, "Deleted " + names + ".");
}

int AddSpare(CContext& context, const std::string& disk, const std::string& array, const SConsent& consent) {
  CSession& session = context.Session();
  const CTopology topology(session);
  const PI::CObject& drive = topology.Find(disk, PI::OBJ_PHYSICAL_DRIVE);
  const PI::CObject& target = topology.Find(array, PI::OBJ_LOGICAL_DRIVE);
  const auto number = NumberOf(target, PI::PROP_ARRAY_NUMBER);
  for (const PI::CObject* const other : topology.OfKind(PI::OBJ_LOGICAL_DRIVE))
    if (other->m_ID != target.m_ID && NumberOf(*other, PI::PROP_ARRAY_NUMBER) == number)
      throw CError(EXIT_NOT_ALLOWED,
                   NameOf(target) + " and " + NameOf(*other) +
                       " have the same number, and the plug-in is told the number alone: stop " +
                       "one of them, or use mdadm --add");
  const SChange change{"make " + NameOf(drive) + " a hot spare of " + NameOf(target),
                       topology,
                       drive,
                       PI::OP_CREATE_DEDICATED_HOTSPARE,
                       {PlanOf(context, session.Texts(), drive)},
                       "What is on the disk is lost."};
  const bool done = Carry(context, change, consent, [&](PI::COperation& operation) {
    operation.m_Parameters.at(0).SetValue(static_cast<unsigned long>(number.value_or(-1)));
  });
  if (!done) return EXIT_DONE;
  if (consent.m_Wait) {
    // A degraded array begins to rebuild onto it soon.
    unsigned long id = 0;
    Await(session, [&](const CTopology& now) {
      const PI::CObject* const object = FindArray(now, NameOf(target));
      if (object == nullptr) throw CError(EXIT_PLUGIN_ERROR, "the array is gone");
      id = object->m_ID;
      return NumberOf(*object, PI::PROP_ACTIVITY) == PI::ACTIVITY_REBUILDING ||
             NumberOf(*object, PI::PROP_STATUS) != PI::STATUS_DEGRADED;
    });
    FollowToEnd(context, id, NameOf(drive) + " is a hot spare of " + NameOf(target));
  }
  return ShowDone(context, NameOf(drive) + " is a hot spare of " + NameOf(target) + ".");
}

int ReleaseSpare(CContext& context, const std::string& disk, const SConsent& consent) {
  CSession& session = context.Session();
  const CTopology topology(session);
  const PI::CObject& drive = topology.Find(disk, PI::OBJ_PHYSICAL_DRIVE);
  const SChange change{"release " + NameOf(drive) + " from its array and wipe its superblock",
                       topology,
                       drive,
                       PI::OP_DELETE_DEDICATED_HOTSPARE,
                       {PlanOf(context, session.Texts(), drive)},
                       "What is on the disk is lost."};
  if (!Carry(context, change, consent, [](PI::COperation&) {})) return EXIT_DONE;
  return ShowDone(context, NameOf(drive) + " is released.");
}

int ChangeRebuild(CContext& context, const std::string& array, bool start, const SConsent& consent) {
  const CTopology topology(context.Session());
  const PI::CObject& object = topology.Find(array, PI::OBJ_LOGICAL_DRIVE);
  const SChange change{std::string(start ? "start" : "cancel") + " the rebuild of " + NameOf(object),
                       topology,
                       object,
                       start ? PI::OP_START_REBUILD : PI::OP_CANCEL_REBUILD,
                       {},
                       start ? "" : "The array stays degraded."};
  if (!Carry(context, change, consent, [](PI::COperation&) {})) return EXIT_DONE;
  if (start && consent.m_Wait) FollowToEnd(context, object.m_ID, "the rebuild is started");
  return ShowDone(
      context, std::string("The rebuild of ") + NameOf(object) + (start ? " is started." : " is cancelled."));
}

int Rescan(CContext& context) {
  CSession& session = context.Session();
  const CTopology topology(session);
  const SChange change{"rescan the system", topology, topology.Adapter(), PI::OP_RESCAN_ADAPTER, {}, ""};
  Carry(context, change, {}, [](PI::COperation&) {});
  session.Start();
  if (!AwaitPass(session, topology.Plugin().m_UpdateCounter))
    throw CError(EXIT_BUSY, "the rescan has not ended within 30 s");
  const CTopology now(session);
  return ShowDone(context, "Rescanned: " + std::to_string(now.OfKind(PI::OBJ_PHYSICAL_DRIVE).size()) +
                               " disks, " + std::to_string(now.OfKind(PI::OBJ_LOGICAL_DRIVE).size()) +
                               " arrays.");
}

}  // namespace rvxctl
