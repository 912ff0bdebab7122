/// @file
/// Commands that follow what happens.

#include "host/Commands.h"
#include "host/Progress.h"

namespace rvxctl {

namespace {

constexpr std::chrono::milliseconds FETCH_INTERVAL{250};

const char* SeverityName(unsigned int severity) {
  return severity >= PI::SEV_ERROR ? "error" : severity == PI::SEV_WARNING ? "warning" : "information";
}

std::string EventLine(const Json& event) {
  const auto name = [&](const char* key, const char* id) {
    return event[key].is_null() ? event[id].get<std::string>()
                                : event[id].get<std::string>() + " (" + event[key].get<std::string>() + ")";
  };
  std::string line = event["time"].get<std::string>() + " " +
                     std::to_string(event["code"].get<unsigned int>()) + " " +
                     SeverityName(event["severity"].get<unsigned int>()) + " object " +
                     name("objectName", "object") + " source " + name("sourceName", "source") + " [";
  line += event["placeholders"][0].get<std::string>() + "|" + event["placeholders"][1].get<std::string>();
  return line + "] " + event["text"].get<std::string>() + "\n";
}

}  // namespace

int ShowEvents(CContext& context, bool follow, bool jsonLines) {
  CSession& session = context.Session();
  const unsigned long before = CTopology(session).Plugin().m_UpdateCounter;
  session.Start();
  if (!follow) AwaitPass(session, before);
  Json all = Json::array();
  while (true) {
    const std::vector<PI::CEvent> events = session.FetchEvents();
    if (!events.empty()) {
      const CTopology topology(session);
      for (const PI::CEvent& event : events) {
        const Json json = EventJson(session.Texts(), topology, event);
        if (jsonLines || (follow && context.Options().m_Json))
          context.Output().Print(json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n");
        else if (context.Options().m_Json)
          all.push_back(json);
        else
          context.Output().Print(EventLine(json));
      }
    }
    if (!follow) break;
    session.Pause(FETCH_INTERVAL);
  }
  if (context.Options().m_Json && !jsonLines) context.Show("events", all, "");
  return EXIT_DONE;
}

int WatchArray(CContext& context, const std::string& address) {
  CSession& session = context.Session();
  const CTopology topology(session);
  const unsigned long id = topology.Find(address, PI::OBJ_LOGICAL_DRIVE).m_ID;
  session.Start();
  return FollowRun(context, id);
}

}  // namespace rvxctl
