#include "rvxd/Notifier.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "host/Values.h"
#include "rvxd/Log.h"
#include "rvxd/Message.h"
#include "rvxd/Operations.h"

namespace Rvxd {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int TURN = 1000;  ///< milliseconds
constexpr std::chrono::milliseconds END_LIMIT{500};
constexpr std::chrono::milliseconds END_LOOK{10};
/// The administrator's changes are taken up within this time.
constexpr std::chrono::seconds READ_INTERVAL{5};

std::string HostName() {
  std::array<char, 256> name{};
  ::gethostname(name.data(), name.size() - 1);
  return name.data();
}

}  // namespace

CNotifier::CNotifier(SNotifierPlaces places, std::function<std::optional<Json>()> conditions,
                     CCounters& counters)
    : m_Places(std::move(places)),
      m_Host(HostName()),
      m_Conditions(std::move(conditions)),
      m_Counters(counters),
      m_Wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  const Json kept = ReadDocument(m_Places.m_State + "/notify.json");
  if (kept.is_object())
    for (const auto& [name, one] : kept.items()) {
      if (!one.is_object()) continue;
      SState& state = m_States[name];
      state.m_Told = CTold(one.value("told", Json()));
      if (const Json failure = one.value("failure", Json()); failure.is_string()) state.m_Failure = failure;
      if (const Json time = one.value("delivered", Json()); time.is_number_unsigned())
        state.m_Delivered = time;
    }
  Take(ReadChannels(m_Places.m_Channels));
}

CNotifier::~CNotifier() { Stop(); }

void CNotifier::Start() {
  m_Thread = std::jthread([this](const std::stop_token& end) { Run(end); });
}

void CNotifier::Stop() {
  m_Thread.request_stop();
  ::eventfd_write(m_Wake.Get(), 1);
  if (m_Thread.joinable()) m_Thread.join();
  // What is about to be delivered is not told again after a restart.
  const auto isUnderWay = [](const auto& one) { return one.second.m_Delivery != nullptr; };
  for (const auto end = Clock::now() + END_LIMIT; Clock::now() < end; std::this_thread::sleep_for(END_LOOK)) {
    const std::lock_guard lock(m_Mutex);
    for (auto& [name, state] : m_States) Collect(name, state);
    if (std::ranges::none_of(m_States, isUnderWay)) break;
  }
  Keep();
  const std::lock_guard lock(m_Mutex);
  m_Stopped = true;
  for (auto& [name, state] : m_States) state.m_Delivery.reset();
  m_News.notify_all();
}

void CNotifier::Run(const std::stop_token& end) {
  std::string last;  // a failure that repeats is told once
  while (!end.stop_requested()) {
    try {
      Turn();
      last.clear();
    } catch (const std::exception& error) {
      if (std::exchange(last, error.what()) != error.what())
        Log(3, std::string("alarms are not told: ") + error.what());
    }
    Wait();
  }
}

void CNotifier::Turn() {
  // Asked and read without the lock, as what was told is kept: nobody who asks waits for a disk.
  const std::optional<Json> conditions = m_Conditions();
  std::optional<Channels> channels;
  if (Clock::now() >= m_ReadAt) {
    channels = ReadChannels(m_Places.m_Channels);
    m_ReadAt = Clock::now() + READ_INTERVAL;
  }
  {
    const std::lock_guard lock(m_Mutex);
    if (channels) Take(std::move(*channels));
    TellAll(conditions);
  }
  Keep();
  CDelivery::Reap();
}

void CNotifier::TellAll(const std::optional<Json>& conditions) {
  for (auto& [name, state] : m_States) Collect(name, state);
  for (const auto& [name, channel] : m_Channels)
    if (conditions && channel.m_Refusal.empty()) Tell(name, channel, m_States[name], *conditions);
  for (STest& test : m_Tests) {
    if (test.m_Result) continue;
    const SChannel& channel = m_Channels.at(test.m_Channel);
    if (!channel.m_Refusal.empty())
      test.m_Result = SDelivered{false, channel.m_Refusal};
    else if (test.m_Delivery == nullptr) {
      test.m_Delivery = Deliver(channel, {EPhase::TEST, "rvxd", Json::array(), Host::NowMilliseconds()});
      if (test.m_Delivery == nullptr) test.m_Result = SDelivered{true, "written to the log"};
    } else
      test.m_Result = test.m_Delivery->Result();
    if (!test.m_Result) continue;
    test.m_Delivery.reset();
    if (channel.m_Refusal.empty()) Count(test.m_Channel, test.m_Result->m_IsDelivered);
    if (test.m_Result->m_IsDelivered) m_States[test.m_Channel].m_Failure.clear();
    m_News.notify_all();
  }
}

void CNotifier::Take(Channels channels) {
  m_Channels = std::move(channels);
  std::erase_if(m_States, [&](const auto& one) { return !m_Channels.contains(one.first); });
  for (const auto& [name, channel] : m_Channels) m_States.try_emplace(name);
  for (STest& test : m_Tests)
    if (!m_Channels.contains(test.m_Channel)) m_Channels[test.m_Channel].m_Refusal = "its file has gone";
}

std::unique_ptr<CDelivery> CNotifier::Deliver(const SChannel& channel, const SDue& due) const {
  const Json message = MessageOf(due, m_Host, channel.m_Policy.m_Reminder, Host::NowMilliseconds());
  if (channel.m_Type == "journal" && !m_Places.m_HasJournal) {
    Log(message["level"] == "critical" ? 3 : message["level"] == "warning" ? 4 : 5, message["subject"]);
    return nullptr;
  }
  return std::make_unique<CDelivery>(m_Places.m_Socket,
                                     Json{{"type", channel.m_Type},
                                          {"settings", channel.m_Settings},
                                          {"limit", channel.m_Limit},
                                          {"process", ::getpid()},
                                          {"message", message}},
                                     std::chrono::milliseconds(channel.m_Limit));
}

void CNotifier::Tell(const std::string& name, const SChannel& channel, SState& state,
                     const Json& conditions) {
  if (state.m_Delivery != nullptr) return;
  if (channel.m_Type == "heartbeat") {
    const auto isBlind = [](const Json& one) { return one["kind"] == "watch-blind"; };
    if (Clock::now() < state.m_NextBeat || std::ranges::any_of(conditions, isBlind)) return;
    state.m_NextBeat = Clock::now() + std::chrono::milliseconds(channel.m_Interval);
    state.m_Due.reset();
    state.m_Delivery = Deliver(channel, {EPhase::TEST, "rvxd", Json::array(), Host::NowMilliseconds()});
    return;
  }
  Json others = Json::array();  // that it does not work is for the other channels
  for (const Json& condition : conditions)
    if (condition["id"] != "notify-failing:" + name) others.push_back(condition);
  const Milliseconds now = Host::NowMilliseconds();
  for (SDue& due : state.m_Told.Due(others, channel.m_Policy, now)) {
    state.m_Delivery = Deliver(channel, due);
    if (state.m_Delivery != nullptr) {
      state.m_Due = std::move(due);
      return;
    }
    state.m_Told.Delivered(due, now);
    state.m_Delivered = now;
    Count(name, true);
  }
}

void CNotifier::Collect(const std::string& name, SState& state) {
  const auto result = state.m_Delivery == nullptr ? std::nullopt : state.m_Delivery->Result();
  if (!result) return;
  state.m_Delivery.reset();
  const Milliseconds now = Host::NowMilliseconds();
  Count(name, result->m_IsDelivered);
  if (result->m_IsDelivered) {
    if (state.m_Due) state.m_Told.Delivered(*state.m_Due, now);
    state.m_Delivered = now;
    state.m_Failure.clear();
    return;
  }
  const bool isGivenUp = !state.m_Due || state.m_Told.Failed(*state.m_Due, now);
  if (isGivenUp) state.m_Failure = result->m_Text;
  Log(4, "the channel " + name + " did not deliver: " + result->m_Text);
}

void CNotifier::Count(const std::string& channel, bool isDelivered) const {
  m_Counters.Count("rvx_notifications_total",
                   {{"channel", channel}, {"result", isDelivered ? "delivered" : "failed"}});
}

void CNotifier::Wait() {
  std::vector<pollfd> sources{{m_Wake.Get(), POLLIN, 0}};
  int time = TURN;
  {
    const std::lock_guard lock(m_Mutex);
    const auto add = [&](const std::unique_ptr<CDelivery>& delivery) {
      if (delivery == nullptr) return;
      sources.push_back(delivery->Source());
      if (sources.back().fd < 0) time = 0;
    };
    for (const auto& [name, state] : m_States) add(state.m_Delivery);
    for (const STest& test : m_Tests) add(test.m_Delivery);
  }
  ::poll(sources.data(), sources.size(), time);
  eventfd_t count = 0;
  ::eventfd_read(m_Wake.Get(), &count);
}

void CNotifier::Keep() {
  Json all = Json::object();
  {
    const std::lock_guard lock(m_Mutex);
    for (const auto& [name, state] : m_States)
      all[name] = {
          {"told", state.m_Told.ToJson()}, {"failure", state.m_Failure}, {"delivered", state.m_Delivered}};
  }
  std::string text = all.dump(-1, ' ', false, Json::error_handler_t::replace);
  if (text == m_Kept) return;
  m_Kept = std::move(text);
  try {
    WriteWhole(m_Places.m_State + "/notify.json", m_Kept);
  } catch (const Host::CError& error) {
    Log(4, error.what());
  }
}

Json CNotifier::List() const {
  const std::lock_guard lock(m_Mutex);
  Json list = Json::array();
  for (const auto& [name, channel] : m_Channels) {
    const SState& state = m_States.at(name);
    const bool isRefused = !channel.m_Refusal.empty();
    const bool isFailing = !state.m_Failure.empty();
    list.push_back(
        {{"channel", name},
         {"type", channel.m_Type.empty() ? Json(nullptr) : Json(channel.m_Type)},
         {"target", channel.m_Target.empty() ? Json(nullptr) : Json(channel.m_Target)},
         {"severity",
          channel.m_Type == "heartbeat" ? Json(nullptr) : Json(Host::WordOf(channel.m_Policy.m_Severity))},
         {"state", isRefused   ? "refused"
                   : isFailing ? "failing"
                               : "ok"},
         {"text", isRefused   ? Json(channel.m_Refusal)
                  : isFailing ? Json(state.m_Failure)
                              : Json(nullptr)},
         {"delivered", state.m_Delivered == 0 ? Json(nullptr) : Json(Host::TimeText(state.m_Delivered))}});
  }
  return list;
}

Json CNotifier::Test(const std::string& channel) {
  Channels channels = ReadChannels(m_Places.m_Channels);
  std::unique_lock lock(m_Mutex);
  Take(std::move(channels));
  if (!channel.empty() && !m_Channels.contains(channel))
    throw CProblem(404, "not-found", "there is no channel \"" + channel + "\"");
  std::list<STest*> mine;
  for (const auto& [name, one] : m_Channels)
    if (channel.empty() || name == channel) mine.push_back(&m_Tests.emplace_back(STest{name}));
  ::eventfd_write(m_Wake.Get(), 1);
  m_News.wait(lock, [&] {
    return m_Stopped ||
           std::ranges::all_of(mine, [](const STest* test) { return test->m_Result.has_value(); });
  });
  Json results = Json::array();
  for (const STest* const test : mine)
    if (test->m_Result)
      results.push_back({{"channel", test->m_Channel},
                         {"delivered", test->m_Result->m_IsDelivered},
                         {"text", test->m_Result->m_Text}});
  std::erase_if(m_Tests, [&](const STest& test) { return std::ranges::find(mine, &test) != mine.end(); });
  if (m_Stopped) throw CProblem(503, "stopping", "rvxd is being stopped");
  return results;
}

std::vector<Host::SProblem> CNotifier::Problems() const {
  const std::lock_guard lock(m_Mutex);
  std::vector<Host::SProblem> problems;
  for (const auto& [name, channel] : m_Channels) {
    const std::string& failure = channel.m_Refusal.empty() ? m_States.at(name).m_Failure : channel.m_Refusal;
    if (!failure.empty())
      problems.push_back({Host::EHealth::WARNING, "notify failing", name, failure,
                          "'rvxctl notify test " + name + "' tries it again"});
  }
  return problems;
}

}  // namespace Rvxd
