/// @file
/// Commands that change the machine.

#include "host/Keys.h"
#include "host/Signals.h"
#include "rvxctl/CommandLine.h"
#include "rvxctl/Consent.h"
#include "rvxctl/Progress.h"

namespace Host {

namespace {

constexpr std::chrono::milliseconds LOOK_INTERVAL{250};
constexpr std::chrono::seconds BEGIN_LIMIT{30};

/// Prints what came of a change; throws what went wrong.
int ShowOutcome(CContext& context, const SOutcome& outcome) {
  if (outcome.m_Failure) {
    if (context.Options().m_Json && !outcome.m_Data.is_null())
      context.Show("change", outcome.m_Data, "", Json::array({ErrorJson(*outcome.m_Failure)}));
    throw CError(*outcome.m_Failure);
  }
  try {
    context.Show("change", outcome.m_Data, outcome.m_Text + "\n");
  } catch (const CError& error) {
    throw CError(error.m_ExitStatus, outcome.m_Text + " But " + error.what());
  }
  return EXIT_DONE;
}

/// The array as programs are told of it. Throws CError when it is gone.
Json ArrayNow(CContext& context, const std::string& array) {
  try {
    return context.Source()
        .View({"object", {{"address", array}, {"kind", std::to_string(PI::OBJ_LOGICAL_DRIVE)}}}, {true})
        .m_Data;
  } catch (const CError& error) {
    if (error.m_ExitStatus == EXIT_NO_OBJECT) throw CError(EXIT_PLUGIN_ERROR, "the array is gone");
    throw;
  }
}

/// Follows the rebuild or resync that a change set off. A change has one answer: with --json nothing is shown
/// on the way.
void FollowToEnd(CContext& context, const std::string& array) {
  const EProgress progress = context.Options().m_Json ? EProgress::HIDDEN : EProgress::SHOWN;
  if (const int status = FollowRun(context, array, progress); status != EXIT_DONE)
    throw CError(status, "the run did not complete: 'rvxctl status' tells how the array is");
}

/// Where the following fails or is broken off, text and document say that the change is done.
template <class TStep>
void BehindChange(CContext& context, std::string done, const SOutcome& outcome, TStep step) {
  try {
    step();
  } catch (const CError& error) {
    // It is the person who goes.
    if (error.m_ExitStatus >= EXIT_SIGNAL)
      done +=
          " and goes on: 'rvxctl array watch " + outcome.m_Data["array"].get<std::string>() + "' follows it";
    ShowOutcome(context, DoneBut(done, outcome.m_Data, error));
  }
}

struct SWanted {
  SRequest m_Request;
  SConsent m_Consent;
  std::string m_Disk;  ///< of a spare
};

/// A change that has nothing to wait for.
int Change(CContext& context, const SWanted& wanted) {
  const auto outcome = CarryOut(context, wanted.m_Request, wanted.m_Consent);
  return outcome ? ShowOutcome(context, *outcome) : EXIT_DONE;
}

int CreateArray(CContext& context, const SWanted& wanted) {
  const auto outcome = CarryOut(context, wanted.m_Request, wanted.m_Consent);
  if (!outcome) return EXIT_DONE;
  if (!outcome->m_Failure && wanted.m_Consent.m_Wait && !outcome->m_Data["array"].is_null()) {
    const std::string array = outcome->m_Data["array"];
    BehindChange(context, array + " is created", *outcome, [&] { FollowToEnd(context, array); });
  }
  return ShowOutcome(context, *outcome);
}

int DeleteArray(CContext& context, const SWanted& wanted) {
  const SRequest& request = wanted.m_Request;
  if (!request.m_Array.empty() + request.m_Last + request.m_All != 1)
    throw CError(EXIT_USAGE, "say which array: ARRAY, --last or --all");
  return Change(context, wanted);
}

/// A degraded array begins to rebuild onto its new spare soon.
void AwaitRebuild(CContext& context, const std::string& array) {
  using Clock = std::chrono::steady_clock;
  for (const auto end = Clock::now() + BEGIN_LIMIT; Clock::now() < end; Pause(LOOK_INTERVAL)) {
    const Json now = ArrayNow(context, array);
    if (now["activity"] == Keys::OfChoice(PI::ACTIVITY_REBUILDING, PI::OBJ_LOGICAL_DRIVE) ||
        now["statusNumber"] != PI::STATUS_DEGRADED)
      return;
  }
}

int AddSpare(CContext& context, SWanted wanted) {
  wanted.m_Request.m_Disks = {wanted.m_Disk};
  auto outcome = CarryOut(context, wanted.m_Request, wanted.m_Consent);
  if (!outcome) return EXIT_DONE;
  if (!outcome->m_Failure && wanted.m_Consent.m_Wait) {
    const std::string disk = outcome->m_Data["disk"];
    const std::string array = outcome->m_Data["array"];
    BehindChange(context, disk + " is added to " + array, *outcome, [&] {
      AwaitRebuild(context, array);
      FollowToEnd(context, array);
      outcome->m_Text = RoleText(ArrayNow(context, array), disk) + ".";
      outcome->m_Data["done"] = outcome->m_Text;
    });
  }
  return ShowOutcome(context, *outcome);
}

int ReleaseSpare(CContext& context, SWanted wanted) {
  wanted.m_Request.m_Disks = {wanted.m_Disk};
  return Change(context, wanted);
}

int StartRebuild(CContext& context, const SWanted& wanted) {
  const auto outcome = CarryOut(context, wanted.m_Request, wanted.m_Consent);
  if (!outcome) return EXIT_DONE;
  if (!outcome->m_Failure && wanted.m_Consent.m_Wait)
    BehindChange(context, "the rebuild is started", *outcome,
                 [&] { FollowToEnd(context, outcome->m_Data["array"]); });
  return ShowOutcome(context, *outcome);
}

int Rescan(CContext& context) {
  return ShowOutcome(context, context.Source().CarryOut({EChange::RESCAN}, {}));
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
      group.Leaf<SWanted>("create", "makes an array; what is on its disks is lost", CreateArray);
  SRequest& wanted = creation.m_Request;
  wanted.m_Kind = EChange::CREATE_ARRAY;
  create->add_option("--level", wanted.m_Level, "such as raid1; 'rvxctl levels' names all")
      ->required()
      ->type_name("LEVEL");
  create->add_option("--stripe", wanted.m_Stripe, "in KiB, of what 'rvxctl levels' tells")->type_name("KIB");
  create->add_option("DISK", wanted.m_Disks, "the disks, in order")->required();
  AddWaiting(create, creation.m_Consent);

  const auto [remove, deletion] =
      group.Leaf<SWanted>("delete", "stops an array and wipes its superblocks", DeleteArray);
  SRequest& doomed = deletion.m_Request;
  doomed.m_Kind = EChange::DELETE_ARRAY;
  remove->add_option("ARRAY", doomed.m_Array, "the array");
  remove->add_flag("--last", doomed.m_Last, "the plug-in's last one; the plan names it");
  remove->add_flag("--all", doomed.m_All, "every array");
  remove->add_flag("--force-partition-members", doomed.m_PartitionMembers,
                   "overwrite the ends of disks with such members");
  AddConsent(remove, deletion.m_Consent);
}

void AddSpares(CGroup group) {
  const auto [add, spare] =
      group.Leaf<SWanted>("add", "makes a disk a spare; what is on it is lost", AddSpare);
  spare.m_Request.m_Kind = EChange::ADD_SPARE;
  add->add_option("DISK", spare.m_Disk, "the disk")->required();
  add->add_option("ARRAY", spare.m_Request.m_Array, "the array")->required();
  AddWaiting(add, spare.m_Consent);

  const auto [release, member] =
      group.Leaf<SWanted>("release", "takes a spare or failed disk out of its array", ReleaseSpare);
  member.m_Request.m_Kind = EChange::RELEASE_SPARE;
  release->add_option("DISK", member.m_Disk, "the disk")->required();
  AddConsent(release, member.m_Consent);
}

void AddRebuilds(CGroup group) {
  const auto [start, started] =
      group.Leaf<SWanted>("start", "starts the rebuild of a degraded array", StartRebuild);
  started.m_Request.m_Kind = EChange::START_REBUILD;
  start->add_option("ARRAY", started.m_Request.m_Array, "the array")->required();
  AddWaiting(start, started.m_Consent);

  const auto [cancel, cancelled] = group.Leaf<SWanted>("cancel", "cancels the rebuild that runs", Change);
  cancelled.m_Request.m_Kind = EChange::CANCEL_REBUILD;
  cancel->add_option("ARRAY", cancelled.m_Request.m_Array, "the array")->required();
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
