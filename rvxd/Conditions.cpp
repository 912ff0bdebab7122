#include "rvxd/Conditions.h"

#include <algorithm>

#include "host/Values.h"
#include "rvxd/Document.h"
#include "rvxd/Log.h"

namespace Rvxd {

namespace {

/// An array that is started late, or anew, has the conditions that it had.
constexpr std::chrono::minutes GONE_LIMIT{5};

std::string NowText() { return Host::TimeText(Host::NowMilliseconds()); }

/// The identity of the one disk that it is about; null where that is another thing, or not known.
Json DiskOf(const Json& condition) {
  const Json& disks = condition["disks"];
  return disks.size() == 1 && disks[0]["name"] == condition["object"] ? disks[0]["id"] : Json(nullptr);
}

}  // namespace

Json ConditionOf(const Host::SProblem& problem, std::uint64_t since) {
  const std::string kind = problem.Word();
  return {{"id", kind + ":" + problem.m_Object},
          {"kind", kind},
          {"object", problem.m_Object},
          {"subject", problem.m_Object},
          {"uuid", nullptr},
          {"level", Host::WordOf(problem.m_Health)},
          {"text", problem.m_Text},
          {"next", problem.m_Next.empty() ? Json(nullptr) : Json(problem.m_Next)},
          {"disks", Json::array()},
          {"canLose", nullptr},
          {"since", Host::TimeText(since)},
          {"acknowledged", nullptr}};
}

bool IsCondition(const Json& json) {
  const auto is = [&](Json::value_t type, std::initializer_list<const char*> fields) {
    return std::ranges::all_of(
        fields, [&](const char* field) { return json.contains(field) && json[field].type() == type; });
  };
  return json.is_object() &&
         is(Json::value_t::string, {"id", "kind", "object", "subject", "level", "text", "since"}) &&
         !json["object"].get_ref<const std::string&>().empty() &&
         !json["subject"].get_ref<const std::string&>().empty() && is(Json::value_t::array, {"disks"}) &&
         std::ranges::all_of(json["disks"], &CMembers::IsDisk) &&
         std::ranges::all_of(std::initializer_list<const char*>{"uuid", "next", "canLose", "acknowledged"},
                             [&](const char* field) { return json.contains(field); });
}

std::string SubjectOf(const Json& condition) {
  if (condition["uuid"].is_string()) return condition["uuid"];
  const Json disk = condition["object"] == condition["subject"] ? DiskOf(condition) : Json(nullptr);
  return disk.is_string() ? disk : condition["subject"];
}

std::string IdentityOf(const Json& condition) {
  const std::string kind = condition["kind"].get<std::string>() + ":";
  if (condition["object"] == condition["subject"] && condition["uuid"].is_string())
    return kind + condition["uuid"].get<std::string>();
  const Json disk = DiskOf(condition);
  return kind + (disk.is_string() ? disk : condition["object"]).get<std::string>();
}

Host::EHealth LevelOf(const Json& condition) {
  return condition["level"] == Host::WordOf(Host::EHealth::CRITICAL) ? Host::EHealth::CRITICAL
                                                                     : Host::EHealth::WARNING;
}

bool IsWorse(const Json& now, const Json& before) {
  const bool hasLess =
      now["canLose"].is_number() && before["canLose"].is_number() && now["canLose"] < before["canLose"];
  const auto isKnown = [&](const Json& disk) {
    // As long as udev knows nothing of a disk, its name stands for the identity.
    const auto isNamed = [](const Json& one) { return one["id"].is_string() && one["id"] != one["name"]; };
    return std::ranges::any_of(before["disks"], [&](const Json& one) {
      const auto isBy = [&](const char* key) { return one[key].is_string() && one[key] == disk[key]; };
      return isBy("id") || isBy("serial") ||
             (one["name"] == disk["name"] && !(isNamed(one) && isNamed(disk)));
    });
  };
  return LevelOf(now) > LevelOf(before) || hasLess || !std::ranges::all_of(now["disks"], isKnown);
}

bool IsSame(const Json& one, const Json& other) {
  const auto isByName = [](const Json& condition) { return condition["id"] == IdentityOf(condition); };
  return IdentityOf(one) == IdentityOf(other) ||
         (one["id"] == other["id"] && (isByName(one) || isByName(other)));
}

CConditions::CConditions(const std::string& folder, CFeed& feed)
    : m_File(folder + "/conditions.json"), m_Feed(feed), m_Members(folder) {
  const Json kept = ReadDocument(m_File);
  if (!kept.is_array()) return;
  for (const Json& condition : kept)
    if (IsCondition(condition)) m_Conditions[condition["id"]] = condition;
}

void CConditions::Place(Json& condition, const Json& arrays, const Json& disks) const {
  const Json& object = condition["object"];
  condition["disks"] = m_Members.Concerned(object, arrays, disks);
  const auto disk = std::ranges::find_if(disks, [&](const Json& one) { return one["name"] == object; });
  for (const Json& array : arrays) {
    const bool isItself = array["name"] == object;
    if (isItself) condition["canLose"] = array["redundancy"]["canLose"];
    // What is wrong with a member, or with the disk that it is a part of, is a part of what is wrong with its
    // array.
    const bool isMembers = std::ranges::any_of(array["members"], [&](const Json& member) {
      return member["name"] == object || (disk != disks.end() && member["whole"] == (*disk)["id"]);
    });
    if (!isItself && !isMembers) continue;
    condition["subject"] = array["name"];
    // The halves of a mirror that was split have the same: then their names tell them apart.
    const auto isIts = [&](const Json& one) { return one["uuid"] == array["uuid"]; };
    if (std::ranges::count_if(arrays, isIts) == 1) condition["uuid"] = array["uuid"];
  }
}

const Json* CConditions::Before(const Json& condition) const {
  for (const auto& [id, one] : m_Conditions)
    if (IsSame(one, condition)) return &one;
  for (const auto& [id, one] : m_Gone)
    if (IsSame(one.m_Condition, condition)) return &one.m_Condition;
  return nullptr;
}

void CConditions::Update(const Host::SHealth& health, const Json& arrays, const Json& disks) {
  const std::lock_guard writing(m_Writing);
  m_Members.Learn(arrays, disks);
  std::unique_lock lock(m_Mutex);
  std::map<std::string, Json> now;
  for (const Host::SProblem& problem : health.m_Problems) {
    Json condition = ConditionOf(problem, problem.m_Since.value_or(Host::NowMilliseconds()));
    const std::string id = condition["id"];
    if (const auto same = now.find(id); same != now.end()) {  // two spares of one array, say
      same->second["text"] = same->second["text"].get<std::string>() + "; " + problem.m_Text;
      continue;
    }
    Place(condition, arrays, disks);
    if (const Json* const before = Before(condition)) {
      condition["since"] = (*before)["since"];
      // Who took note of a warning did not take note of what it has become.
      if (!IsWorse(condition, *before)) condition["acknowledged"] = (*before)["acknowledged"];
      // A failed disk that its array has let go of is still what that array lost; any other is its own.
      if (condition["uuid"].is_null() && (DiskOf(condition).is_null() || condition["kind"] == "disk-failed" ||
                                          condition["kind"] == "disk-missing")) {
        condition["subject"] = (*before)["subject"];
        condition["uuid"] = (*before)["uuid"];
        if (condition["disks"].empty()) condition["disks"] = (*before)["disks"];
      }
    }
    now[id] = std::move(condition);
  }
  std::vector<Json> news;
  for (const auto& [id, condition] : now)
    if (const auto before = m_Conditions.find(id);
        before == m_Conditions.end() || before->second != condition)
      news.push_back(condition);
  const auto moment = std::chrono::steady_clock::now();
  std::erase_if(m_Gone, [&](const auto& one) { return moment - one.second.m_At > GONE_LIMIT; });
  for (auto [id, condition] : m_Conditions) {
    if (now.contains(id)) continue;
    m_Gone[id] = {condition, moment};
    condition["level"] = Host::WordOf(Host::EHealth::OK);
    news.push_back(std::move(condition));
  }
  m_Conditions = std::move(now);
  lock.unlock();
  for (const Json& condition : news) m_Feed.Notify("condition", condition);
  if (!news.empty()) Keep();
}

Json CConditions::All() const {
  const std::lock_guard lock(m_Mutex);
  Json all = Json::array();
  for (const auto& [id, condition] : m_Conditions) all.push_back(condition);
  return all;
}

Json CConditions::Acknowledge(const std::string& id, const SPeer& peer) {
  const std::lock_guard writing(m_Writing);
  std::unique_lock lock(m_Mutex);
  const auto found = m_Conditions.find(id);
  if (found == m_Conditions.end()) throw CProblem(404, "not-found", "there is no condition \"" + id + "\"");
  const Json subject = found->second["subject"], note = {{"time", NowText()}, {"uid", peer.m_User}};
  std::vector<Json> noted;
  for (auto& [other, condition] : m_Conditions) {
    if (condition["subject"] != subject) continue;
    condition["acknowledged"] = note;
    noted.push_back(condition);
  }
  Json condition = found->second;
  lock.unlock();
  for (const Json& one : noted) m_Feed.Notify("condition", one);
  Keep();
  return condition;
}

void CConditions::Keep() const {
  try {
    WriteWhole(m_File, All().dump(-1, ' ', false, Json::error_handler_t::replace));
  } catch (const Host::CError& error) {
    Log(3, error.what());
  }
}

}  // namespace Rvxd
