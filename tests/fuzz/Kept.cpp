/// What rvxd keeps beside its journal, as a start finds it after somebody or a disk has written into it:
/// every file leads to a state that can be told and worked with, and that is the same after the next start.

#include "rvxd/Alarms.h"
#include "rvxd/Conditions.h"
#include "rvxd/Notifier.h"
#include "rvxd/Settings.h"
#include "tests/fuzz/Documents.h"

using namespace Rvxd;

namespace {

const Json DISKS = Json::parse(R"([
  {"name": "sda", "id": "ata-A", "serial": "A", "model": "M", "path": "1:0:0:0", "state": "in-use"},
  {"name": "sdc", "id": "ata-C", "serial": null, "model": "M", "path": null, "state": "ready"}])");
const Json ARRAYS =
    Json::parse(R"([{"name": "md_d0", "uuid": "1:2", "redundancy": {"missing": 1, "canLose": 0},
  "members": [{"name": "sda", "whole": "ata-A", "state": "active"}, {"name": "sdb", "whole": null, "state": "failed"}]}])");
const Host::SHealth HEALTH{
    Host::EHealth::CRITICAL,
    "1 array degraded",
    {{Host::EHealth::CRITICAL, "array degraded", "md_d0", "1 of 2 members works", "do it"},
     {Host::EHealth::WARNING, "disk wearing out", "sdc", "it is old", ""}},
    {}};

struct SFeed {
  CCounters m_Counters;
  CFeed m_Feed{Folder(), m_Counters};
};
SFeed& Feed() {
  static SFeed feed;
  return feed;
}

/// A file's usual text, spoiled, or any.
void Put(const char* name, const Json& usual, FuzzedDataProvider& data) {
  WriteText(name, data.ConsumeBool() ? Dumped(Spoiled(usual, data)) : data.ConsumeRemainingBytesAsString());
}

const Json CONDITION = [] {
  Json condition = ConditionOf(HEALTH.m_Problems.front(), 1'800'000'000'000);
  condition["disks"] = Json::array({DISKS[0]});
  condition["uuid"] = "1:2";
  return condition;
}();

void KeptConditions(FuzzedDataProvider& data) {
  if (data.ConsumeBool()) Put("members.json", {{"1:2", {DISKS[0], DISKS[1]}}, {"md_d9", {DISKS[1]}}}, data);
  Put("conditions.json", Json::array({CONDITION, CONDITION}), data);
  CConditions conditions(Folder(), Feed().m_Feed);
  for (int look = 0; look < 2; ++look) {
    for (const Json& one : conditions.All()) Require(IsCondition(one), "it is one: " + Dumped(one));
    if (look == 0) conditions.Update(HEALTH, ARRAYS, DISKS);
  }
  Require(conditions.All().size() == HEALTH.m_Problems.size(), "what is wrong now, and nothing else");
  for (const Json& one : conditions.All()) conditions.Acknowledge(one["id"], {});
  Require(CConditions(Folder(), Feed().m_Feed).All() == Json::parse(Dumped(conditions.All())),
          "conditions come back");
}

void KeptOperations(FuzzedDataProvider& data) {
  const Json by = {{"uid", 0}, {"pid", 1}, {"loginuid", nullptr}};
  Json operations = Json::array();
  for (const char* const state : {"done", "running", "queued"})
    operations.push_back({{"id", "op-" + std::to_string(operations.size() + 1)},
                          {"kind", "rescan"},
                          {"title", "t"},
                          {"state", state},
                          {"created", "2026-01-01T00:00:00.000Z"},
                          {"started", nullptr},
                          {"ended", nullptr},
                          {"steps", Json::array()},
                          {"by", by},
                          {"result", nullptr},
                          {"left", nullptr},
                          {"error", nullptr},
                          {"key", state},
                          {"plan", "p-1"}});
  Put("operations.json", {{"last", 3}, {"operations", operations}}, data);
  const std::string key = data.ConsumeRandomLengthString(8);
  std::string id, plan;
  {
    COperations kept(Folder(), Feed().m_Feed, Feed().m_Counters, std::chrono::seconds(900));
    kept.OnQueued([] {});
    for (const Json& one : kept.All()) {
      Require(one["id"].is_string() && one["state"].is_string() && one["steps"].is_array(),
              "it is one: " + Dumped(one));
      Require(one["state"] != "queued" && one["state"] != "running", "nothing runs: " + Dumped(one));
      Require(kept.One(one["id"]) == one, "it is found: " + Dumped(one));
    }
    const Json before = kept.All();
    plan = kept.AddPlan({Host::EChange::RESCAN}, "t", "token").first;
    try {
      id = kept.Begin(plan, key, {});
    } catch (const CProblem& problem) {
      Require(problem.m_Code == 422, problem.what());
      return;
    }
    Require(std::ranges::none_of(before, [&](const Json& one) { return one["id"] == id; }),
            "it is a new one: " + id);
    if (data.ConsumeBool()) kept.Step(kept.Next().value().m_ID, "looked");
  }
  COperations after(Folder(), Feed().m_Feed, Feed().m_Counters, std::chrono::seconds(900));
  Require(after.One(id)["state"] == "interrupted", "it is known after a restart");
  Require(key.empty() || after.Begin(plan, key, {}) == id, "also by its key");
}

void KeptSettings(FuzzedDataProvider& data) {
  Put("settings.json", {{"spares", {{"1:2", 1}, {"md_d1", 0}}}}, data);
  CSettings settings(Folder());
  Spares spares = settings.Wanted();
  for (const auto& [array, count] : spares) Require(count <= SPARES_LIMIT, "as many as may be wanted");
  spares["md_d2"] = 1;
  settings.Want(spares);
  Require(CSettings(Folder()).Wanted() == spares, "settings come back");
}

void KeptAlarms(FuzzedDataProvider& data) {
  const std::string id = IdentityOf(CONDITION);
  const Json told = {{"1:2",
                      {{"told", {{id, CONDITION}}},
                       {"times", {{id, {1'800'000'000'000, 1, "ata-A"}}}},
                       {"last", 1},
                       {"over", 0},
                       {"next", 0},
                       {"tries", 0}}}};
  Put("notify.json",
      {{"journal", {{"told", told}, {"failure", ""}, {"delivered", 1}}}, {"gone", {{"told", told}}}}, data);
  const CNotifier notifier(
      {"", Folder(), "", false}, [] { return std::nullopt; }, Feed().m_Counters);
  Require(notifier.List().size() == 1 && notifier.List()[0]["delivered"].dump().size() < 40,
          "a channel is told of");
  notifier.Problems();
  const Json document = Json::parse(ReadText("notify.json"), nullptr, false);
  const Json journal = document.is_object() ? document.value("journal", Json()) : Json();
  CTold all(journal.is_object() ? journal.value("told", Json()) : Json());
  Milliseconds now = 1'800'000'000'000;
  for (int look = 0; look < 4;
       ++look, now += data.PickValueInArray<Milliseconds>({0, 1000, 3'600'000, 86'400'000})) {
    const Json wrong = look < 2 ? Json::array({CONDITION}) : Json::array();
    for (const SDue& due : all.Due({wrong, {"md_d0", "1:2"}}, {}, now)) {
      Require(!due.m_Conditions.empty() && !due.m_Subject.empty(), "there is something to tell");
      data.ConsumeBool() ? all.Delivered(due, now) : static_cast<void>(all.Failed(due, now));
    }
    const Json kept = Json::parse(Dumped(all.ToJson()));
    Require(CTold(kept).ToJson() == kept, "what was told comes back: " + Dumped(kept));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  FuzzedDataProvider data(bytes, size);
  for (const char* const name : {"members.json", "conditions.json"})
    std::filesystem::remove(Folder() + "/" + name);
  constexpr std::array FILES = {KeptConditions, KeptOperations, KeptSettings, KeptAlarms};
  data.PickValueInArray(FILES)(data);
  return 0;
}
