#include "rvxd/Keeper.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "host/Values.h"
#include "rvxd/Log.h"
#include "system/Descriptor.h"
#include "system/Linux.h"

namespace Rvxd {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds TURN{1000};
/// After md said that it changed: long enough for the worker to be first at the model, where a question that
/// is before it makes it skip its pass.
constexpr std::chrono::milliseconds CHANGE_TURN{10};
constexpr int CHANGE_TURNS = 50;
constexpr std::chrono::milliseconds PASS_LOOK{5};
constexpr std::chrono::milliseconds PASS_AGAIN{80};
constexpr std::chrono::seconds PASS_LIMIT{60};
constexpr std::chrono::milliseconds OUTCOME_LOOK{50};
constexpr std::chrono::seconds WORK_LIMIT{60};
constexpr std::chrono::milliseconds TELL_INTERVAL{500};

}  // namespace

CKeeper::CKeeper(const Host::SOptions& options, CFeed& feed, COperations& operations, CConditions& conditions,
                 CSettings& settings, CCounters& counters)
    : m_Options(options),
      m_Feed(feed),
      m_Operations(operations),
      m_Conditions(conditions),
      m_Settings(settings),
      m_Counters(counters),
      m_Wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      m_Progress(conditions.All()) {
  m_Operations.OnQueued([this] { ::eventfd_write(m_Wake.Get(), 1); });
}

CKeeper::~CKeeper() { Stop(); }

void CKeeper::Start() {
  m_Session = std::make_unique<Host::CSession>(m_Options);
  if (!m_Options.m_Simulate) m_Here = std::make_unique<OS::CLinux>();
  m_Machine = std::make_unique<const Host::CMachine>(m_Here ? *m_Here : m_Session->SimulatedMachine(),
                                                     m_Here != nullptr);
  m_Counter = m_Session->Topology().front().m_UpdateCounter;
  m_Session->Start();
  m_Thread = std::jthread([this](const std::stop_token& end) { Run(end); });
}

void CKeeper::Stop() {
  m_Thread.request_stop();
  ::eventfd_write(m_Wake.Get(), 1);
  if (m_Thread.joinable()) m_Thread.join();
  {
    const std::lock_guard lock(m_Mutex);
    m_Stopped = true;
    m_Work.clear();  // whoever waits is told
  }
}

bool CKeeper::End(std::chrono::milliseconds limit) {
  m_End = std::async(std::launch::async, [this] { m_Session->End(); });
  if (m_End.wait_for(limit) != std::future_status::ready && !m_Options.m_Save) return false;
  m_End.get();
  return true;
}

std::shared_ptr<const CSnapshot> CKeeper::Now() const {
  const std::lock_guard lock(m_Mutex);
  return m_Now;
}

SPass CKeeper::Pass() const {
  const std::lock_guard lock(m_Mutex);
  return m_Pass;
}

Json CKeeper::Conditions() const {
  Json all = m_Conditions.All();
  const SPass pass = Pass();
  const auto isSaid = [](const Json& one) { return one["kind"] == "watch-blind"; };
  if (IsBlind(pass) && std::ranges::none_of(all, isSaid))
    all.push_back(ConditionOf(BlindProblem(pass), pass.m_Time));
  return all;
}

void CKeeper::Do(const std::function<void(Host::CSession&, const Host::CMachine&)>& work) {
  // What it throws is thrown again here, as a copy: an exception that two threads hold is freed by either.
  std::optional<Host::CError> error;
  std::optional<CProblem> problem;
  const auto task =
      std::make_shared<Work::element_type>([&](Host::CSession& session, const Host::CMachine& machine) {
        try {
          work(session, machine);
        } catch (const Host::CError& thrown) {
          error.emplace(thrown);
        } catch (const CProblem& thrown) {
          problem.emplace(thrown);
        }
      });
  std::future<void> done = task->get_future();
  {
    const std::lock_guard lock(m_Mutex);
    if (m_Stopped) throw CProblem(503, "stopping", "rvxd is being stopped");
    m_Work.push_back(task);
  }
  ::eventfd_write(m_Wake.Get(), 1);
  if (done.wait_for(WORK_LIMIT) != std::future_status::ready) {
    // What has begun refers to the caller's variables: it is waited for.
    const std::lock_guard lock(m_Mutex);
    if (m_Work.remove(task) != 0)
      throw CProblem(
          503, "busy",
          "the plug-in has been busy for " + std::to_string(WORK_LIMIT.count()) + " s; nothing was done");
  }
  try {
    done.get();
  } catch (const std::future_error&) {
    throw CProblem(503, "stopping", "rvxd is being stopped; nothing was done");
  }
  if (error) throw Host::CError(*error);
  if (problem) throw CProblem(*problem);
}

void CKeeper::Run(const std::stop_token& end) {
  try {
    std::this_thread::sleep_for(
        PASS_LOOK);  // the first pass comes almost at once, where no question is in its way
    AwaitPass();
  } catch (const std::exception& error) {
    Log(3, error.what());
  }
  while (!end.stop_requested()) {
    try {
      Turn();
    } catch (const std::exception& error) {  // a turn that fails is lost, the next one may do better
      Log(3, std::string("a look at the machine failed: ") + error.what());
    }
    m_OnTurn(Now() == nullptr ? ETurn::STARTING : ETurn::WATCHING);
    if (!end.stop_requested()) Wait();
  }
}

void CKeeper::Turn() {
  TellEvents();
  Look();
  DoWork();
  if (const auto task = m_Operations.Next()) {
    CarryOut(*task);
    ::eventfd_write(m_Wake.Get(), 1);  // what came of it is looked at now, and there may be another one
  }
}

void CKeeper::Wait() {
  if (!m_Md.IsOpen()) m_Md = m_Machine->WatchMd();  // md may be loaded later
  const auto time = m_Soon > 0 ? CHANGE_TURN : TURN;
  m_Soon -= m_Soon > 0 ? 1 : 0;
  std::array<pollfd, 2> sources{{{m_Wake.Get(), POLLIN, 0}, {m_Md.Get(), POLLPRI, 0}}};
  ::poll(sources.data(), sources.size(), static_cast<int>(time.count()));
  eventfd_t count = 0;
  ::eventfd_read(m_Wake.Get(), &count);
  if ((sources[1].revents & POLLPRI) == 0) return;
  m_Md = m_Machine->WatchMd();
  m_Soon = CHANGE_TURNS;
  std::this_thread::sleep_for(CHANGE_TURN);
}

void CKeeper::TellEvents() {
  // Fetched ones are gone from the plug-in: where telling fails, they wait here for the next turn.
  for (PI::CEvent& event : m_Session->FetchEvents()) m_Events.push_back(std::move(event));
  if (m_Events.empty()) return;
  const Host::CTopology topology(*m_Session);
  const Host::CInventory inventory(topology, *m_Machine);
  for (; !m_Events.empty(); m_Events.pop_front()) {
    const PI::CEvent& event = m_Events.front();
    const bool isOwn = event.m_Code == PI::EVT_RESCAN_REQUESTED && m_OwnRescans > 0;
    m_OwnRescans -= isOwn ? 1 : 0;
    if (!isOwn)
      m_Feed.Add(Host::EventJson(inventory, event), Host::NowMilliseconds(),
                 Now() == nullptr ? EFound::AT_START : EFound::LATER);
  }
}

std::vector<Host::SProblem> CKeeper::OwnProblems(const SPass& pass) {
  std::vector<Host::SProblem> own = m_OnLook();
  if (const std::string error = m_Feed.WriteError(); !error.empty())
    own.push_back({Host::EHealth::WARNING, "events lost", "rvxd",
                   "the journal of events cannot be written: " + error,
                   "make room on the disk that it lies on"});
  if (IsBlind(pass)) own.push_back(BlindProblem(pass));
  const auto now = Now();
  for (Host::SProblem& stuck : now ? m_Progress.Stuck(now->Arrays(), Clock::now()) : m_Progress.Kept())
    own.push_back(std::move(stuck));
  return own;
}

void CKeeper::Look() {
  const auto begin = Clock::now();
  // Before the topology: what happens behind this look has a higher number.
  const std::string cursor = m_Feed.Cursor();
  const auto before = Now();
  std::string seen = m_Machine->MdStat().value_or("") +
                     OS::ReadText(m_Machine->System(), "/proc/self/mountinfo").value_or("");
  const std::vector<PI::CObject> objects = m_Session->Topology();
  const unsigned long counter = objects.front().m_UpdateCounter;
  for (const PI::CObject& object : objects)
    seen += " " + std::to_string(object.m_ID) + " " + std::to_string(object.m_UpdateCounter);
  SPass pass = Pass();
  long interval = Host::NumberOf(objects.front(), PI::PROP_POLL_INTERVAL).value_or(0);
  if (objects.size() == 2) interval *= 10;  // as the plug-in does where there is no disk
  // A pass by the shorter interval is due from now on, not from the last one on.
  if (interval < pass.m_Interval) pass.m_At = Clock::now();
  pass.m_Interval = interval;
  const bool isNew = counter != m_Counter;
  if (isNew) {
    m_Counters.Count("rvx_passes_total", {{"result", IsBlind(pass) ? "late" : "seen"}});
    pass.m_Time = Host::NowMilliseconds();
    pass.m_At = Clock::now();
  }
  m_Counter = counter;
  if (before == nullptr && !isNew) return;  // no pass yet
  const std::vector<Host::SProblem> own = OwnProblems(pass);
  const Spares wanted = m_Settings.Wanted();
  for (const Host::SProblem& problem : own) seen += "\n" + problem.m_Object + problem.m_Kind + problem.m_Text;
  seen += "\n" + cursor + Json(wanted).dump() +
          m_Conditions.All().dump(-1, ' ', false, Json::error_handler_t::replace);
  std::shared_ptr<CSnapshot> now;
  if (before == nullptr || seen != m_Seen) {
    now = std::make_shared<CSnapshot>(*m_Session, *m_Machine, before.get(), wanted, own);
    m_Conditions.Update(now->Health(), now->Arrays(), now->Disks());
    m_Settings.Learn(now->Arrays());
    now->Publish(m_Instance, cursor, m_Conditions.All(), pass, before.get());
    // The plug-in tells nothing of a disk that somebody releases and adds again: if it fails then, it is
    // news.
    for (const Json& disk : now->Disks())
      if (const Json* const was = before ? before->FindDisk(disk["id"]) : nullptr;
          was != nullptr && (*was)["state"] == "failed" && disk["state"] != "failed")
        m_Feed.EndRepeats(disk["name"]);
    m_Seen = std::move(seen);
  }
  if (isNew) pass.m_Look = std::chrono::duration<double>(Clock::now() - begin).count();
  {
    const std::lock_guard lock(m_Mutex);
    if (now) m_Now = now;
    m_Pass = pass;
  }
  TellState();
}

void CKeeper::TellState() {
  const auto now = Now();
  if (now->Revision() == m_ToldRevision || Clock::now() < m_ToldAt + TELL_INTERVAL) return;
  m_Feed.Notify("state", {{"revision", now->Revision()}, {"changed", now->ChangedSince(m_ToldRevision)}});
  m_ToldRevision = now->Revision();
  m_ToldAt = Clock::now();
}

void CKeeper::DoWork() {
  while (true) {
    Work work;
    {
      const std::lock_guard lock(m_Mutex);
      if (m_Work.empty()) return;
      work = std::move(m_Work.front());
      m_Work.pop_front();
    }
    (*work)(*m_Session, *m_Machine);
    Look();  // what it changed is seen before the next one
  }
}

void CKeeper::AwaitPass() {
  const Host::CTopology before(*m_Session);
  PI::COperation rescan;
  rescan.m_Code = rescan.m_SecondCode = PI::OP_RESCAN_ADAPTER;
  auto pause = PASS_LOOK;
  for (const auto end = Clock::now() + PASS_LIMIT; Clock::now() < end;) {
    // Asked again until it is done, and more and more rarely: a pass that meets a request, be it this one, is
    // skipped until the next interval.
    if (const unsigned int status = m_Session->Run(before.Adapter().m_ID, rescan); status != PI::OK)
      throw Host::PluginError(status, "rescan");
    ++m_OwnRescans;
    std::this_thread::sleep_for(pause);
    if (m_Session->Topology().front().m_UpdateCounter != before.Plugin().m_UpdateCounter) return;
    pause = std::min(pause * 2, PASS_AGAIN);
  }
  throw Host::CError(Host::EXIT_BUSY, "the plug-in has not looked at the machine within " +
                                          std::to_string(PASS_LIMIT.count()) + " s");
}

void CKeeper::CarryOut(const STask& task) {
  const std::string& id = task.m_ID;
  try {
    try {
      AwaitPass();
    } catch (const Host::CError& error) {
      throw CProblem(503, "busy", std::string(error.what()) + "; nothing was done");
    }
    const auto lookAgain = [&] {
      return Host::LookAgain(
          *m_Session, *m_Machine,
          [&](const Host::CInventory& now) { return Host::ChangeOf(now, task.m_Request); }, task.m_Token);
    };
    auto look = lookAgain();
    Log(5, id + " begins: " + look->m_Change.m_What);
    // On the disk before the machine is touched: who finds it there knows what may be half done.
    m_Operations.Step(
        id, "Looked again: the machine is as the plan showed it. Begun: " + look->m_Change.m_What + ".");
    // The disk that keeps this may have been slow: the last look is as short before the change as can be.
    look = lookAgain();
    const Host::SRequest named = Host::ByKernelNames(look->m_Inventory, task.m_Request);
    if (!HoldsStill(*look)) throw Host::ChangedMeanwhile("arrays or disks came or went");
    m_OnTurn(ETurn::CHANGING);
    const unsigned int status = m_Session->Run(look->m_Change.m_Object.m_ID, look->m_Operation);
    m_OnTurn(ETurn::WATCHING);
    const auto await = [&](const auto& question, std::chrono::seconds limit) {
      for (const auto end = Clock::now() + limit; Clock::now() < end;
           std::this_thread::sleep_for(OUTCOME_LOOK)) {
        AwaitPass();
        TellEvents();
        Look();
        const Host::CTopology topology(*m_Session);
        if (question(Host::CInventory(topology, *m_Machine))) return true;
      }
      return false;
    };
    const Host::SOutcome outcome = Host::OutcomeOf(named, *look, look->FailureOf(status), await);
    TellEvents();
    Look();  // so that who is told of the end finds it in the state, too
    Log(outcome.m_Failure ? 4 : 5,
        id + (outcome.m_Failure ? std::string(" failed: ") + outcome.m_Failure->what()
                                : " is done: " + outcome.m_Text));
    m_Operations.End(id, outcome);
  } catch (const Host::CError& error) {
    CProblem problem(error);
    if (error.m_ExitStatus == Host::EXIT_BUSY) {
      problem.m_Code = 412;
      problem.m_Word = "stale";
    }
    Log(4, id + " is refused: " + error.what());
    m_Operations.Fail(id, problem);
  } catch (const CProblem& problem) {  // it could not be kept, or no look was had: it was not begun
    m_Operations.Fail(id, problem);
  } catch (const std::exception& error) {
    Log(3, id + " failed: " + error.what());
    m_Operations.Fail(id, CProblem(500, "internal",
                                   std::string("rvxd failed in it: ") + error.what() +
                                       "; 'rvxctl status' shows what was done"));
  }
}

bool CKeeper::HoldsStill(const Host::SLook& look) {
  const Host::CTopology now(*m_Session);
  const auto names = [](const Host::CTopology& topology) {
    std::string all;
    for (const PI::CObject* const array : topology.OfKind(PI::OBJ_LOGICAL_DRIVE))
      all += std::to_string(array->m_ID) + " " + Host::NameOf(*array) + "\n";
    return all;
  };
  return names(now) == names(look.m_Topology) &&
         std::ranges::all_of(look.m_Change.m_Disks, [&](const Host::SDiskPlan& disk) {
           return m_Machine->Facts("/dev/" + disk.m_Name) == disk.m_Facts;
         });
}

}  // namespace Rvxd
