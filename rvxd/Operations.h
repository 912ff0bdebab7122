#pragma once
/// @file
/// What clients ask for: plans, and the operations that carry them out one at a time.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "host/Outcome.h"
#include "rvxd/Feed.h"
#include "rvxd/Problem.h"

namespace Rvxd {

/// Who asks: for the record, never for the decision.
struct SPeer {
  unsigned int m_User{0};
  int m_Process{0};
  std::optional<unsigned int> m_Login{};  ///< the person who logged in, whoever the process is by now

  Json ToJson() const;
};

/// What is to be done, as the plug-in's thread takes it up.
struct STask {
  std::string m_ID;  ///< the operation's
  Host::SRequest m_Request;
  std::string m_Token;  ///< that the second look must show
};

/// Kept over restarts: an operation that ran when rvxd was killed is "interrupted" then. All functions may be
/// called by any thread; they throw CProblem.
class COperations {
 public:
  /// `planTime` is how long a plan may be carried out.
  COperations(const std::string& folder, CFeed& feed, CCounters& counters, std::chrono::seconds planTime);

  /// The new plan's identifier and when it expires.
  std::pair<std::string, std::string> AddPlan(const Host::SRequest& request, const std::string& title,
                                              const std::string& token);
  /// Queues what a plan says; its identifier. The same key gives the same operation again.
  std::string Begin(const std::string& plan, const std::string& key, const SPeer& peer);
  void Withdraw(const std::string& id);
  Json All() const;
  /// How many are queued. It waits for no disk, as all that takes the lock does while they are kept.
  std::size_t Waiting() const { return m_Waiting; }
  Json One(const std::string& id) const;
  /// The same when it is not queued (or: has ended), or the time is over.
  Json AwaitBegin(const std::string& id, std::chrono::milliseconds limit) const;
  Json AwaitEnd(const std::string& id, std::chrono::milliseconds limit) const;

  /// For the plug-in's thread: what comes next; none when the queue is empty.
  std::optional<STask> Next();
  /// A step of what was taken up: "looked again". The first one makes it run.
  void Step(const std::string& id, const std::string& text);
  void End(const std::string& id, const Host::SOutcome& outcome);
  void Fail(const std::string& id, const CProblem& problem);
  /// Called when there is something in the queue.
  void OnQueued(std::function<void()> wake) { m_Wake = std::move(wake); }
  void Stop();

 private:
  struct SPlan {
    Host::SRequest m_Request;
    std::string m_Title;
    std::string m_Token;
    std::chrono::steady_clock::time_point m_Expires;
    std::string m_Operation{};  ///< that carries it out; empty: none does
  };

  Json& Find(const std::string& id);
  const Json& Find(const std::string& id) const;
  Json Await(const std::string& id, std::chrono::milliseconds limit, bool isBegin) const;
  /// Throws CProblem when they cannot be kept.
  void Keep() const;
  void Tell(const Json& operation);
  /// It has ended.
  void Count(const Json& operation);
  /// It has ended, also where that cannot be kept.
  void Finish(Json& operation, const char* state);

  const std::string m_File;
  CFeed& m_Feed;
  CCounters& m_Counters;
  const std::chrono::seconds m_PlanTime;
  std::function<void()> m_Wake;
  mutable std::mutex m_Mutex;
  mutable std::condition_variable m_News;
  std::map<std::string, SPlan> m_Plans;
  std::list<std::string> m_PlanOrder;  ///< the oldest first
  std::list<STask> m_Queue;
  std::atomic<std::size_t> m_Waiting{0};
  std::list<Json> m_Operations;  ///< the oldest first; "key" and "plan" are for rvxd alone
  std::uint64_t m_Last{0};
  bool m_Stopped{false};
};

}  // namespace Rvxd
