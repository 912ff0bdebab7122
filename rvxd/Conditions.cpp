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
          {"level", Host::WordOf(problem.m_Health)},
          {"text", problem.m_Text},
          {"next", problem.m_Next.empty() ? Json(nullptr) : Json(problem.m_Next)},
          {"since", Host::TimeText(since)},
          {"acknowledged", nullptr}};
}

CConditions::CConditions(const std::string& folder, CFeed& feed)
    : m_File(folder + "/conditions.json"), m_Feed(feed) {
  const Json kept = ReadDocument(m_File);
  if (!kept.is_array()) return;
  for (const Json& condition : kept)
    if (const char* const fields[] = {"id", "kind", "object", "level", "text", "next", "since",
                                      "acknowledged"};
        condition.is_object() &&
        std::ranges::all_of(fields, [&](const char* field) { return condition.contains(field); }) &&
        condition["id"].is_string())
      m_Conditions[condition["id"]] = condition;
}

void CConditions::Update(const Host::SHealth& health, const std::vector<Host::SProblem>& own) {
  const std::lock_guard lock(m_Mutex);
  std::map<std::string, Json> now;
  bool isOther = false;
  for (const std::vector<Host::SProblem>* const problems : {&health.m_Problems, &own})
    for (const Host::SProblem& problem : *problems) {
      Json condition = ConditionOf(problem, Host::NowMilliseconds());
      const std::string id = condition["id"];
      if (const auto same = now.find(id); same != now.end()) {  // two spares of one array, say
        same->second["text"] = same->second["text"].get<std::string>() + "; " + problem.m_Text;
        continue;
      }
      if (const auto before = m_Conditions.find(id); before != m_Conditions.end()) {
        condition["since"] = before->second["since"];
        condition["acknowledged"] = before->second["acknowledged"];
        if (condition != before->second) {
          isOther = true;
          m_Feed.Notify("condition", condition);
        }
      } else {
        isOther = true;
        Log(problem.m_Health == Host::EHealth::CRITICAL ? 3 : 4,
            problem.m_Object + ": " + problem.m_Kind + ": " + problem.m_Text);
        m_Feed.Notify("condition", condition);
      }
      now[id] = std::move(condition);
    }
  for (const auto& [id, condition] : m_Conditions) {
    if (now.contains(id)) continue;
    isOther = true;
    Json over = condition;
    over["level"] = Host::WordOf(Host::EHealth::OK);
    Log(5, id + " is over");
    m_Feed.Notify("condition", over);
  }
  m_Conditions = std::move(now);
  if (isOther) Keep();
}

Json CConditions::All() const {
  const std::lock_guard lock(m_Mutex);
  Json all = Json::array();
  for (const auto& [id, condition] : m_Conditions) all.push_back(condition);
  return all;
}

Json CConditions::Acknowledge(const std::string& id, const SPeer& peer) {
  const std::lock_guard lock(m_Mutex);
  const auto found = m_Conditions.find(id);
  if (found == m_Conditions.end()) throw CProblem(404, "not-found", "there is no condition \"" + id + "\"");
  found->second["acknowledged"] = {{"time", NowText()}, {"uid", peer.m_User}};
  m_Feed.Notify("condition", found->second);
  Keep();
  return found->second;
}

void CConditions::Keep() const {
  Json all = Json::array();
  for (const auto& [id, condition] : m_Conditions) all.push_back(condition);
  try {
    WriteWhole(m_File, all.dump(-1, ' ', false, Json::error_handler_t::replace));
  } catch (const Host::CError& error) {
    Log(3, error.what());
  }
}

}  // namespace Rvxd
