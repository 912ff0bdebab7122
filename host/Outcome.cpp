#include "host/Outcome.h"

#include <algorithm>
#include <set>

#include "host/Rules.h"
#include "host/Texts.h"
#include "host/Values.h"

namespace Host {

namespace {

constexpr std::chrono::seconds APPEAR_LIMIT{30};
constexpr std::chrono::seconds DELETION_LIMIT{3};
constexpr std::chrono::seconds ONE_LOOK{1};

SOutcome Done(const std::string& text, Json data = Json::object()) {
  data["done"] = text;
  return {text, std::move(data)};
}

/// Asks; where that fails, text and document say that the change is done.
template <class TQuestion>
std::optional<SOutcome> Ask(const Await& await, std::chrono::seconds limit, TQuestion question,
                            const std::string& done, const Json& data) {
  try {
    await(question, limit);
    return std::nullopt;
  } catch (const CError& error) {
    return DoneBut(done, data, error);
  }
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
              " still has its superblock, or cannot be read: md may take it for a member again, at once or "
              "at the next start. 'mdadm --stop' ends what holds it then, mdadm --zero-superblock wipes it"};
}

std::string NamedDisk(const SLook& before, const SRequest& request) {
  return NameOf(before.m_Inventory.FindForChange(request.m_Disks.at(0), PI::OBJ_PHYSICAL_DRIVE));
}
std::string NamedArray(const SLook& before, const SRequest& request) {
  return NameOf(before.m_Inventory.FindForChange(request.m_Array, PI::OBJ_LOGICAL_DRIVE));
}

SOutcome Created(const SLook& before, const Await& await) {
  std::set<std::string> others;
  for (const SArrayEntry& array : before.m_Inventory.Arrays()) others.insert(array.m_Name);
  std::vector<std::string> disks;
  for (const SDiskPlan& disk : before.m_Change.m_Disks) disks.push_back(disk.m_Name);
  Json data = {{"array", nullptr}, {"disks", disks}};
  std::string text;
  const auto look = [&](const CInventory& now) {
    for (const SArrayEntry& array : now.Arrays()) {
      if (!array.HasMembers(disks) || others.contains(array.m_Name)) continue;
      const auto bytes = now.FactsOf(array.m_Object).m_Bytes;
      const std::string size =
          bytes ? SizeOfKiB(*bytes >> 10) : SizeText(NumberOf(array.m_Object, PI::PROP_ARRAY_CAPACITY));
      data["array"] = array.m_Name;
      data["id"] = HexadecimalID(array.m_Object.m_ID);
      data["size"] = size;
      data["bytes"] = bytes ? Json(*bytes) : Json(nullptr);
      text = "Created " + array.m_Name + ": " + size + ".";
    }
    return !text.empty();
  };
  if (const auto broken =
          Ask(await, APPEAR_LIMIT, look, "the array is created: 'rvxctl array list' shows it", data))
    return *broken;
  return Done(
      text.empty() ? "The array was created, but has not shown up yet; see 'rvxctl array list'." : text,
      data);
}

/// An array of a deletion, with its members before.
struct SDeleted {
  std::string m_Array;
  std::vector<std::string> m_Disks{};   ///< managed disks: the plug-in wipes them
  std::vector<std::string> m_Others{};  ///< partitions, disks that are missing or not managed
};

std::vector<SDeleted> DeletedBy(const SRequest& request, const SLook& before) {
  std::vector<SDeleted> deleted;
  for (const PI::CObject* const array : ArraysOf(before.m_Inventory, request)) {
    SDeleted& one = deleted.emplace_back(SDeleted{NameOf(*array)});
    for (const SMember& member : before.m_Inventory.EntryOf(*array).m_Members)
      (member.m_Disk != nullptr ? one.m_Disks : one.m_Others).push_back(member.m_Name);
  }
  return deleted;
}

/// What is gone and what is left, as one look shows it.
struct SLeft {
  SLeft() = default;
  SLeft(const CInventory& now, const std::vector<SDeleted>& wanted) {
    for (const SDeleted& one : wanted) {
      if (const PI::CObject* const array = now.Topology().FindArray(one.m_Array)) {
        std::string why = Rules::WhyNot([&] { Rules::RequireDeletable(now, *array, true); });
        if (why.empty()) why = "md did not stop it";
        m_Stayed.push_back({{"array", one.m_Array}, {"why", why}});
        m_StayedText.append(m_StayedText.empty() ? "" : "; ").append(one.m_Array).append(" (").append(why) +=
            ")";
        continue;
      }
      m_Gone.push_back(one.m_Array);
      const auto marked = StillMembers(now, one.m_Disks);
      m_Marked.insert(m_Marked.end(), marked.begin(), marked.end());
      m_Others.insert(m_Others.end(), one.m_Others.begin(), one.m_Others.end());
    }
  }

  std::vector<std::string> m_Gone;
  Json m_Stayed = Json::array();
  std::string m_StayedText;
  std::vector<std::string> m_Marked;  ///< members that were to be wiped and are not
  std::vector<std::string> m_Others;  ///< it was said before that these keep their superblocks
};

/// Whatever the plug-in answered: its answer for several is that of the last.
SOutcome Deleted(const SRequest& request, const SLook& before, const std::optional<CError>& failure,
                 const Await& await) {
  const std::vector<SDeleted> wanted = DeletedBy(request, before);
  SLeft left;
  // md's end of an array takes effect at once; a moment more is for whoever looks at it just then.
  const auto look = [&](const CInventory& now) {
    left = SLeft(now, wanted);
    return left.m_Stayed.empty() || failure;
  };
  if (const auto broken =
          Ask(await, DELETION_LIMIT, look,
              "the deletion is carried out: 'rvxctl array list' shows what is left", Json::object()))
    return *broken;
  std::vector<std::string> notWiped = left.m_Marked;
  notWiped.insert(notWiped.end(), left.m_Others.begin(), left.m_Others.end());
  const std::string gone = Joined(left.m_Gone);
  const auto kept = [](const std::vector<std::string>& names) {
    return names.empty() ? "" : " Still with its superblock: " + Joined(names) + ".";
  };
  const Json data = {{"deleted", left.m_Gone}, {"left", left.m_Stayed}, {"notWiped", notWiped}};
  if (!failure && left.m_Stayed.empty() && left.m_Marked.empty())
    return Done("Deleted " + gone + "." + kept(left.m_Others), data);
  SOutcome outcome = Done((gone.empty() ? "Nothing was deleted." : "Deleted: " + gone + ".") +
                              (left.m_Stayed.empty() ? "" : " Still there: " + left.m_StayedText + ".") +
                              kept(failure ? notWiped : left.m_Others),  // NotWiped tells the rest
                          data);
  const CError error =
      failure.value_or(left.m_Marked.empty() ? CError(EXIT_PLUGIN_ERROR, "not all arrays are deleted")
                                             : NotWiped(left.m_Marked));
  outcome.m_Failure.emplace(error.m_ExitStatus, std::string(error.what()) + "\n" + outcome.m_Text,
                            error.m_Status);
  return outcome;
}

SOutcome Added(const SRequest& request, const SLook& before, const Await& await) {
  const std::string disk = NamedDisk(before, request);
  const std::string array = NamedArray(before, request);
  const Json data = {{"disk", disk}, {"array", array}};
  std::string text = array + " is gone";
  const auto look = [&](const CInventory& now) {
    if (const PI::CObject* const object = now.Topology().FindArray(array))
      text = RoleText(EntryJson(now, *object), disk);
    return true;
  };
  if (const auto broken = Ask(await, ONE_LOOK, look, disk + " is added to " + array, data)) return *broken;
  return Done(text + ".", data);
}

SOutcome Released(const SRequest& request, const SLook& before, const Await& await) {
  const std::string disk = NamedDisk(before, request);
  std::string holder;
  std::vector<std::string> marked;
  const auto look = [&](const CInventory& now) {
    for (const SArrayEntry& array : now.Arrays())
      if (std::ranges::find(array.m_Members, disk, &SMember::m_Name) != array.m_Members.end())
        holder = array.m_Name;
    marked = StillMembers(now, {disk});
    return true;
  };
  const std::string done = disk + " is released";
  if (const auto broken = Ask(await, ONE_LOOK, look, done, {{"disk", disk}})) return *broken;
  // The plug-in's answer says nothing of what md and the disk said.
  if (!holder.empty())
    return {{}, {}, CError(EXIT_PLUGIN_ERROR, disk + " is still in " + holder + ": md did not let it go")};
  const Json data = {{"disk", disk}, {"notWiped", marked}};
  return marked.empty() ? Done(done + ".", data) : DoneBut(done, data, NotWiped(marked));
}

/// A creation or an addition that failed may have come as far as the superblocks, and udev hands a disk with
/// one to md.
SOutcome NotMade(const SLook& before, const CError& failure, const Await& await) {
  std::vector<std::string> disks;
  for (const SDiskPlan& disk : before.m_Change.m_Disks) disks.push_back(disk.m_Name);
  std::vector<std::string> marked;
  const auto look = [&](const CInventory& now) {
    marked = StillMembers(now, disks);
    return true;
  };
  try {
    await(look, ONE_LOOK);
  } catch (const CError&) {
    marked = disks;  // nobody knows
  }
  if (marked.empty()) return {{}, {}, failure};
  return {{},
          {},
          CError(failure.m_ExitStatus,
                 std::string(failure.what()) + "\nMay have a superblock now: " + Joined(marked) +
                     ". 'mdadm --stop' ends what holds it then, mdadm --zero-superblock wipes it.",
                 failure.m_Status)};
}

SOutcome Rescanned(const Await& await) {
  std::string text;
  const auto look = [&](const CInventory& now) {
    const auto count = [&](PI::_OBJECT_KIND kind, const std::string& what) {
      const std::size_t number = now.Topology().OfKind(kind).size();
      return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
    };
    text = "Rescanned: " + count(PI::OBJ_PHYSICAL_DRIVE, "disk") + ", " +
           count(PI::OBJ_LOGICAL_DRIVE, "array") + ".";
    return true;
  };
  if (const auto broken = Ask(await, ONE_LOOK, look, "the rescan is asked for", Json::object()))
    return *broken;
  return Done(text);
}

}  // namespace

SOutcome DoneBut(const std::string& done, const Json& data, const CError& error) {
  SOutcome outcome = Done(done, data);
  outcome.m_Failure.emplace(error.m_ExitStatus, done + "; " + error.what(), error.m_Status);
  return outcome;
}

std::string RoleText(const Json& array, const std::string& disk) {
  constexpr std::pair<const char*, const char*> ROLES[] = {
      {"active", " is an active member of "}, {"spare", " is a hot spare of "},
      {"failed", " has failed in "},          {"rebuilding", " is being rebuilt in "},
      {"missing", " is missing in "},         {"offline", " is offline in "},
      {"journal", " is the journal of "},     {"replacement", " is a replacement in "}};
  const std::string name = array["name"];
  for (const Json& member : array["members"]) {
    if (member["name"] != disk) continue;
    const std::string word = member["role"];
    const auto* const role = std::ranges::find_if(ROLES, [&](const auto& one) { return word == one.first; });
    return std::string(disk).append(role->second).append(name);
  }
  return disk + " is no member of " + name;
}

SOutcome OutcomeOf(const SRequest& request, const SLook& before, const std::optional<CError>& failure,
                   const Await& await) {
  if (request.m_Kind == EChange::DELETE_ARRAY) return Deleted(request, before, failure, await);
  if (failure && (request.m_Kind == EChange::CREATE_ARRAY || request.m_Kind == EChange::ADD_SPARE))
    return NotMade(before, *failure, await);
  if (failure) return {{}, {}, failure};
  switch (request.m_Kind) {
    case EChange::CREATE_ARRAY:
      return Created(before, await);
    case EChange::ADD_SPARE:
      return Added(request, before, await);
    case EChange::RELEASE_SPARE:
      return Released(request, before, await);
    case EChange::START_REBUILD:
    case EChange::CANCEL_REBUILD: {
      const std::string array = NamedArray(before, request);
      return Done("The rebuild of " + array +
                      (request.m_Kind == EChange::START_REBUILD ? " is started." : " is cancelled."),
                  {{"array", array}});
    }
    case EChange::RESCAN:
    case EChange::DELETE_ARRAY:
      break;
  }
  return Rescanned(await);
}

}  // namespace Host
