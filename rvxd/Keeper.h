#pragma once
/// @file
/// The one thread that talks to the plug-in: it keeps the last look, tells events, makes plans and carries
/// out operations.

#include <chrono>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <mutex>
#include <random>
#include <thread>

#include "host/Options.h"
#include "rvxd/Conditions.h"
#include "rvxd/Feed.h"
#include "rvxd/Operations.h"
#include "rvxd/Progress.h"
#include "rvxd/Snapshot.h"

namespace Rvxd {

/// What the plug-in's thread does: it is about to change the machine, for which the kernel may take its time.
enum class ETurn { STARTING, WATCHING, CHANGING };

class CKeeper {
 public:
  CKeeper(const Host::SOptions& options, CFeed& feed, COperations& operations, CConditions& conditions,
          CSettings& settings, CCounters& counters);
  ~CKeeper();
  CKeeper(const CKeeper&) = delete;
  CKeeper& operator=(const CKeeper&) = delete;

  /// Loads the plug-in and lets its threads run. Throws Host::CError when it cannot be had.
  void Start();
  /// Ends the thread behind the operation that is under way.
  void Stop();
  /// De-initialises the plug-in, and waits for it: false when that takes longer than `limit`. Its poller
  /// looks up from md every three seconds alone, and whoever stops a service waits for less. Throws
  /// Host::CError when a simulated machine cannot be saved.
  bool End(std::chrono::milliseconds limit);
  /// Called by the plug-in's thread with each turn, and where it begins something that may take long.
  void OnTurn(std::function<void(ETurn)> tell) { m_OnTurn = std::move(tell); }

  /// Asked by the plug-in's thread with each turn: what others have found wrong with the watching.
  void OnLook(std::function<std::vector<Host::SProblem>()> ask) { m_OnLook = std::move(ask); }

  /// For any thread. Null before the first pass.
  std::shared_ptr<const CSnapshot> Now() const;
  SPass Pass() const;
  /// All that is wrong now, also that nobody looks: the plug-in's thread, which would say so, may hang
  /// itself.
  Json Conditions() const;
  /// Has the plug-in's thread do something between two turns, and waits. Throws CProblem when it does not
  /// come to it, and what the work throws.
  void Do(const std::function<void(Host::CSession&, const Host::CMachine&)>& work);

 private:
  using Work = std::shared_ptr<std::packaged_task<void(Host::CSession&, const Host::CMachine&)>>;

  void Run(const std::stop_token& end);
  void Turn();
  /// Waits for work, md's change or the time.
  void Wait();
  void TellEvents();
  /// What is wrong with the watching.
  std::vector<Host::SProblem> OwnProblems(const SPass& pass);
  /// Looks, where anything has changed since the last look.
  void Look();
  /// Tells the streams that there is a new state, at most twice a second.
  void TellState();
  void DoWork();
  void CarryOut(const STask& task);
  /// Whether no array came or went and no disk of the change is another one since the look: asked last of
  /// all.
  bool HoldsStill(const Host::SLook& look);
  /// Has the plug-in look at the machine, and waits until it has.
  void AwaitPass();

  const Host::SOptions m_Options;
  CFeed& m_Feed;
  COperations& m_Operations;
  CConditions& m_Conditions;
  CSettings& m_Settings;
  CCounters& m_Counters;
  std::function<void(ETurn)> m_OnTurn{[](ETurn) {}};
  std::function<std::vector<Host::SProblem>()> m_OnLook{[] { return std::vector<Host::SProblem>(); }};
  std::unique_ptr<Host::CSession> m_Session;
  std::unique_ptr<OS::COperatingSystem> m_Here;
  std::unique_ptr<const Host::CMachine> m_Machine;
  /// Tells this process's revisions from those of another, which count from 1 too.
  const std::string m_Instance{std::to_string(std::random_device()())};
  KVT::Internal::CFileDescriptor m_Wake;
  KVT::Internal::CFileDescriptor m_Md;
  int m_Soon{0};                   ///< turns that follow a change of md closely
  std::list<PI::CEvent> m_Events;  ///< fetched and not yet told
  std::string m_Seen;              ///< what the last look was made of
  CProgress m_Progress;
  unsigned long m_Counter{0};    ///< of the plug-in's passes
  unsigned int m_OwnRescans{0};  ///< whose events tell nobody anything
  unsigned long m_ToldRevision{0};
  std::chrono::steady_clock::time_point m_ToldAt;
  mutable std::mutex m_Mutex;
  std::shared_ptr<const CSnapshot> m_Now;
  SPass m_Pass;
  std::list<Work> m_Work;
  bool m_Stopped{false};
  std::jthread m_Thread;
  std::future<void> m_End;
};

}  // namespace Rvxd
