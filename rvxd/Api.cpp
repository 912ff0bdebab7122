#include "rvxd/Api.h"

#include <algorithm>
#include <charconv>

#include "PI/Numbers.h"
#include "host/Values.h"
#include "rvxd/Log.h"

namespace Rvxd {

namespace {

constexpr unsigned long PAGE_LIMIT = 1000;
constexpr unsigned long PAGE = 100;
constexpr unsigned long WAIT_LIMIT = 60;  ///< seconds
/// How long the answer to a new operation waits for its second look, so that it says at once when that fails.
constexpr std::chrono::seconds BEGIN_LIMIT{2};
constexpr unsigned int SILENCE = 15;  ///< seconds more than what is waited for
constexpr std::size_t BODY_DEPTH = 16;
/// A message takes five minutes at most, and the one that is sent by its side as long.
constexpr unsigned int TEST_SILENCE = 700;
constexpr char METRICS[] = "/metrics";

Text Whole(const Json& json) {
  return std::make_shared<const std::string>(json.dump(-1, ' ', false, Json::error_handler_t::replace) +
                                             "\n");
}

SHttpAnswer Answered(const Json& json, unsigned int code = 200) { return {code, Whole(json)}; }

/// Whether a header with tags ("*", or several with commas between) names this one.
bool Names(const std::string& tags, const std::string& tag) {
  return tags == "*" || tags.find(tag) != std::string::npos;
}

/// The document with its tag; nothing where the client has that already.
SHttpAnswer Tagged(const SHttpRequest& request, const std::string& tag, const std::function<Text()>& body) {
  SHttpAnswer answer;
  answer.m_Headers.emplace_back("ETag", tag);
  if (Names(request.Header("if-none-match"), tag)) {
    answer.m_Code = 304;
    return answer;
  }
  answer.m_Body = body();
  return answer;
}

/// Whether a request was sent to an address, or to this machine's own name for itself. A web page can have
/// its own name lead here, and a browser would then hand it what is answered.
bool IsSentHere(const std::string& host) {
  const std::string name = host.substr(0, host.find(':'));
  return host.starts_with('[') || name == "localhost" ||
         name.find_first_not_of("0123456789.") == std::string::npos;
}

/// Of a document that is made anew for each request.
std::string TagOf(const Json& json) {
  return "\"" +
         std::to_string(std::hash<std::string>()(json.dump(-1, ' ', false, Json::error_handler_t::replace))) +
         "\"";
}

Json BodyOf(const SHttpRequest& request) {
  std::size_t depth = 0;
  const auto tooDeep = [&](int level, Json::parse_event_t, Json&) {
    depth = std::max(depth, static_cast<std::size_t>(level));
    if (depth > BODY_DEPTH) throw CProblem(400, "usage", "the body is nested too deeply");
    return true;
  };
  Json body = Json::parse(request.m_Body, tooDeep, false);
  if (!body.is_object()) throw CProblem(400, "usage", "the body is no JSON object");
  return body;
}

/// Whether the path is the pattern's; "*" is one part, which is captured.
bool Matches(const std::string& pattern, const std::string& path, std::string& captured) {
  const std::size_t star = pattern.find('*');
  if (star == std::string::npos) return pattern == path;
  const std::string tail = pattern.substr(star + 1);
  if (path.size() <= star + tail.size() || !path.starts_with(pattern.substr(0, star)) ||
      !path.ends_with(tail))
    return false;
  captured = path.substr(star, path.size() - star - tail.size());
  return captured.find('/') == std::string::npos;
}

}  // namespace

SHttpAnswer AnswerOf(const CProblem& problem) {
  SHttpAnswer answer{problem.m_Code, Whole(problem.ToJson()), "application/problem+json"};
  if (problem.m_Code == 503 || problem.m_Code == 429) answer.m_Headers.emplace_back("Retry-After", "1");
  return answer;
}

const std::string& SHttpRequest::Query(const std::string& name) const {
  static const std::string none;
  const auto found = m_Query.find(name);
  return found == m_Query.end() ? none : found->second;
}
const std::string& SHttpRequest::Header(const std::string& name) const {
  static const std::string none;
  const auto found = m_Headers.find(name);
  return found == m_Headers.end() ? none : found->second;
}

unsigned long NumberIn(const SHttpRequest& request, const std::string& name, unsigned long otherwise,
                       unsigned long most) {
  const std::string& text = request.Query(name);
  if (text.empty()) return otherwise;
  unsigned long number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number > most)
    throw CProblem(422, "usage", "\"" + name + "\" is a number from 0 to " + std::to_string(most));
  return number;
}

SEventFilter FilterIn(const SHttpRequest& request) {
  const std::string& severity = request.Query("severity");
  SEventFilter filter{0, request.Query("object")};
  if (severity == "warning") filter.m_Severity = PI::SEV_WARNING;
  if (severity == "error") filter.m_Severity = PI::SEV_ERROR;
  if (filter.m_Severity == 0 && !severity.empty() && severity != "information")
    throw CProblem(422, "usage", "\"severity\" is information, warning or error");
  return filter;
}

const CApi::SRoute CApi::ROUTES[] = {
    {"GET", "/", &CApi::Root},
    {"GET", "/v1/state", &CApi::State},
    {"GET", "/v1/health", &CApi::Health},
    {"GET", "/v1/arrays", &CApi::Arrays},
    {"GET", "/v1/arrays/*", &CApi::Array},
    {"GET", "/v1/disks", &CApi::Disks},
    {"GET", "/v1/disks/*", &CApi::Disk},
    {"GET", "/v1/controllers", &CApi::Controllers},
    {"GET", "/v1/levels", &CApi::Levels},
    {"GET", "/v1/views/*", &CApi::View},
    {"GET", "/v1/events", &CApi::Events},
    {"GET", "/v1/conditions", &CApi::Conditions},
    {"POST", "/v1/conditions/*/acknowledge", &CApi::Acknowledge},
    {"POST", "/v1/plans", &CApi::Plan},
    {"GET", "/v1/operations", &CApi::Operations},
    {"POST", "/v1/operations", &CApi::Begin},
    {"GET", "/v1/operations/*", &CApi::Operation},
    {"DELETE", "/v1/operations/*", &CApi::Withdraw},
    {"GET", "/v1/notify", &CApi::Notify},
    {"POST", "/v1/notify/test", &CApi::TestNotify},
    {"GET", "/v1/settings", &CApi::Settings},
    {"PUT", "/v1/settings", &CApi::SetSettings},
    {"GET", METRICS, &CApi::Metrics},
};

SHttpAnswer CApi::Answer(const SHttpRequest& request) const {
  Captured captured;
  const auto* const route = std::ranges::find_if(
      ROUTES, [&](const SRoute& one) { return Matches(one.m_Path, request.m_Path, captured); });
  SHttpAnswer answer = Guarded(request);
  m_Counters.Count("rvx_http_requests_total", {{"route", route == std::end(ROUTES) ? "other" : route->m_Path},
                                               {"code", std::to_string(answer.m_Code)}});
  return answer;
}

SHttpAnswer CApi::Guarded(const SHttpRequest& request) const {
  try {
    return Route(request);
  } catch (const CProblem& problem) {
    return AnswerOf(problem);
  } catch (const Host::CError& error) {
    return AnswerOf(CProblem(error));
  } catch (const std::exception& error) {
    Log(3, request.m_Method + " " + request.m_Path + " failed: " + error.what());
    return AnswerOf(CProblem(500, "internal", "rvxd failed at this request; its log tells more"));
  }
}

SHttpAnswer CApi::Route(const SHttpRequest& request) const {
  // To who may read these alone, there is nothing else.
  if (request.m_Access == EAccess::METRICS && (request.m_Path != METRICS || request.m_Method != "GET"))
    throw CProblem(404, "not-found", "there is no resource " + request.m_Path);
  if (request.m_Access == EAccess::METRICS && !IsSentHere(request.Header("host")))
    throw CProblem(403, "wrong-host", "metrics are asked for by a loopback address, or as localhost");
  if (request.m_Refusal) throw CProblem(*request.m_Refusal);
  std::string allowed;
  for (const SRoute& route : ROUTES) {
    Captured captured;
    if (!Matches(route.m_Path, request.m_Path, captured)) continue;
    if (request.m_Method != route.m_Method) {
      allowed += (allowed.empty() ? "" : ", ") + std::string(route.m_Method);
      if (allowed.ends_with("GET")) allowed += ", HEAD";
      continue;
    }
    if (request.m_Access == EAccess::READING && request.m_Method != "GET")
      throw CProblem(403, "read-only",
                     "this socket is for reading: changes go by rvxd.sock, which the group rvx may use");
    return (this->*route.m_Handler)(request, captured);
  }
  if (allowed.empty()) throw CProblem(404, "not-found", "there is no resource " + request.m_Path);
  SHttpAnswer answer =
      AnswerOf(CProblem(405, "method-not-allowed", request.m_Path + " takes " + allowed + " alone"));
  answer.m_Headers.emplace_back("Allow", allowed);
  return answer;
}

std::shared_ptr<const CSnapshot> CApi::Snapshot() const {
  auto snapshot = m_Keeper.Now();
  if (snapshot == nullptr) throw CProblem(503, "starting", "the plug-in has not looked at the machine yet");
  return snapshot;
}

SHttpAnswer CApi::Root(const SHttpRequest& request, const Captured&) const {
  const auto snapshot = m_Keeper.Now();
  const std::string version =
      snapshot == nullptr ? "" : Host::TextOf(snapshot->Topology().Plugin(), PI::PROP_VERSION);
  return Answered(
      {{"versions", {"v1"}},
       {"extensions", Json::array()},
       {"daemon", {{"name", "rvxd"}, {"version", RVX_VERSION}}},
       {"plugin",
        {{"version", version.empty() ? Json(nullptr) : Json(version)}, {"simulated", m_IsSimulated}}},
       {"epoch", m_Feed.Epoch()},
       {"readOnly", request.m_Access == EAccess::READING}});
}

SHttpAnswer CApi::State(const SHttpRequest& request, const Captured&) const {
  const auto snapshot = Snapshot();
  return Tagged(request, snapshot->Tag(), [&] { return snapshot->State(); });
}

SHttpAnswer CApi::Health(const SHttpRequest&, const Captured&) const {
  const auto snapshot = Snapshot();
  Json health = HealthNow(*snapshot, m_Keeper.Pass(), Host::NowMilliseconds());
  health["conditions"] = m_Keeper.Conditions();
  return Answered(health);
}

SHttpAnswer CApi::List(const SHttpRequest& request, const char* name,
                       const Json& (CSnapshot::*list)() const) const {
  const auto snapshot = Snapshot();
  return Tagged(request, snapshot->Tag(), [&] {
    return Whole({{"revision", snapshot->Revision()}, {name, (snapshot.get()->*list)()}});
  });
}

SHttpAnswer CApi::One(const SHttpRequest& request, const char* name, const Captured& id,
                      const Json* (CSnapshot::*find)(const std::string&) const) const {
  const auto snapshot = Snapshot();
  const Json* const one = (snapshot.get()->*find)(id);
  if (one == nullptr)
    throw CProblem(404, "not-found", std::string("there is no ") + name + " \"" + id + "\"");
  return Tagged(request, snapshot->Tag(), [&] { return Whole(*one); });
}

SHttpAnswer CApi::Arrays(const SHttpRequest& request, const Captured&) const {
  return List(request, "arrays", &CSnapshot::Arrays);
}
SHttpAnswer CApi::Array(const SHttpRequest& request, const Captured& id) const {
  return One(request, "array", id, &CSnapshot::FindArray);
}
SHttpAnswer CApi::Disks(const SHttpRequest& request, const Captured&) const {
  return List(request, "disks", &CSnapshot::Disks);
}
SHttpAnswer CApi::Disk(const SHttpRequest& request, const Captured& id) const {
  return One(request, "disk", id, &CSnapshot::FindDisk);
}
SHttpAnswer CApi::Controllers(const SHttpRequest& request, const Captured&) const {
  return List(request, "controllers", &CSnapshot::Controllers);
}
SHttpAnswer CApi::Levels(const SHttpRequest& request, const Captured&) const {
  return List(request, "levels", &CSnapshot::Levels);
}

SHttpAnswer CApi::View(const SHttpRequest& request, const Captured& name) const {
  const auto snapshot = Snapshot();
  // A view tells of the machine as it is now, and a script that asks takes it so.
  if (const SPass pass = m_Keeper.Pass(); IsBlind(pass))
    throw CProblem(503, "blind",
                   BlindProblem(pass).m_Text + ": what rvxd knows may be wrong; --direct looks without it");
  Host::SForm form{request.Query("form") == "json"};
  form.m_Style.m_Width = NumberIn(request, "width", 0, 65535);
  form.m_Style.m_Color = request.Query("color") == "1";
  const Host::SView view = snapshot->View({name, request.m_Query}, form);
  if (request.Header("accept") == "text/plain")
    return {200,
            std::make_shared<const std::string>(form.m_Json ? Host::Envelope(view.m_Schema, view.m_Data)
                                                            : view.m_Text),
            "text/plain; charset=utf-8"};
  return Answered({{"schema", view.m_Schema}, {"data", view.m_Data}, {"text", view.m_Text}});
}

SHttpAnswer CApi::Events(const SHttpRequest& request, const Captured&) const {
  const SEventFilter filter = FilterIn(request);
  const std::string& last = request.Header("last-event-id");
  const std::string& since = last.empty() ? request.Query("since") : last;
  if (request.Header("accept").find("text/event-stream") != std::string::npos) {
    SHttpAnswer answer;
    answer.m_Type = "text/event-stream";
    answer.m_Headers.emplace_back("Cache-Control", "no-store");
    // The first beat takes the headers along.
    answer.m_Stream = [&feed = m_Feed, counted = m_Feed.Streaming(), filter, isFirst = true,
                       cursor = m_Feed.CursorAt(since)]() mutable {
      if (std::exchange(isFirst, false)) return std::string(": beat\n\n");
      return feed.Next(cursor, filter);
    };
    return answer;
  }
  const SEventPage page = m_Feed.Page(since, NumberIn(request, "limit", PAGE, PAGE_LIMIT), filter);
  std::string body = "{\"events\":[";
  for (const Text& event : page.m_Events) body += (body.back() == '[' ? "" : ",") + *event;
  body += "],\"cursor\":\"" + page.m_Cursor + "\",\"more\":" + (page.m_More ? "true" : "false") +
          ",\"reset\":" + (page.m_Reset ? "true" : "false") + "}\n";
  return {200, std::make_shared<const std::string>(std::move(body))};
}

SHttpAnswer CApi::Conditions(const SHttpRequest&, const Captured&) const {
  return Answered({{"conditions", m_Keeper.Conditions()}});
}

SHttpAnswer CApi::Acknowledge(const SHttpRequest& request, const Captured& id) const {
  return Answered(m_Conditions.Acknowledge(id, request.m_Peer));
}

SHttpAnswer CApi::Plan(const SHttpRequest& request, const Captured&) const {
  const auto snapshot = Snapshot();
  const Host::SRequest wanted = Host::RequestOf(BodyOf(request));
  const std::size_t width = NumberIn(request, "width", 0, 65535);
  Json answer = {{"plan", nullptr},
                 {"kind", Host::WordOf(wanted.m_Kind)},
                 {"revision", snapshot->Revision()},
                 {"allowed", false},
                 {"expires", nullptr},
                 {"title", nullptr},
                 {"consequences", Json::array()},
                 {"disks", Json::array()},
                 {"reasons", Json::array()},
                 {"questions", Json::array()},
                 {"text", ""},
                 {"answer", ""},
                 {"document", nullptr},
                 {"error", nullptr}};
  std::optional<Host::CError> error;
  if (request.m_Extend) request.m_Extend(120);
  m_Keeper.Do([&](Host::CSession& session, const Host::CMachine& machine) {
    try {
      const Host::SLook look(session, machine,
                             [&](const Host::CInventory& now) { return Host::ChangeOf(now, wanted); });
      const Host::SPlan plan = look.Plan(width);
      error = plan.m_Refusal;
      answer["title"] = look.m_Change.m_What;
      for (const std::string& text : {look.m_Change.m_Loss, look.m_Warning})
        if (!text.empty()) answer["consequences"].push_back(text);
      answer["questions"] = plan.m_Questions;
      answer["text"] = plan.m_Text;
      answer["answer"] = plan.m_Answer;
      answer["document"] = plan.m_Document;
      for (const Host::SDiskPlan& disk : look.m_Change.m_Disks) {
        const Json* const known = snapshot->FindDisk(disk.m_Name);
        answer["disks"].push_back(
            {{"id", known == nullptr ? Json(disk.m_Name) : (*known)["id"]},
             {"device", "/dev/" + disk.m_Name},
             {"serial", disk.m_Facts.m_Serial.empty() ? Json(nullptr) : Json(disk.m_Facts.m_Serial)},
             {"size", disk.m_Facts.m_Bytes ? Json(*disk.m_Facts.m_Bytes) : Json(nullptr)},
             {"contents", disk.m_Contents.m_All},
             {"state", known == nullptr ? Json(nullptr) : (*known)["state"]}});
      }
      if (error) return;
      std::tie(answer["plan"], answer["expires"]) =
          m_Operations.AddPlan(wanted, look.m_Change.m_What, look.m_Token);
    } catch (const Host::CError& forbidden) {
      // What is forbidden now is an answer; what is wrong is none.
      if (forbidden.m_ExitStatus != Host::EXIT_NOT_ALLOWED) throw;
      error.emplace(forbidden);
    }
  });
  answer["allowed"] = !error;
  if (!error) return Answered(answer);
  answer["error"] = Host::ErrorJson(*error);
  answer["reasons"] = ReasonsOf(*error);
  return Answered(answer);
}

SHttpAnswer CApi::Begin(const SHttpRequest& request, const Captured&) const {
  Snapshot();
  const Json body = BodyOf(request);
  if (body.value("confirm", Json()) != true)
    throw CProblem(422, "usage", "\"confirm\": true is missing: what is lost by the plan is lost");
  if (!body.value("plan", Json()).is_string()) throw CProblem(422, "usage", "\"plan\" is missing");
  const std::string id = m_Operations.Begin(body["plan"], request.Header("idempotency-key"), request.m_Peer);
  const Json operation = m_Operations.AwaitBegin(id, BEGIN_LIMIT);
  // Refused by the second look: nothing was done, and that is this request's answer.
  if (operation["state"] == "failed" && operation["started"].is_null() && !operation["error"].is_null())
    return {operation["error"].value("status", 412U), Whole(operation["error"]), "application/problem+json"};
  SHttpAnswer answer = Answered(operation, 202);
  answer.m_Headers.emplace_back("Location", "/v1/operations/" + id);
  return answer;
}

SHttpAnswer CApi::Operations(const SHttpRequest&, const Captured&) const {
  return Answered({{"operations", m_Operations.All()}});
}

SHttpAnswer CApi::Operation(const SHttpRequest& request, const Captured& id) const {
  const unsigned long wait = NumberIn(request, "wait", 0, WAIT_LIMIT);
  if (wait == 0) return Answered(m_Operations.One(id));
  if (request.m_Extend) request.m_Extend(static_cast<unsigned int>(wait) + SILENCE);
  return Answered(m_Operations.AwaitEnd(id, std::chrono::seconds(wait)));
}

SHttpAnswer CApi::Withdraw(const SHttpRequest&, const Captured& id) const {
  m_Operations.Withdraw(id);
  return {204};
}

Json CApi::SettingsJson() const {
  const PI::CObject& plugin = Snapshot()->Topology().Plugin();
  const PI::CProperty* const interval = Host::FindProperty(plugin, PI::PROP_POLL_INTERVAL);
  const auto* const range = interval == nullptr ? nullptr : std::get_if<PI::SRange>(&interval->m_Value);
  if (range == nullptr) throw CProblem(500, "plugin-error", "the plug-in tells no poll interval");
  return {{"pollInterval", range->m_Value},
          {"spares", m_Settings.Wanted()},
          {"limits",
           {{"pollInterval", {{"least", range->m_Minimum}, {"most", range->m_Maximum}}},
            {"spares", {{"least", 0}, {"most", SPARES_LIMIT}}}}}};
}

SHttpAnswer CApi::Notify(const SHttpRequest&, const Captured&) const {
  return Answered({{"channels", m_Notifier.List()}});
}

SHttpAnswer CApi::TestNotify(const SHttpRequest& request, const Captured&) const {
  const Json channel = BodyOf(request).value("channel", Json(""));
  if (!channel.is_string()) throw CProblem(422, "usage", "\"channel\" is a channel's name");
  if (request.m_Extend) request.m_Extend(TEST_SILENCE);
  return Answered({{"results", m_Notifier.Test(channel)}});
}

SHttpAnswer CApi::Settings(const SHttpRequest& request, const Captured&) const {
  const Json settings = SettingsJson();
  return Tagged(request, TagOf(settings), [&] { return Whole(settings); });
}

Spares CApi::SparesWith(const Json& changes) const {
  if (!changes.is_object())
    throw CProblem(422, "usage", "\"spares\" is an object: for each array a number, or null for none");
  const auto snapshot = Snapshot();
  Spares spares = m_Settings.Wanted();
  for (const auto& [name, count] : changes.items()) {
    const Json* const array = snapshot->FindArray(name);
    const bool hasUuid = array != nullptr && (*array)["uuid"].is_string();
    const std::string key = hasUuid ? (*array)["uuid"].get<std::string>() : name;
    // One that is not there now may be on its way.
    if (array == nullptr && !spares.contains(key))
      throw CProblem(422, "usage", "there is no array \"" + name + "\"");
    if (!count.is_null() && (!count.is_number_unsigned() || count > SPARES_LIMIT))
      throw CProblem(422, "usage",
                     "the number of spares of " + name + " is one from 0 to " + std::to_string(SPARES_LIMIT));
    if (!count.is_null() && array != nullptr &&
        ((*array)["level"] == "raid0" || (*array)["level"] == "linear"))
      throw CProblem(422, "usage", name + " is of a level that has no use for spares");
    if (count.is_null())
      spares.erase(key);
    else
      spares[key] = count;
  }
  return spares;
}

SHttpAnswer CApi::SetSettings(const SHttpRequest& request, const Captured&) const {
  const std::string& match = request.Header("if-match");
  if (match.empty())
    throw CProblem(428, "precondition-required", "If-Match with the ETag of what is changed is missing");
  const Json body = BodyOf(request);
  const Json interval = body.value("pollInterval", Json());
  if (!interval.is_null() && !interval.is_number_integer())
    throw CProblem(422, "usage", "\"pollInterval\" is a number of seconds");
  if (interval.is_null() && !body.contains("spares"))
    throw CProblem(422, "usage",
                   "neither \"pollInterval\" nor \"spares\" is there: nothing is to be changed");
  m_Keeper.Do([&](Host::CSession& session, const Host::CMachine&) {
    // Between two turns, so that of two who change the same one alone succeeds.
    const auto spares = body.contains("spares") ? std::optional(SparesWith(body["spares"])) : std::nullopt;
    if (!Names(match, TagOf(SettingsJson())))
      throw CProblem(412, "stale", "the settings are other ones by now");
    if (!interval.is_null())
      Host::SetPollInterval(session, static_cast<int>(std::clamp(interval.get<long>(), -1L, 1L << 20)));
    if (spares) m_Settings.Want(*spares);
  });
  m_Keeper.Do([](Host::CSession&, const Host::CMachine&) {});  // behind the look that shows it
  return Settings({}, {});
}

SHttpAnswer CApi::Metrics(const SHttpRequest&, const Captured&) const {
  return {200, std::make_shared<const std::string>(m_Metrics.Text(EProcess::TOLD)),
          "text/plain; version=0.0.4; charset=utf-8"};
}

}  // namespace Rvxd
