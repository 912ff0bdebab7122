/// @file
/// Commands that follow what happens.

#include <algorithm>
#include <optional>

#include "host/Signals.h"
#include "host/TextView.h"
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
  std::string m_Since;  ///< an event's id
  bool m_Follow{false};
  bool m_Lines{false};  ///< as JSON
};

/// Prints an event, unless all of them are to be one document.
bool TellOne(CContext& context, const Json& event) {
  if (context.IsStream())
    context.Show("event", event, "");
  else if (!context.Options().m_Json)
    context.Terminal().Print(EventLine(event));
  return context.IsStream() || !context.Options().m_Json;
}

/// Prints events, or adds them to the list. Names are those of the last look: an event does not wait for the
/// next one unless it is about an object that is new.
void Tell(CContext& context, std::optional<CTopology>& topology, Json& all) {
  CDirect& direct = context.Direct();
  const std::vector<PI::CEvent> events = direct.Session().FetchEvents();
  if (std::ranges::any_of(events,
                          [&](const PI::CEvent& event) { return !topology->FindID(event.m_ObjectID); }))
    topology.emplace(direct.Session());
  if (events.empty()) return;
  const CInventory inventory(*topology, direct.Machine());
  for (const PI::CEvent& event : events) {
    Json one = EventJson(inventory, event);
    if (!TellOne(context, one)) all.push_back(std::move(one));
  }
}

int ShowEvents(CContext& context, const SEvents& wanted) {
  if (wanted.m_Lines || (wanted.m_Follow && context.Options().m_Json)) context.BeginStream();
  Json all = Json::array();
  if (CRemote* const remote = context.Remote()) {
    remote->Follow(wanted.m_Since, wanted.m_Follow, [&](Json event) {
      if (!TellOne(context, event)) all.push_back(std::move(event));
    });
    if (context.Options().m_Json && !context.IsStream()) context.Show("events", all, "");
    return EXIT_DONE;
  }
  if (!wanted.m_Since.empty())
    throw CError(EXIT_USAGE, "only rvxd keeps events, and it does not run: leave out --since");
  CSession& session = context.Direct().Session();
  const CMachine& machine = context.Direct().Machine();
  std::optional<CTopology> topology(session);
  auto md = machine.WatchMd();
  session.Start();
  if (!wanted.m_Follow) AwaitPass(session, topology->Plugin().m_UpdateCounter);
  Tell(context, topology, all);
  for (int soon = 0; wanted.m_Follow; soon = std::max(soon - 1, 0)) {
    if (!md.IsOpen()) md = machine.WatchMd();  // md may be loaded later
    const auto interval = md.IsOpen() ? WATCHED_INTERVAL : FETCH_INTERVAL;
    if (Pause(soon > 0 ? CHANGE_INTERVAL : interval, md.Get())) {
      md = machine.WatchMd();
      soon = CHANGE_FETCHES;
      Pause(CHANGE_INTERVAL);
    }
    Tell(context, topology, all);
  }
  if (context.Options().m_Json && !context.IsStream()) context.Show("events", all, "");
  return EXIT_DONE;
}

int WatchArray(CContext& context, const std::string& address) {
  if (context.Options().m_Json) context.BeginStream();
  return FollowRun(context, address, EProgress::SHOWN);
}

}  // namespace

void AddFollowing(CGroup& all) {
  const auto [events, wanted] = all.Leaf<SEvents>("events", "what happened, an event a line", ShowEvents);
  events->add_flag("--follow", wanted.m_Follow, "until interrupted");
  events->add_flag("--json-lines", wanted.m_Lines, "a JSON object a line");
  events->add_option("--since", wanted.m_Since, "those behind this one, as rvxd has kept them")
      ->type_name("ID");
  const auto [watch, array] =
      all.At("array").Leaf<std::string>("watch", "follows a rebuild or resync to its end", WatchArray);
  watch->add_option("ARRAY", array, "the array")->required();
}

}  // namespace Host
