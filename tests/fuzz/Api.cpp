/// What rvxd's API answers to any request, on a simulated machine that lives as long as the program. Whatever
/// is asked for is answered by a code that is meant, in JSON or a problem that tells its own code; the
/// sockets for reading and for metrics change nothing; a plan that is carried out twice under one key is one
/// operation.

#include "rvxd/Api.h"

#include <algorithm>
#include <thread>

#include "tests/fuzz/Documents.h"

using namespace Rvxd;

namespace {

using Clock = std::chrono::steady_clock;

constexpr char MACHINE[] = R"({"sync_speed": 200000,
  "controllers": [{"name": "sas", "pci": "0000:03:00.0", "vendor": "0x1000", "driver": "mpt2sas"}],
  "disks": [{"name": "sda", "controller": "sas", "size": 20480}, {"name": "sdb", "controller": "sas", "size": 20480},
            {"name": "sdc", "controller": "sas", "size": 20480}, {"name": "sdd", "controller": "sas", "size": 20480},
            {"name": "sde", "controller": "sas", "size": 20480}],
  "arrays": [{"name": "md_d0", "level": "raid1", "members": ["sda", "sdb"]}, {"name": "md_d1", "level": "raid1", "members": ["sdc", null]}]})";
constexpr std::chrono::seconds START_LIMIT{60}, CHANGE_PAUSE{2};

Host::SOptions Options() {
  WriteText("machine.json", MACHINE);
  ::setenv("ZQ_CONFIG_DIR", Folder().c_str(), 1);
  Host::SOptions options;
  options.m_Simulate = true;
  options.m_Machine = Folder() + "/machine.json";
  options.m_Plugin = RVX_SIMULATED_PLUGIN;
  return options;
}

struct SDaemon {
  CCounters m_Counters;
  CFeed m_Feed{Folder(), m_Counters};
  COperations m_Operations{Folder(), m_Feed, m_Counters, std::chrono::seconds(900)};
  CConditions m_Conditions{Folder(), m_Feed};
  CSettings m_Settings{Folder()};
  CKeeper m_Keeper{Options(), m_Feed, m_Operations, m_Conditions, m_Settings, m_Counters};
  CNotifier m_Notifier{{"", Folder(), "", false}, [] { return std::nullopt; }, m_Counters};
  CMetrics m_Metrics{m_Keeper, m_Feed, m_Operations, m_Counters};
  CApi m_Api{m_Keeper,   m_Feed,    m_Operations, m_Conditions, m_Settings,
             m_Notifier, m_Metrics, m_Counters,   true};
};

SDaemon& Daemon() {
  static SDaemon* const daemon = [] {
    auto* const one = new SDaemon;
    one->m_Keeper.Start();
    one->m_Notifier.Start();
    for (const auto end = Clock::now() + START_LIMIT; one->m_Keeper.Now() == nullptr && Clock::now() < end;)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    Require(one->m_Keeper.Now() != nullptr, "it has looked");
    std::atexit([] {
      Daemon().m_Operations.Stop();
      Daemon().m_Feed.Stop();
      Daemon().m_Notifier.Stop();
      Daemon().m_Keeper.Stop();
      Daemon().m_Keeper.End(START_LIMIT);
    });
    return one;
  }();
  return *daemon;
}

/// A document that may have been meant for the route.
Json BodyOf(FuzzedDataProvider& data, const std::string& plan) {
  const Json disks = Json::array({data.PickValueInArray({"sda", "sdd", "sde"}), "sde"});
  const std::string array = data.PickValueInArray({"md_d0", "md_d1", "md_d2"});
  const Json bodies[] = {
      {{"kind", "array.create"},
       {"level", data.PickValueInArray({"raid1", "raid0", "linear", "raid5"})},
       {"disks", disks},
       {"stripe", data.ConsumeBool() ? Json(65536) : Json(nullptr)}},
      {{"kind", "array.delete"}, {"array", array}},
      {{"kind", data.PickValueInArray({"spare.add", "spare.release"})}, {"disk", disks[0]}, {"array", array}},
      {{"kind", data.PickValueInArray({"rebuild.start", "rebuild.cancel"})}, {"array", array}},
      {{"kind", "rescan"}},
      {{"plan", plan}, {"confirm", true}},
      {{"pollInterval", 5}, {"spares", {{array, 1}}}},
      {{"channel", "journal"}}};
  return data.PickValueInArray(bodies);
}

SHttpRequest RequestOf(FuzzedDataProvider& data, const std::string& plan) {
  const std::string names[] = {
      "sda", "md_d0", "op-1", "status", "array", "array-degraded:md_d1", data.ConsumeRandomLengthString(12)};
  const std::string name = data.PickValueInArray(names);
  const std::string paths[] = {"/",
                               "/metrics",
                               "/v1/state",
                               "/v1/health",
                               "/v1/arrays",
                               "/v1/arrays/" + name,
                               "/v1/disks",
                               "/v1/disks/" + name,
                               "/v1/controllers",
                               "/v1/levels",
                               "/v1/views/" + name,
                               "/v1/events",
                               "/v1/conditions",
                               "/v1/conditions/" + name + "/acknowledge",
                               "/v1/plans",
                               "/v1/operations",
                               "/v1/operations/" + name,
                               "/v1/notify",
                               "/v1/notify/test",
                               "/v1/settings",
                               "/" + name};
  SHttpRequest request{data.PickValueInArray({"GET", "POST", "PUT", "DELETE", "X"}),
                       data.PickValueInArray(paths)};
  for (int count = data.ConsumeIntegralInRange(0, 3); count > 0; --count)
    request.m_Query[data.PickValueInArray(
        {"limit", "severity", "since", "object", "width", "form", "color", "all", "wide", "disk"})] =
        data.ConsumeBool() ? "1" : data.ConsumeRandomLengthString(20);
  request.m_Query["wait"] = data.PickValueInArray({"", "0", "61", "x"});
  for (int count = data.ConsumeIntegralInRange(0, 2); count > 0; --count)
    request.m_Headers[data.PickValueInArray(
        {"if-match", "if-none-match", "last-event-id", "idempotency-key", "accept"})] =
        data.ConsumeBool() ? data.PickValueInArray({"*", "now", "text/event-stream", "text/plain", "k"})
                           : data.ConsumeRandomLengthString(20);
  request.m_Access = data.PickValueInArray({EAccess::ALL, EAccess::ALL, EAccess::READING, EAccess::METRICS});
  if (request.m_Method != "GET")
    request.m_Body =
        data.ConsumeBool() ? Dumped(Spoiled(BodyOf(data, plan), data)) : data.ConsumeRandomLengthString(200);
  return request;
}

void RequireAnswer(const SHttpRequest& request, const SHttpAnswer& answer) {
  const std::string what =
      request.m_Method + " " + request.m_Path + ": " + std::to_string(answer.m_Code) + " ";
  const std::string body = answer.m_Body == nullptr ? "" : *answer.m_Body;
  const auto is = [&](std::initializer_list<unsigned int> codes) {
    return std::ranges::find(codes, answer.m_Code) != codes.end();
  };
  Require(is({200, 202, 204, 304, 400, 403, 404, 405, 409, 412, 422, 428, 429, 503}), what + body);
  Require(request.m_Access == EAccess::ALL || request.m_Method == "GET" || is({403, 404, 405}),
          what + "by a socket for reading");
  Require(request.m_Access != EAccess::METRICS || request.m_Path == "/metrics" || is({404}),
          what + "by the socket for metrics");
  const bool hasAllow =
      std::ranges::any_of(answer.m_Headers, [](const auto& one) { return one.first == "Allow"; });
  Require(is({405}) == hasAllow, what + "what is allowed is told, where something is");
  if (answer.m_Stream) {
    auto next = answer.m_Stream;
    const auto last = request.m_Headers.find("last-event-id");
    Require(next() == ": beat\n\n", what + "a stream begins at once");
    if (last != request.m_Headers.end() && !last->second.empty() && last->second != "now" &&
        !ParseEventID(last->second))
      Require(next().starts_with("event: reset\nid: "), what + "who knows nothing is told so");
    return;
  }
  if (is({204, 304})) return Require(body.empty(), what + "has no body");
  if (answer.m_Type.starts_with("text/plain")) return;
  const Json document = Json::parse(body, nullptr, false);
  Require(document.is_object(), what + "is a document: " + body);
  const bool isProblem = answer.m_Code >= 400;
  Require(isProblem == (answer.m_Type == "application/problem+json"), what + answer.m_Type);
  if (!isProblem) return;
  Require(document["status"] == answer.m_Code && document["type"].is_string() &&
              !document["detail"].get<std::string>().empty() && document["reasons"].is_array() &&
              document["exitStatus"].is_number(),
          what + body);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static Clock::time_point changed;
  FuzzedDataProvider data(bytes, size);
  std::string plan = "p-0";
  for (int requests = 0; requests < 4 && data.remaining_bytes() != 0; ++requests) {
    SHttpRequest request = RequestOf(data, plan);
    const bool isChange = request.m_Path == "/v1/operations" && request.m_Method == "POST";
    // A change takes its time: most inputs go without.
    if (isChange && Clock::now() < changed + CHANGE_PAUSE) continue;
    const SHttpAnswer answer = Daemon().m_Api.Answer(request);
    RequireAnswer(request, answer);
    if (answer.m_Code != 200 && answer.m_Code != 202) continue;
    if (request.m_Path == "/v1/plans")
      if (const Json made = Json::parse(*answer.m_Body)["plan"]; made.is_string()) plan = made;
    if (!isChange) continue;
    changed = Clock::now();
    if (request.Header("idempotency-key").empty()) continue;
    const SHttpAnswer again = Daemon().m_Api.Answer(request);
    Require(again.m_Code == 202 && Json::parse(*again.m_Body)["id"] == Json::parse(*answer.m_Body)["id"],
            "one key, one operation: " + *again.m_Body);
  }
  return 0;
}
