#include "rvxctl/Direct.h"

#include "host/Signals.h"
#include "host/Values.h"
#include "host/WriterLock.h"
#include "system/Linux.h"

namespace Host {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds LOOK_INTERVAL{250};
constexpr std::chrono::seconds PASS_LIMIT{30};

}  // namespace

CDirect::CDirect(const SOptions& options)
    : m_Session(options),
      m_Here(options.m_Simulate ? nullptr : std::make_unique<OS::CLinux>()),
      m_Machine(m_Here ? *m_Here : m_Session.SimulatedMachine(), m_Here != nullptr) {}

SView CDirect::View(const SViewRequest& request, const SForm& form) {
  // Where no thread keeps the model current, a fresh instance looks.
  if (m_HasLooked && !m_Session.IsStarted()) m_Session.Renew();
  m_HasLooked = true;
  const CTopology topology(m_Session);
  const CInventory inventory(topology, m_Machine);
  const auto check = [&](const PI::CObject& object, PI::COperation& operation) {
    return m_Session.Check(object.m_ID, operation);
  };
  const SQuestions questions{
      [&] { return ArrayHealthOf(inventory); },
      [&](const PI::CObject& object) { return OffersOf(inventory, object, check); },
      [&](const PI::CObject& object, unsigned int id) {
        if (id == PI::PROP_ALL) return m_Session.Properties(object.m_ID);
        return std::vector{m_Session.Property(object.m_ID, static_cast<PI::_PROPERTY_ID>(id))};
      }};
  return ViewOf(inventory, questions, request, form);
}

SPlan CDirect::Plan(const SRequest& request, std::size_t width) {
  m_HasLooked = true;
  return SLook(m_Session, m_Machine, [&](const CInventory& now) { return ChangeOf(now, request); })
      .Plan(width);
}

SOutcome CDirect::CarryOut(const SRequest& request, const SPlan& plan) {
  if (request.m_Kind == EChange::RESCAN) return Rescan(request);
  const auto lock = m_Machine.IsHere() ? LockWriter(WRITER_LOCK, "rvxctl") : KVT::Internal::CFileDescriptor();
  // Under the lock, and also where nobody was asked: another one's change may have come first.
  m_Session.Renew();
  const auto look = LookAgain(
      m_Session, m_Machine, [&](const CInventory& now) { return ChangeOf(now, request); },
      plan.m_Document["token"]);
  // Before the plug-in's threads run: what was consented to is carried out on the model that was shown.
  const SChange& change = look->m_Change;
  const SRequest named = ByKernelNames(look->m_Inventory, request);
  const unsigned int status =
      m_Session.Change(change.m_Object.m_ID, look->m_Operation, "\"" + change.m_What + "\"");
  const auto await = [&](const auto& question, std::chrono::seconds limit) {
    for (const auto end = Clock::now() + limit; Clock::now() < end; Pause(LOOK_INTERVAL)) {
      m_Session.Renew();
      const CTopology topology(m_Session);
      if (question(CInventory(topology, m_Machine))) return true;
    }
    return false;
  };
  return OutcomeOf(named, *look, look->FailureOf(status), await);
}

SOutcome CDirect::Rescan(const SRequest& request) {
  SLook look(m_Session, m_Machine, [&](const CInventory& now) { return ChangeOf(now, request); });
  if (const unsigned int status = m_Session.Run(look.m_Change.m_Object.m_ID, look.m_Operation);
      status != PI::OK)
    throw PluginError(status, "rescan");
  m_Session.Start();
  if (!AwaitPass(m_Session, look.m_Topology.Plugin().m_UpdateCounter))
    throw CError(EXIT_BUSY, "the rescan has not ended within 30 s");
  const auto await = [&](const auto& question, std::chrono::seconds) {
    const CTopology topology(m_Session);
    return question(CInventory(topology, m_Machine));
  };
  return OutcomeOf(request, look, std::nullopt, await);
}

void CDirect::SetPollInterval(int seconds) { Host::SetPollInterval(m_Session, seconds); }

Json CDirect::Events() {
  const std::vector<PI::CEvent> events = m_Session.FetchEvents();
  Json all = Json::array();
  if (events.empty()) return all;
  const CTopology topology(m_Session);
  const CInventory inventory(topology, m_Machine);
  for (const PI::CEvent& event : events) all.push_back(EventJson(inventory, event));
  return all;
}

bool AwaitPass(CSession& session, unsigned long before) {
  for (const auto end = Clock::now() + PASS_LIMIT; Clock::now() < end;) {
    Pause(LOOK_INTERVAL);  // first of all: a question would be in the way of the first pass
    if (CTopology(session).Plugin().m_UpdateCounter != before) return true;
  }
  return false;
}

}  // namespace Host
