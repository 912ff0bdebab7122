#include "rvxd/Notifier.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "host/Values.h"
#include "rvxd/Document.h"
#include "rvxd/Log.h"
#include "rvxd/Message.h"
#include "rvxd/Operations.h"

namespace Rvxd {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int POLL_LIMIT = 1000;  ///< milliseconds
constexpr std::chrono::milliseconds END_LIMIT{500};
constexpr std::chrono::milliseconds END_LOOK{10};
/// The administrator's changes are taken up within this time.
constexpr std::chrono::seconds READ_INTERVAL{5};
constexpr std::chrono::hours FORGET_LIMIT{24};

std::string HostName() {
  std::array<char, 256> name{};
  ::gethostname(name.data(), name.size() - 1);
  return name.data();
}

}  // namespace

CNotifier::CNotifier(SNotifierPlaces places, std::function<std::optional<SPicture>()> picture,
                     CCounters& counters)
    : m_Places(std::move(places)),
      m_Host(HostName()),
      m_Picture(std::move(picture)),
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
  Take(Read());
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
  const std::optional<SPicture> picture = m_Picture();
  std::optional<Channels> channels;
  const bool isTime = Clock::now() >= m_ReadAt.load();
  if (isTime) channels = Read();
  {
    const std::lock_guard lock(m_Mutex);
    if (isTime) Take(std::move(channels));
    TellAll(picture);
    TurnTests();
    CDelivery::Reap();  // a test may end a delivery, too
  }
  Keep();
}

void CNotifier::TellAll(const std::optional<SPicture>& picture) {
  for (auto& [name, state] : m_States) {
    try {
      Collect(name, state);
      const auto channel = m_Channels.find(name);
      if (picture && channel != m_Channels.end() && channel->second.m_Refusal.empty())
        Tell(name, channel->second, state, *picture);
    } catch (const std::exception& error) {  // the others are told all the same
      if (std::exchange(state.m_Failure, error.what()) != error.what())
        Log(3, "the channel " + name + " is not told: " + error.what());
    }
  }
}

void CNotifier::TurnTests() {
  for (STest& test : m_Tests) {
    if (test.m_Result) continue;
    const auto channel = m_Channels.find(test.m_Channel);
    if (channel == m_Channels.end())
      test.m_Result = SDelivered{false, "its file has gone"};
    else if (!channel->second.m_Refusal.empty())
      test.m_Result = SDelivered{false, channel->second.m_Refusal};
    else if (test.m_Delivery == nullptr) {
      test.m_Delivery =
          Deliver(channel->second, {EPhase::TEST, "rvxd", Json::array(), Host::NowMilliseconds()});
      if (test.m_Delivery == nullptr) test.m_Result = SDelivered{true, "written to the log"};
    } else if ((test.m_Result = test.m_Delivery->Result())) {
      Count(test.m_Channel, test.m_Result->m_IsDelivered);
      if (test.m_Result->m_IsDelivered) m_States[test.m_Channel].m_Failure.clear();
    }
    if (!test.m_Result) continue;
    test.m_Delivery.reset();
    m_News.notify_all();
  }
}

std::optional<Channels> CNotifier::Read() {
  m_ReadAt = Clock::now() + READ_INTERVAL;
  try {
    return ReadChannels(m_Places.m_Channels);
  } catch (const std::exception& error) {
    Log(4, std::string("the channels cannot be read, and stay as they were: ") + error.what());
    return std::nullopt;
  }
}

void CNotifier::Take(std::optional<Channels> channels) {
  if (channels) {
    for (const auto& [name, channel] : *channels)
      if (const auto old = m_Channels.find(name);
          !channel.m_Refusal.empty() &&
          (old == m_Channels.end() || old->second.m_Refusal != channel.m_Refusal))
        Log(4, "the channel " + name + " is refused: " + channel.m_Refusal);
    m_Channels = std::move(*channels);
  }
  const auto now = Clock::now();
  for (auto& [name, state] : m_States)
    if (state.m_Seen == Clock::time_point()) state.m_Seen = now;  // from an earlier run
  for (const auto& [name, channel] : m_Channels) m_States[name].m_Seen = now;
  // A file may be away for a moment, while it is written.
  std::erase_if(m_States, [&](const auto& one) { return now > one.second.m_Seen + FORGET_LIMIT; });
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
                     const SPicture& picture) {
  if (state.m_Delivery != nullptr) return;
  if (channel.m_Type == "heartbeat") {
    const auto isBlind = [](const Json& one) { return one["kind"] == "watch-blind"; };
    if (Clock::now() < state.m_NextBeat || std::ranges::any_of(picture.m_Conditions, isBlind)) return;
    state.m_NextBeat = Clock::now() + std::chrono::milliseconds(channel.m_Interval);
    state.m_Due.reset();
    state.m_Delivery = Deliver(channel, {EPhase::TEST, "rvxd", Json::array(), Host::NowMilliseconds()});
    return;
  }
  // That it does not work is for the other channels.
  SPicture others{Json::array(), picture.m_Arrays, picture.m_IsSeen};
  for (const Json& condition : picture.m_Conditions)
    if (condition["id"] != "notify-failing:" + name) others.m_Conditions.push_back(condition);
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
  if (state.m_Due) Count(name, result->m_IsDelivered);  // a beat tells nobody anything
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
  int time = POLL_LIMIT;
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
  try {
    WriteWhole(m_Places.m_State + "/notify.json", text);
    m_Kept = std::move(text);
    m_KeepError.clear();
  } catch (const Host::CError& error) {  // tried again with the next turn
    if (std::exchange(m_KeepError, error.what()) != error.what()) Log(4, m_KeepError);
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
  std::optional<Channels> channels = Read();
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
      results.push_back(
          {{"channel", test->m_Channel},
           {"delivered", test->m_Result->m_IsDelivered},
           {"text",
            test->m_Result->m_Text + (test->m_Result->m_Said.empty() ? "" : ": " + test->m_Result->m_Said)}});
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
