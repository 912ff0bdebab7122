#include "rvxd/Operations.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <random>

#include "host/Values.h"
#include "rvxd/Document.h"
#include "rvxd/Log.h"

namespace Rvxd {

namespace {

constexpr std::size_t QUEUE_LIMIT = 16;
constexpr std::size_t PLAN_LIMIT = 256;
constexpr std::size_t KEPT = 100;
constexpr std::size_t KEY_LIMIT = 255;
constexpr char ID[] = "op-";
constexpr std::uint64_t NUMBER_LIMIT = std::uint64_t{1} << 53;

std::string NowText() { return Host::TimeText(Host::NowMilliseconds()); }

std::string NewPlanID() {
  std::random_device device;
  std::array<char, 19> text{};
  std::snprintf(text.data(), text.size(), "p-%08x%08x", device(), device());
  return text.data();
}

/// Without what is for rvxd alone.
Json Public(Json operation) {
  operation.erase("key");
  operation.erase("plan");
  return operation;
}

bool IsOver(const Json& operation) {
  return operation["state"] != "queued" && operation["state"] != "running";
}

/// Of one from the file; 0: somebody has written into it.
std::uint64_t NumberOf(const Json& operation) {
  using Type = Json::value_t;
  constexpr std::pair<const char*, Type> FIELDS[] = {
      {"id", Type::string},    {"kind", Type::string},    {"title", Type::string},
      {"state", Type::string}, {"created", Type::string}, {"steps", Type::array},
      {"by", Type::object},    {"key", Type::string},     {"plan", Type::string}};
  constexpr const char* STATES[] = {"queued", "running", "done", "failed", "interrupted"};
  const auto is = [&](const auto& field) {
    return operation.contains(field.first) && operation[field.first].type() == field.second;
  };
  const auto has = [&](const char* field) { return operation.contains(field); };
  if (!operation.is_object() || !std::ranges::all_of(FIELDS, is) ||
      !std::ranges::all_of(std::array{"started", "ended", "result", "left", "error"}, has) ||
      std::ranges::find(STATES, operation["state"].get<std::string>()) == std::end(STATES))
    return 0;
  const std::string id = operation["id"];
  std::uint64_t number = 0;
  const char* const end = id.data() + id.size();
  if (!id.starts_with(ID) || std::from_chars(id.data() + sizeof ID - 1, end, number).ptr != end) return 0;
  return number <= NUMBER_LIMIT ? number : 0;
}

constexpr char INTERRUPTED[] =
    "rvxd ended in the middle of it: what was done is not known. 'rvxctl status' and 'cat /proc/mdstat' show "
    "which arrays there are, 'rvxctl disk list' which disks are free; an array that does not run holds its "
    "disks until 'mdadm --stop'";
constexpr char NOT_BEGUN[] = "rvxd ended before it began: nothing was done";

}  // namespace

Json SPeer::ToJson() const {
  return {{"uid", m_User}, {"pid", m_Process}, {"loginuid", m_Login ? Json(*m_Login) : Json(nullptr)}};
}

COperations::COperations(const std::string& folder, CFeed& feed, CCounters& counters,
                         std::chrono::seconds planTime)
    : m_File(folder + "/operations.json"), m_Feed(feed), m_Counters(counters), m_PlanTime(planTime) {
  const Json kept = ReadDocument(m_File);
  if (!kept.is_object()) return;
  if (const Json last = kept.value("last", Json()); last.is_number_unsigned() && last <= NUMBER_LIMIT)
    m_Last = last;
  for (Json operation : kept.value("operations", Json())) {
    const std::uint64_t number = NumberOf(operation);
    if (number == 0 ||
        std::ranges::any_of(m_Operations, [&](const Json& one) { return one["id"] == operation["id"]; }))
      continue;
    m_Last = std::max(m_Last, number);
    if (!IsOver(operation)) {
      const char* const why = operation["state"] == "running" ? INTERRUPTED : NOT_BEGUN;
      operation["state"] = "interrupted";
      operation["ended"] = NowText();
      Count(operation);
      operation["error"] = CProblem(500, "interrupted", why).ToJson();
      Log(3, operation["id"].get<std::string>() + " (" + operation["title"].get<std::string>() + "): " + why);
    }
    m_Operations.push_back(std::move(operation));
  }
  try {
    Keep();
  } catch (const CProblem& problem) {  // a full disk is no reason not to watch
    Log(3, problem.what());
  }
}

std::pair<std::string, std::string> COperations::AddPlan(const Host::SRequest& request,
                                                         const std::string& title, const std::string& token) {
  const std::lock_guard lock(m_Mutex);
  const std::string id = NewPlanID();
  m_Plans[id] = {request, title, token, std::chrono::steady_clock::now() + m_PlanTime};
  m_PlanOrder.push_back(id);
  if (m_PlanOrder.size() > PLAN_LIMIT) {
    m_Plans.erase(m_PlanOrder.front());
    m_PlanOrder.pop_front();
  }
  return {id,
          Host::TimeText(Host::NowMilliseconds() + static_cast<std::uint64_t>(m_PlanTime.count()) * 1000)};
}

std::string COperations::Begin(const std::string& planID, const std::string& key, const SPeer& peer) {
  // What is written down as it came is known again after a restart.
  if (key.size() > KEY_LIMIT || std::ranges::any_of(key, [](unsigned char c) { return c < ' ' || c > '~'; }))
    throw CProblem(422, "usage", "an Idempotency-Key has 255 characters of ASCII at most");
  std::string id;
  {
    const std::lock_guard lock(m_Mutex);
    if (m_Stopped) throw CProblem(503, "stopping", "rvxd is being stopped");
    if (!key.empty())
      for (const Json& operation : m_Operations) {
        if (operation.value("key", "") != key) continue;
        if (operation.value("plan", "") == planID) return operation["id"];
        throw CProblem(422, "usage", "this Idempotency-Key was used for another plan");
      }
    const auto found = m_Plans.find(planID);
    if (found == m_Plans.end() || std::chrono::steady_clock::now() >= found->second.m_Expires)
      throw CProblem(404, "not-found",
                     "there is no plan \"" + planID + "\", or it has expired: make another");
    SPlan& plan = found->second;
    if (!plan.m_Operation.empty())
      throw CProblem(409, "conflict", "the plan is carried out by " + plan.m_Operation + " already");
    if (m_Queue.size() >= QUEUE_LIMIT)
      throw CProblem(429, "queue-full",
                     std::to_string(QUEUE_LIMIT) + " operations wait already; nothing was done");
    id = ID + std::to_string(++m_Last);
    plan.m_Operation = id;
    m_Operations.push_back({{"id", id},
                            {"kind", Host::WordOf(plan.m_Request.m_Kind)},
                            {"title", plan.m_Title},
                            {"state", "queued"},
                            {"created", NowText()},
                            {"started", nullptr},
                            {"ended", nullptr},
                            {"steps", Json::array()},
                            {"by", peer.ToJson()},
                            {"result", nullptr},
                            {"left", nullptr},
                            {"error", nullptr},
                            {"key", key},
                            {"plan", planID}});
    while (m_Operations.size() > KEPT && IsOver(m_Operations.front())) m_Operations.pop_front();
    try {
      Keep();
    } catch (const CProblem&) {  // what is not kept is not done
      m_Operations.pop_back();
      plan.m_Operation.clear();
      throw;
    }
    m_Queue.push_back({id, plan.m_Request, plan.m_Token});
    Tell(m_Operations.back());
  }
  m_Wake();
  return id;
}

void COperations::Withdraw(const std::string& id) {
  const std::lock_guard lock(m_Mutex);
  Json& operation = Find(id);
  const auto queued = std::ranges::find(m_Queue, id, &STask::m_ID);
  if (queued == m_Queue.end())
    throw CProblem(
        409, "conflict",
        id + " is " + operation["state"].get<std::string>() + ": only what waits can be withdrawn");
  m_Queue.erase(queued);
  operation["error"] =
      CProblem(409, "withdrawn", "it was withdrawn before it began: nothing was done").ToJson();
  Finish(operation, "failed");
}

Json& COperations::Find(const std::string& id) {
  const auto found = std::ranges::find_if(m_Operations, [&](const Json& one) { return one["id"] == id; });
  if (found == m_Operations.end()) throw CProblem(404, "not-found", "there is no operation \"" + id + "\"");
  return *found;
}
const Json& COperations::Find(const std::string& id) const {
  return const_cast<COperations*>(this)->Find(id);
}

Json COperations::All() const {
  const std::lock_guard lock(m_Mutex);
  Json all = Json::array();
  for (const Json& operation : m_Operations) all.push_back(Public(operation));
  return all;
}

Json COperations::One(const std::string& id) const {
  const std::lock_guard lock(m_Mutex);
  return Public(Find(id));
}

Json COperations::Await(const std::string& id, std::chrono::milliseconds limit, bool isBegin) const {
  std::unique_lock lock(m_Mutex);
  Find(id);
  m_News.wait_for(lock, limit, [&] {
    const Json& operation = Find(id);
    return m_Stopped || (isBegin ? operation["state"] != "queued" : IsOver(operation));
  });
  return Public(Find(id));
}

Json COperations::AwaitBegin(const std::string& id, std::chrono::milliseconds limit) const {
  return Await(id, limit, true);
}
Json COperations::AwaitEnd(const std::string& id, std::chrono::milliseconds limit) const {
  return Await(id, limit, false);
}

std::optional<STask> COperations::Next() {
  const std::lock_guard lock(m_Mutex);
  if (m_Queue.empty() || m_Stopped) return std::nullopt;
  STask task = std::move(m_Queue.front());
  m_Queue.pop_front();
  return task;
}

void COperations::Step(const std::string& id, const std::string& text) {
  const std::lock_guard lock(m_Mutex);
  Json& operation = Find(id);
  const Json before = operation;
  operation["steps"].push_back({{"text", text}, {"time", NowText()}});
  if (operation["state"] == "queued") {
    operation["state"] = "running";
    operation["started"] = NowText();
  }
  try {
    Keep();
  } catch (const CProblem&) {  // it is not begun either
    operation = before;
    throw;
  }
  Tell(operation);
}

void COperations::Finish(Json& operation, const char* state) {
  operation["state"] = state;
  operation["ended"] = NowText();
  Count(operation);
  try {
    Keep();
  } catch (const CProblem& problem) {
    Log(3, std::string(problem.what()) + "; after a restart " + operation["id"].get<std::string>() +
               " is \"interrupted\"");
  }
  Tell(operation);
}

void COperations::End(const std::string& id, const Host::SOutcome& outcome) {
  const std::lock_guard lock(m_Mutex);
  Json& operation = Find(id);
  if (!outcome.m_Data.is_null()) {
    operation["result"] = {{"text", outcome.m_Text}, {"data", outcome.m_Data}};
    if (outcome.m_Data.contains("left")) operation["left"] = outcome.m_Data["left"];
  }
  if (outcome.m_Failure) operation["error"] = CProblem(*outcome.m_Failure).ToJson();
  Finish(operation, outcome.m_Failure ? "failed" : "done");
}

void COperations::Fail(const std::string& id, const CProblem& problem) {
  const std::lock_guard lock(m_Mutex);
  Json& operation = Find(id);
  operation["error"] = problem.ToJson();
  Finish(operation, "failed");
}

void COperations::Keep() const {
  Json all = {{"last", m_Last}, {"operations", Json::array()}};
  for (const Json& one : m_Operations) all["operations"].push_back(one);
  try {
    WriteWhole(m_File, all.dump(-1, ' ', false, Json::error_handler_t::replace));
  } catch (const Host::CError& error) {
    throw CProblem(error);
  }
}

void COperations::Count(const Json& operation) {
  m_Counters.Count("rvx_operations_total", {{"kind", operation["kind"]}, {"result", operation["state"]}});
}

void COperations::Tell(const Json& operation) {
  m_Waiting = static_cast<std::size_t>(
      std::ranges::count_if(m_Operations, [](const Json& one) { return one["state"] == "queued"; }));
  m_Feed.Notify("operation", Public(operation));
  m_News.notify_all();
}

void COperations::Stop() {
  {
    const std::lock_guard lock(m_Mutex);
    m_Stopped = true;
  }
  m_News.notify_all();
}

}  // namespace Rvxd
