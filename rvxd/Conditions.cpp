#include "rvxd/Conditions.h"

#include <algorithm>

#include "host/Values.h"
#include "rvxd/Log.h"

namespace Rvxd {

namespace {

std::string NowText() { return Host::TimeText(Host::NowMilliseconds()); }

}  // namespace

Json ConditionOf(const Host::SProblem& problem, std::uint64_t since) {
  const std::string kind = problem.Word();
  return {{"id", kind + ":" + problem.m_Object},
          {"kind", kind},
          {"object", problem.m_Object},
          {"subject", problem.m_Object},
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
         is(Json::value_t::array, {"disks"}) && json.contains("next") && json.contains("canLose") &&
         json.contains("acknowledged");
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
  for (const Json& array : arrays) {
    if (array["name"] == object) condition["canLose"] = array["redundancy"]["canLose"];
    // What is wrong with a member is a part of what is wrong with its array.
    if (std::ranges::any_of(array["members"], [&](const Json& member) { return member["name"] == object; }))
      condition["subject"] = array["name"];
  }
}

void CConditions::Update(const Host::SHealth& health, const Json& arrays, const Json& disks) {
  m_Members.Learn(arrays, disks);
  std::unique_lock lock(m_Mutex);
  std::map<std::string, Json> now;
  for (const Host::SProblem& problem : health.m_Problems) {
    Json condition = ConditionOf(problem, Host::NowMilliseconds());
    const std::string id = condition["id"];
    if (const auto same = now.find(id); same != now.end()) {  // two spares of one array, say
      same->second["text"] = same->second["text"].get<std::string>() + "; " + problem.m_Text;
      continue;
    }
    Place(condition, arrays, disks);
    if (const auto before = m_Conditions.find(id); before != m_Conditions.end())
      // A failed disk that its array has let go of is still what that array lost.
      for (const char* const key : {"since", "acknowledged", "subject"}) condition[key] = before->second[key];
    now[id] = std::move(condition);
  }
  bool isOther = now.size() != m_Conditions.size();
  for (const auto& [id, condition] : now) {
    const auto before = m_Conditions.find(id);
    if (before != m_Conditions.end() && before->second == condition) continue;
    m_Feed.Notify("condition", condition);
    isOther = true;
  }
  for (auto [id, condition] : m_Conditions) {
    if (now.contains(id)) continue;
    condition["level"] = Host::WordOf(Host::EHealth::OK);
    m_Feed.Notify("condition", condition);
    isOther = true;
  }
  m_Conditions = std::move(now);
  lock.unlock();
  if (isOther) Keep();
}

Json CConditions::All() const {
  const std::lock_guard lock(m_Mutex);
  Json all = Json::array();
  for (const auto& [id, condition] : m_Conditions) all.push_back(condition);
  return all;
}

Json CConditions::Acknowledge(const std::string& id, const SPeer& peer) {
  std::unique_lock lock(m_Mutex);
  const auto found = m_Conditions.find(id);
  if (found == m_Conditions.end()) throw CProblem(404, "not-found", "there is no condition \"" + id + "\"");
  const Json subject = found->second["subject"], note = {{"time", NowText()}, {"uid", peer.m_User}};
  for (auto& [other, condition] : m_Conditions) {
    if (condition["subject"] != subject) continue;
    condition["acknowledged"] = note;
    m_Feed.Notify("condition", condition);
  }
  Json condition = found->second;
  lock.unlock();
  Keep();
  return condition;
}

void CConditions::Keep() const {
  const std::lock_guard writing(m_Writing);
  try {
    WriteWhole(m_File, All().dump(-1, ' ', false, Json::error_handler_t::replace));
  } catch (const Host::CError& error) {
    Log(3, error.what());
  }
}

}  // namespace Rvxd
