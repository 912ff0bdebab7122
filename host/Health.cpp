#include "host/Health.h"

#include <algorithm>

#include "host/Values.h"

namespace rvxctl {

namespace {

std::string Joined(const std::vector<std::string>& texts, const char* separator = ", ") {
  std::string all;
  for (const std::string& text : texts) all += (all.empty() ? "" : separator) + text;
  return all;
}

std::string Members(const SArrayEntry& array) {
  return std::to_string(array.m_Present) + " of " + std::to_string(array.m_Wanted) + " members " +
         (array.m_Present == 1 ? "works" : "work");
}

/// "release sdb, replace it, then 'rvxctl spare add DISK md_d0'"
std::string ReplacementFor(const SArrayEntry& array) {
  const std::vector<std::string> failed = array.Failed();
  const std::string add = "'rvxctl spare add DISK " + array.m_Name + "'";
  if (failed.empty()) return "add a disk: " + add;
  return "'rvxctl spare release " + failed.front() + "', replace the disk, then " + add;
}

void LookAtArray(const SArrayEntry& array, SHealth& health) {
  const auto status = NumberOf(array.m_Object, PI::PROP_STATUS);
  const auto problem = [&](EHealth how, const char* kind, std::string text, std::string next) {
    health.m_Problems.push_back({how, kind, array.m_Name, std::move(text), std::move(next)});
  };
  std::string text = Members(array);
  if (const auto failed = array.Failed(); !failed.empty()) text += "; failed: " + Joined(failed);
  const std::string activity = array.ActivityText();
  const bool active = NumberOf(array.m_Object, PI::PROP_ACTIVITY) != PI::ACTIVITY_NONE ||
                      array.m_Md.value_or(SMdArray{}).m_Run;
  const bool rebuilds = NumberOf(array.m_Object, PI::PROP_ACTIVITY) == PI::ACTIVITY_REBUILDING;
  if (status == PI::STATUS_FAILED || (array.m_Md && !array.m_Md->m_Active))
    problem(EHealth::CRITICAL, "array failed", text,
            "bring its missing disks back; what cannot be brought back comes from a backup");
  else if (rebuilds)
    problem(EHealth::WARNING, "array rebuilding", text + "; " + activity,
            "wait: 'rvxctl array watch " + array.m_Name + "'");
  else if (status == PI::STATUS_DEGRADED || array.m_Present < array.m_Wanted)
    problem(EHealth::CRITICAL, "array degraded", text + (active ? "; " + activity : ""),
            ReplacementFor(array));
  else if (status != PI::STATUS_OK)
    problem(EHealth::WARNING, "array not in order", TextOf(array.m_Object, PI::PROP_STATUS), "");
  else if (activity != TextOf(array.m_Object, PI::PROP_ACTIVITY) || active)
    health.m_Notes.push_back(array.m_Name + ": " + activity);
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
  if (status == PI::STATUS_FAILED || status == PI::STATUS_MISSING) {
    const SArrayEntry* holder = nullptr;
    for (const SArrayEntry& array : inventory.Arrays())
      for (const SMember& member : array.m_Members)
        if (member.m_Disk == &disk) holder = &array;
    // What to do about a member that failed is said of its array.
    const bool said = holder != nullptr && health.Concerns(holder->m_Object);
    const std::string next = said                ? ""
                             : holder == nullptr ? "replace it"
                                                 : "'rvxctl spare release " + name + "', then replace it";
    problem(EHealth::CRITICAL, status == PI::STATUS_FAILED ? "disk failed" : "disk missing",
            holder == nullptr ? "in no array" : "still held by " + holder->m_Name, next);
  }
  const auto wear = SmartOf(disk, PI::PROP_SMART_WEAR);
  if (wear && *wear > limits.m_Wear)
    problem(EHealth::WARNING, "disk wearing out", std::to_string(*wear) + "% of its life is used",
            "replace it soon");
  const auto reserve = SmartOf(disk, PI::PROP_SMART_RESERVE);
  if (reserve && *reserve <= limits.m_Reserve)
    problem(EHealth::WARNING, "disk wearing out", std::to_string(*reserve) + "% of its spare blocks are left",
            "replace it soon");
}

/// "2 arrays degraded": the plural goes behind the first word.
std::string Counted(std::size_t count, const std::string& kind) {
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

SHealth HealthOf(const CInventory& inventory, const SSmartLimits& limits) {
  SHealth health;
  const auto disks = inventory.Topology().OfKind(PI::OBJ_PHYSICAL_DRIVE);
  for (const SArrayEntry& array : inventory.Arrays()) LookAtArray(array, health);
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

bool SHealth::Concerns(const PI::CObject& object) const {
  return std::ranges::find(m_Problems, NameOf(object), &SProblem::m_Object) != m_Problems.end();
}

Json SHealth::ToJson() const {
  Json problems = Json::array();
  for (const SProblem& problem : m_Problems)
    problems.push_back({{"health", WordOf(problem.m_Health)},
                        {"kind", problem.m_Kind},
                        {"object", problem.m_Object},
                        {"text", problem.m_Text},
                        {"next", problem.m_Next.empty() ? Json(nullptr) : Json(problem.m_Next)}});
  return {{"health", WordOf(m_Health)}, {"headline", m_Headline}, {"problems", problems}, {"notes", m_Notes}};
}

std::string PerformanceData(const CInventory& inventory) {
  const auto disks = inventory.Topology().OfKind(PI::OBJ_PHYSICAL_DRIVE);
  const auto count = [](const auto& objects, PI::_CHOICE status) {
    return std::ranges::count_if(
        objects, [&](const PI::CObject* object) { return NumberOf(*object, PI::PROP_STATUS) == status; });
  };
  const auto arrays = inventory.Topology().OfKind(PI::OBJ_LOGICAL_DRIVE);
  const std::pair<const char*, long> figures[] = {{"arrays", static_cast<long>(arrays.size())},
                                                  {"arrays_degraded", count(arrays, PI::STATUS_DEGRADED)},
                                                  {"arrays_failed", count(arrays, PI::STATUS_FAILED)},
                                                  {"disks", static_cast<long>(disks.size())},
                                                  {"disks_failed", count(disks, PI::STATUS_FAILED)},
                                                  {"spares", count(disks, PI::STATUS_SPARE)},
                                                  {"disks_ready", count(disks, PI::STATUS_READY)}};
  std::string text;
  for (const auto& [label, figure] : figures)
    text += (text.empty() ? "" : " ") + std::string(label) + "=" + std::to_string(figure) + ";;;0";
  return text;
}

}  // namespace rvxctl
