#include "host/Health.h"

#include <algorithm>

#include "host/Rules.h"
#include "host/Values.h"

namespace Host {

namespace {

std::string Members(const SArrayEntry& array) {
  std::string text = std::to_string(array.m_Present) + " of " + std::to_string(array.m_Wanted) + " members " +
                     (array.m_Present == 1 ? "works" : "work");
  for (const auto& [role, word] : {std::pair{ERole::FAILED, "; failed: "},
                                   {ERole::MISSING, "; missing: "},
                                   {ERole::OFFLINE, "; offline: "}})
    if (const auto names = array.Of(role); !names.empty()) text += word + Joined(names);
  return text;
}

std::string RemovalByMdadm(const CInventory& inventory, const SArrayEntry& array, const SMember& member) {
  const std::string device = "/dev/" + member.m_Name;
  return "'mdadm --manage /dev/" + array.m_Name + " --remove " +
         (inventory.Machine().Has(device) ? device : "detached") + "'";
}

/// How a failed member is taken out; with mdadm where the plug-in cannot.
std::string ReleaseOf(const CInventory& inventory, const SArrayEntry& array, const SMember& member) {
  if (member.m_Disk != nullptr &&
      Rules::WhyNot([&] { Rules::RequireRelease(inventory, *member.m_Disk); }).empty())
    return "'rvxctl spare release " + member.m_Name + "'";
  return RemovalByMdadm(inventory, array, member);
}

/// What makes a degraded array whole again.
std::string ReplacementFor(const CInventory& inventory, const SArrayEntry& array) {
  const bool own = Rules::WhyNot([&] { Rules::RequireTakesSpare(inventory, array.m_Object); }).empty();
  const std::string add = own ? "'rvxctl spare add DISK " + array.m_Name + "'"
                              : "'mdadm --manage /dev/" + array.m_Name + " --add DISK'";
  std::string step;
  for (const SMember& member : array.m_Members)
    if (member.m_Role == ERole::FAILED) step += ReleaseOf(inventory, array, member) + ", ";
  return step.empty() ? "add a disk: " + add : step + "replace the disk, then " + add;
}

void LookAtArray(const CInventory& inventory, const SArrayEntry& array, SHealth& health) {
  const auto problem = [&](EHealth how, const char* kind, std::string text, std::string next) {
    health.m_Problems.push_back({how, kind, array.m_Name, std::move(text), std::move(next)});
  };
  const auto status = NumberOf(array.m_Object, PI::PROP_STATUS);
  const std::string text = Members(array);
  const std::string activity = array.ActivityText();
  const bool putOff = array.m_Md && array.m_Md->m_Run && array.m_Md->m_Run->m_Waiting == "PENDING";
  const std::string begin = "the first write begins it, or 'mdadm --readwrite /dev/" + array.m_Name + "'";
  const bool redundant = ToleranceOf(array) != 0;
  const unsigned int lost = array.m_Wanted - std::min(array.m_Wanted, array.m_Present);
  if (lost == 0 && array.m_Md && array.m_Md->m_Broken)
    problem(EHealth::CRITICAL, "array failed",
            "md takes it for broken: a member without which it cannot be has failed",
            "the kernel log names it; what cannot be brought back comes from a backup");
  else if (HasFailed(array))
    problem(EHealth::CRITICAL, "array failed", text,
            "bring its missing disks back; what cannot be brought back comes from a backup");
  else if (NumberOf(array.m_Object, PI::PROP_ACTIVITY) == PI::ACTIVITY_REBUILDING && !putOff)
    problem(EHealth::WARNING, "array rebuilding", text + "; " + activity,
            "wait: 'rvxctl array watch " + array.m_Name + "'");
  else if (lost != 0 || (redundant && status == PI::STATUS_DEGRADED))
    problem(lost != 0 && CanLose(array).value_or(0) != 0 ? EHealth::WARNING : EHealth::CRITICAL,
            "array degraded", text + (array.m_Md && array.m_Md->m_Run ? "; " + activity : ""),
            putOff ? begin : ReplacementFor(inventory, array));
  else if (!redundant && status != PI::STATUS_OK)
    health.m_Notes.push_back(array.m_Name + ": works, but not all members are managed disks");
  else if (status != PI::STATUS_OK)
    problem(EHealth::WARNING, "array not in order", TextOf(array.m_Object, PI::PROP_STATUS), "");
  else if (activity != TextOf(array.m_Object, PI::PROP_ACTIVITY))
    health.m_Notes.push_back(array.m_Name + ": " + activity + (putOff ? "; " + begin : ""));
  for (const SMember& member : array.m_Members)
    if (member.m_IsLostSpare)
      problem(EHealth::WARNING, "spare missing", member.m_Name + " is " + WordOf(member.m_Role),
              "put it back, or " + RemovalByMdadm(inventory, array, member) + " and add another");
}

/// What was never started, or is half-built: the plug-in does not list it.
void LookForInactive(const CInventory& inventory, SHealth& health) {
  for (const SMdArray& md : ParseMdStat(inventory.Machine().MdStat().value_or(""))) {
    if (md.m_Active || inventory.Topology().FindArray(md.m_Name) != nullptr) continue;
    std::vector<std::string> members;
    for (const SMdMember& member : md.m_Members) members.push_back(member.m_Name);
    health.m_Problems.push_back({EHealth::CRITICAL, "array inactive", md.m_Name,
                                 "md holds " + Joined(members) + " for it, and it does not run",
                                 "'mdadm --run /dev/" + md.m_Name + "' starts it, 'mdadm --stop /dev/" +
                                     md.m_Name + "' frees the disks of one that is half-built"});
  }
}

/// A figure of SMART that the disk reports.
std::optional<long> SmartOf(const PI::CObject& disk, PI::_PROPERTY_ID id) {
  const PI::CProperty* const property = FindProperty(disk, id);
  return property == nullptr || IsUnknown(*property) ? std::nullopt : NumberOf(disk, id);
}

void LookAtDisk(const CInventory& inventory, const PI::CObject& disk, const SSmartLimits& limits,
                SHealth& health) {
  const std::string name = NameOf(disk);
  const auto status = NumberOf(disk, PI::PROP_STATUS);
  const auto problem = [&](EHealth how, const char* kind, std::string text, std::string next) {
    health.m_Problems.push_back({how, kind, name, std::move(text), std::move(next)});
  };
  if (IsOneOf(disk, PI::PROP_STATUS, {PI::STATUS_FAILED, PI::STATUS_MISSING})) {
    // Arrays of partitions can share it: the one in which it failed holds it, the others have use for it.
    const SArrayEntry* holder = nullptr;
    std::string others;
    for (const SArrayEntry& array : inventory.Arrays())
      for (const SMember& member : array.m_Members)
        if (member.m_Whole == &disk && (member.m_Disk == &disk || member.m_Role == ERole::FAILED))
          holder = &array;
        else if (member.m_Whole == &disk)
          others += (others.empty() ? "" : ", ") + member.m_Name + " of " + array.m_Name;
    // What to do about a member that failed is said of its array, but while that rebuilds.
    const bool degraded =
        holder != nullptr && std::ranges::any_of(health.m_Problems, [&](const SProblem& one) {
          return one.m_Object == holder->m_Name && one.m_Next.find(name) != std::string::npos;
        });
    const std::string next =
        holder != nullptr && HasFailed(*holder)
            ? "leave it as it is: what is on it may bring " + holder->m_Name + " back"
        : !others.empty()   ? "do not pull it before other disks stand in for " + others
        : degraded          ? ""
        : holder == nullptr ? "replace it"
                            : "'rvxctl spare release " + name + "' when no rebuild runs, then replace it";
    const std::string held = holder == nullptr ? "" : "still held by " + holder->m_Name;
    const std::string works = others.empty() ? "" : others + " works";
    problem(EHealth::CRITICAL, status == PI::STATUS_FAILED ? "disk failed" : "disk missing",
            held.empty() && works.empty()   ? "in no array"
            : held.empty() || works.empty() ? held + works
                                            : held + "; " + works,
            next);
  }
  const auto wear = SmartOf(disk, PI::PROP_SMART_WEAR);
  std::vector<std::string> worn;
  if (wear && *wear > limits.m_Wear) worn.push_back(std::to_string(*wear) + "% of its life is used");
  const auto reserve = SmartOf(disk, PI::PROP_SMART_RESERVE);
  if (reserve && *reserve <= limits.m_Reserve)
    worn.push_back(std::to_string(*reserve) + "% of its spare blocks are left");
  if (!worn.empty()) problem(EHealth::WARNING, "disk wearing out", Joined(worn), "replace it soon");
}

/// "2 arrays degraded": the plural goes behind the first word, where the kind is one that is counted.
std::string Counted(std::size_t count, const std::string& kind) {
  constexpr std::pair<std::string_view, const char*> UNCOUNTED[] = {
      {"watch blind", "nobody looks at the machine"},
      {"events lost", "events are lost"},
      {"notify failing", "alarms cannot be sent"}};
  for (const auto& [one, text] : UNCOUNTED)
    if (kind == one) return text;
  const std::size_t blank = kind.find(' ');
  return std::to_string(count) + " " + kind.substr(0, blank) + (count == 1 ? "" : "s") + kind.substr(blank);
}

std::string HeadlineOf(const std::vector<SProblem>& problems) {
  if (problems.empty()) return "all in order";
  std::vector<std::string> counted;
  for (auto problem = problems.begin(); problem != problems.end(); ++problem) {
    const auto same = [&](const SProblem& other) { return other.m_Kind == problem->m_Kind; };
    if (std::none_of(problems.begin(), problem, same))
      counted.push_back(
          Counted(static_cast<std::size_t>(std::ranges::count_if(problems, same)), problem->m_Kind));
  }
  return Joined(counted);
}

}  // namespace

const char* WordOf(EHealth health) {
  constexpr const char* WORDS[] = {"ok", "warning", "critical", "unknown"};
  return WORDS[static_cast<std::size_t>(health)];
}

unsigned int ToleranceOf(const SArrayEntry& array) {
  if (array.m_Level == "raid1") return array.m_Wanted - std::min(array.m_Wanted, 1U);
  if (array.m_Level == "raid10") return array.m_Wanted / 2;
  if (array.m_Level == "raid6") return 2;
  return array.m_Level == "raid4" || array.m_Level == "raid5" ? 1 : 0;
}

bool HasFailed(const SArrayEntry& array) {
  const unsigned int lost = array.m_Wanted - std::min(array.m_Wanted, array.m_Present);
  const bool runs = !array.m_Md || (array.m_Md->m_Active && !array.m_Md->m_Broken);
  return !runs || lost > ToleranceOf(array) ||
         (!array.m_Md && NumberOf(array.m_Object, PI::PROP_STATUS) == PI::STATUS_FAILED);
}

std::optional<unsigned int> CanLose(const SArrayEntry& array) {
  if (HasFailed(array)) return std::nullopt;
  const unsigned int lost = array.m_Wanted - std::min(array.m_Wanted, array.m_Present);
  unsigned int tolerance = ToleranceOf(array);
  if (array.m_Level == "raid10")
    tolerance = std::min(tolerance, 1U);  // the next one may be the mirror of the first
  return tolerance - std::min(tolerance, lost);
}

SHealth ArrayHealthOf(const CInventory& inventory) {
  SHealth health;
  for (const SArrayEntry& array : inventory.Arrays()) LookAtArray(inventory, array, health);
  LookForInactive(inventory, health);
  return health;
}

SHealth HealthOf(const CInventory& inventory, SHealth arrays, const SSmartLimits& limits) {
  SHealth health = std::move(arrays);
  const auto disks = inventory.Topology().OfKind(PI::OBJ_PHYSICAL_DRIVE);
  for (const PI::CObject* const disk : disks) LookAtDisk(inventory, *disk, limits, health);
  std::ranges::stable_sort(health.m_Problems, std::ranges::greater{}, &SProblem::m_Health);
  health.m_Headline = HeadlineOf(health.m_Problems);
  if (!health.m_Problems.empty()) health.m_Health = health.m_Problems.front().m_Health;
  if (disks.empty() && health.m_Problems.empty()) {
    health.m_Health = EHealth::UNKNOWN;
    health.m_Headline = "no disk on a supported controller";
  }
  return health;
}

std::string SProblem::Word() const {
  std::string word = m_Kind;
  std::ranges::replace(word, ' ', '-');
  return word;
}

bool SHealth::Concerns(const PI::CObject& object) const {
  return std::ranges::find(m_Problems, NameOf(object), &SProblem::m_Object) != m_Problems.end();
}

Json SHealth::ToJson() const {
  Json problems = Json::array();
  for (const SProblem& problem : m_Problems)
    problems.push_back({{"health", WordOf(problem.m_Health)},
                        {"kind", problem.Word()},
                        {"object", problem.m_Object},
                        {"text", problem.m_Text},
                        {"next", problem.m_Next.empty() ? Json(nullptr) : Json(problem.m_Next)}});
  return {{"health", WordOf(m_Health)}, {"headline", m_Headline}, {"problems", problems}, {"notes", m_Notes}};
}

Figures FiguresOf(const CInventory& inventory, const SHealth& health) {
  const auto disks = inventory.Topology().OfKind(PI::OBJ_PHYSICAL_DRIVE);
  const auto in = [&](PI::_CHOICE status) {
    return std::ranges::count_if(
        disks, [&](const PI::CObject* disk) { return NumberOf(*disk, PI::PROP_STATUS) == status; });
  };
  const auto of = [&](const char* kind) {
    return std::ranges::count(health.m_Problems, kind, &SProblem::m_Kind);
  };
  return {{"arrays", static_cast<long>(inventory.Arrays().size())},
          {"arrays_degraded", of("array degraded") + of("array rebuilding")},
          {"arrays_failed", of("array failed") + of("array inactive")},
          {"disks", static_cast<long>(disks.size())},
          {"disks_failed", of("disk failed") + of("disk missing")},
          {"spares", in(PI::STATUS_SPARE)},
          {"disks_ready", in(PI::STATUS_READY)}};
}

}  // namespace Host
