#include "rvxd/Progress.h"

#include <algorithm>

namespace Rvxd {

namespace {

constexpr std::chrono::hours LIMIT{2};

}  // namespace

CProgress::CProgress(const Host::Json& conditions) {
  for (const Host::Json& condition : conditions)
    if (condition["kind"] == "rebuild-stuck")
      m_Kept.push_back({Host::EHealth::WARNING, "rebuild stuck", condition["object"], condition["text"],
                        condition["next"].is_string() ? condition["next"] : ""});
}

std::vector<Host::SProblem> CProgress::Stuck(const Host::Json& arrays, Time now) {
  std::map<std::string, SAt> at;
  std::vector<Host::SProblem> stuck;
  for (const Host::Json& array : arrays) {
    const Host::Json& activity = array["activity"];
    // A check is routine: it may take as long as it likes.
    if (activity["progress"].is_null() || activity["kind"] == "check") continue;
    const std::string name = array["name"];
    const Host::Json progress = {activity["kind"], activity["progress"]};
    const auto before = m_At.find(name);
    // One that was stuck in the run before, and is as far as it was then, has not just begun.
    const bool wasStuck = std::ranges::any_of(m_Kept, [&](const Host::SProblem& kept) {
      return kept.m_Object == name && kept.m_Text.starts_with(activity["text"].get<std::string>() + " for ");
    });
    at[name] = before != m_At.end() && before->second.m_Progress == progress
                   ? before->second
                   : SAt{progress, wasStuck ? now - LIMIT : now};
    if (now - at[name].m_Since >= LIMIT)
      stuck.push_back(
          {Host::EHealth::WARNING, "rebuild stuck", name,
           activity["text"].get<std::string>() + " for " + std::to_string(LIMIT.count()) + " hours and more",
           "the kernel log and 'cat /sys/block/" + name +
               "/md/sync_action' tell more; a disk that answers slowly is the usual reason"});
  }
  m_At = std::move(at);
  m_Kept.clear();
  return stuck;
}

}  // namespace Rvxd
