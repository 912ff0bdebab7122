/// @file
/// Commands that follow what happens.

#include <algorithm>
#include <optional>

#include "host/TextView.h"
#include "host/Values.h"
#include "rvxctl/CommandLine.h"
#include "rvxctl/Progress.h"

namespace Host {

namespace {

constexpr std::chrono::milliseconds FETCH_INTERVAL{250};
/// Where md says that it changed, the rest comes from passes that are seconds apart.
constexpr std::chrono::milliseconds WATCHED_INTERVAL{1000};
/// After md said that it changed: long enough for the worker to be first at the model, where a fetch that is
/// before it makes it skip its pass. The fetch then waits for the end of the pass.
constexpr std::chrono::milliseconds CHANGE_INTERVAL{10};
constexpr int CHANGE_FETCHES = 50;

struct SEvents {
  bool m_Follow{false};
  bool m_Lines{false};  ///< as JSON
};

/// Prints events, or adds them to the list. Names are those of the last look: an event does not wait for the
/// next one unless it is about an object that is new.
void Tell(CContext& context, std::optional<CTopology>& topology, Json& all) {
  const std::vector<PI::CEvent> events = context.Session().FetchEvents();
  if (std::ranges::any_of(events,
                          [&](const PI::CEvent& event) { return !topology->FindID(event.m_ObjectID); }))
    topology.emplace(context.Session());
  if (events.empty()) return;
  const CInventory inventory(*topology, context.Machine());
  for (const PI::CEvent& event : events) {
    const Json one = EventJson(inventory, event);
    if (context.IsStream())
      context.Show("event", one, "");
    else if (context.Options().m_Json)
      all.push_back(one);
    else
      context.Terminal().Print(EventLine(one));
  }
}

int ShowEvents(CContext& context, const SEvents& wanted) {
  if (wanted.m_Lines || (wanted.m_Follow && context.Options().m_Json)) context.BeginStream();
  CSession& session = context.Session();
  std::optional<CTopology> topology(session);
  auto md = context.Machine().WatchMd();
  session.Start();
  if (!wanted.m_Follow) AwaitPass(session, topology->Plugin().m_UpdateCounter);
  Json all = Json::array();
  Tell(context, topology, all);
  for (int soon = 0; wanted.m_Follow; soon = std::max(soon - 1, 0)) {
    if (!md.IsOpen()) md = context.Machine().WatchMd();  // md may be loaded later
    const auto interval = md.IsOpen() ? WATCHED_INTERVAL : FETCH_INTERVAL;
    if (session.Pause(soon > 0 ? CHANGE_INTERVAL : interval, md.Get())) {
      md = context.Machine().WatchMd();
      soon = CHANGE_FETCHES;
      session.Pause(CHANGE_INTERVAL);
    }
    Tell(context, topology, all);
  }
  if (context.Options().m_Json && !context.IsStream()) context.Show("events", all, "");
  return EXIT_DONE;
}

int WatchArray(CContext& context, const std::string& address) {
  if (context.Options().m_Json) context.BeginStream();
  CSession& session = context.Session();
  const unsigned long id = CTopology(session).Find(address, PI::OBJ_LOGICAL_DRIVE).m_ID;
  session.Start();
  return FollowRun(context, id, EProgress::SHOWN);
}

}  // namespace

void AddFollowing(CGroup& all) {
  const auto [events, wanted] = all.Leaf<SEvents>("events", "what happened, an event a line", ShowEvents);
  events->add_flag("--follow", wanted.m_Follow, "until interrupted");
  events->add_flag("--json-lines", wanted.m_Lines, "a JSON object a line");
  const auto [watch, array] =
      all.At("array").Leaf<std::string>("watch", "follows a rebuild or resync to its end", WatchArray);
  watch->add_option("ARRAY", array, "the array")->required();
}

}  // namespace Host
