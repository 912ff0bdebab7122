#include "rvxd/Progress.h"

namespace Rvxd {

namespace {

constexpr std::chrono::hours LIMIT{2};

}  // namespace

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
    at[name] =
        before != m_At.end() && before->second.m_Progress == progress ? before->second : SAt{progress, now};
    if (now - at[name].m_Since >= LIMIT)
      stuck.push_back(
          {Host::EHealth::WARNING, "rebuild stuck", name,
           activity["text"].get<std::string>() + " for " + std::to_string(LIMIT.count()) + " hours and more",
           "the kernel log and 'cat /sys/block/" + name +
               "/md/sync_action' tell more; a disk that answers slowly is the usual reason"});
  }
  m_At = std::move(at);
  return stuck;
}

}  // namespace Rvxd
