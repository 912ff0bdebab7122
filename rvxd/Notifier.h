#pragma once
/// @file
/// Tells people what is wrong, by the channels that the administrator wrote down.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "rvxd/Channels.h"
#include "rvxd/Counters.h"
#include "rvxd/Delivery.h"

namespace Rvxd {

/// Where the notifier finds what it works with.
struct SNotifierPlaces {
  std::string m_Channels;  ///< folder of their files; empty: the journal alone
  std::string m_State;     ///< folder of what is kept
  std::string m_Socket;    ///< where the service manager takes messages; empty: nowhere
  bool m_HasJournal;       ///< else what is for the journal goes to the log
};

/// Each channel is told by itself, one message at a time: one that hangs keeps no other one waiting. What was
/// told is kept over restarts. Functions may be called by any thread.
class CNotifier {
 public:
  /// @param picture asked with each turn; none before the first look
  CNotifier(SNotifierPlaces places, std::function<std::optional<SPicture>()> picture, CCounters& counters);
  ~CNotifier();
  CNotifier(const CNotifier&) = delete;
  CNotifier& operator=(const CNotifier&) = delete;

  void Start();
  /// Ends what is on its way, which will be told again.
  void Stop();

  /// [{"channel", "type", "target", "severity", "state", "text", "delivered"}]
  Json List() const;
  /// Sends a test by one channel, or by all where `channel` is empty, and waits for it: [{"channel",
  /// "delivered", "text"}]. Throws CProblem when there is no such channel.
  Json Test(const std::string& channel);
  /// Channels that cannot be used, or did not deliver.
  std::vector<Host::SProblem> Problems() const;

 private:
  /// What becomes of a channel, kept but for the deliveries.
  struct SState {
    CTold m_Told{};
    std::string m_Failure{};      ///< of the last message that was given up; empty: it works
    Milliseconds m_Delivered{0};  ///< when the last one was; 0: never
    std::optional<SDue> m_Due{};  ///< what is on its way; none with m_Delivery: a heartbeat
    std::unique_ptr<CDelivery> m_Delivery{};
    std::chrono::steady_clock::time_point m_NextBeat{};
    std::chrono::steady_clock::time_point m_Seen{};  ///< its file was there
  };
  struct STest {
    std::string m_Channel;
    std::unique_ptr<CDelivery> m_Delivery{};
    std::optional<SDelivered> m_Result{};
  };

  void Run(const std::stop_token& end);
  void Turn();
  void TellAll(const std::optional<SPicture>& picture);
  void TurnTests();
  /// The channels as they are written now; none where their folder cannot be read.
  std::optional<Channels> Read();
  void Take(std::optional<Channels> channels);
  void Tell(const std::string& name, const SChannel& channel, SState& state, const SPicture& picture);
  void Collect(const std::string& name, SState& state);
  /// Waits for an answer, a test or a second.
  void Wait();
  std::unique_ptr<CDelivery> Deliver(const SChannel& channel, const SDue& due) const;
  void Count(const std::string& channel, bool isDelivered) const;
  void Keep();

  const SNotifierPlaces m_Places;
  const std::string m_Host;
  const std::function<std::optional<SPicture>()> m_Picture;
  CCounters& m_Counters;
  KVT::Internal::CFileDescriptor m_Wake;
  mutable std::mutex m_Mutex;
  std::condition_variable m_News;
  Channels m_Channels;
  std::map<std::string, SState> m_States;  ///< by channel
  std::list<STest> m_Tests;
  std::string m_Kept;
  std::string m_KeepError;
  std::atomic<std::chrono::steady_clock::time_point> m_ReadAt{};
  bool m_Stopped{false};
  std::jthread m_Thread;
};

}  // namespace Rvxd
