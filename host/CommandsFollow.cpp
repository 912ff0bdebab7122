/// @file
/// Commands that follow what happens.

#include "host/CommandLine.h"
#include "host/Progress.h"
#include "host/TextView.h"
#include "host/Values.h"

namespace rvxctl {

namespace {

constexpr std::chrono::milliseconds FETCH_INTERVAL{250};

struct SEvents {
  bool m_Follow{false};
  bool m_Lines{false};  ///< as JSON
};

int ShowEvents(CContext& context, const SEvents& wanted) {
  CSession& session = context.Session();
  const unsigned long before = CTopology(session).Plugin().m_UpdateCounter;
  session.Start();
  if (!wanted.m_Follow) AwaitPass(session, before);
  const bool json = context.Options().m_Json;
  Json all = Json::array();
  while (true) {
    const std::vector<PI::CEvent> events = session.FetchEvents();
    if (!events.empty()) {
      const CTopology topology(session);
      for (const PI::CEvent& event : events) {
        const Json one = EventJson(topology, event);
        if (wanted.m_Lines || (wanted.m_Follow && json))
          context.Terminal().Print(one.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n");
        else if (json)
          all.push_back(one);
        else
          context.Terminal().Print(EventLine(one));
      }
    }
    if (!wanted.m_Follow) break;
    session.Pause(FETCH_INTERVAL);
  }
  if (json && !wanted.m_Lines) context.Show("events", all, "");
  return EXIT_DONE;
}

int WatchArray(CContext& context, const std::string& address) {
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
  const auto [watch, array] = all.At("array").Leaf<std::string>(
      "watch", "follows a rebuild or resync to its end (1: it was aborted)", WatchArray);
  watch->add_option("ARRAY", array, "the array")->required();
}

}  // namespace rvxctl
