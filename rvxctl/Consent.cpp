#include "rvxctl/Consent.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>

#include "host/Reasons.h"
#include "host/Texts.h"
#include "host/Values.h"
#include "libraries/common/FileDescriptor.h"

namespace Host {

namespace {

using KVT::Internal::CFileDescriptor;

constexpr char LOCK_FILE[] = "/run/rvxctl.lock";

CError ExecutionFailed(const CContext& context, const SChange& change, unsigned int status) {
  return PluginError(status, "could not " + change.m_What,
                     HintForExecution(context.Machine().MdStat(), change.m_Code, status, change.m_Level));
}

/// What a person reads before.
std::string TextOf(const CContext& context, const SLook& look) {
  const SChange& change = look.m_Change;
  return "This will " + change.m_What + "." + (change.m_Loss.empty() ? "" : " " + change.m_Loss) + "\n" +
         (change.m_Disks.empty() ? "" : PlanText(change.m_Disks, context.Terminal().Width())) +
         (look.m_Warning.empty() ? "" : "WARNING: " + look.m_Warning + "\n");
}

void ShowDryRun(CContext& context, const SLook& look) {
  const bool allowed = look.m_Check == PI::OK;
  std::string answer = allowed ? "allowed" : "refused: " + Texts::OfStatus(look.m_Check);
  if (answer.ends_with('.')) answer.pop_back();
  Json errors = Json::array();
  if (!allowed) errors.push_back(ErrorJson(look.Refusal()));
  context.Show("plan", look.ToJson(),
               TextOf(context, look) + "This is " + answer + ". Nothing was changed.\n", errors);
}

/// Between two looks somebody may take another disk's place.
[[noreturn]] void RefuseChanged(const std::string& why) {
  throw CError(EXIT_BUSY, "changed meanwhile, nothing was done" + (why.empty() ? "" : ": " + why) +
                              "; look again before you go on");
}

/// Looks again with a fresh instance of the plug-in: the same must be shown.
std::unique_ptr<SLook> LookAgain(CContext& context, const Proposal& propose, const SLook& before) {
  std::unique_ptr<SLook> now;
  try {
    context.Session().Renew();
    now = std::make_unique<SLook>(context.Session(), context.Machine(), propose);
  } catch (const CError& error) {
    RefuseChanged(error.what());
  }
  if (now->m_Token != before.m_Token) RefuseChanged("the disks are not what the plan showed");
  return now;
}

/// One change at a time on this machine, as far as they are rvxctl's. Throws CError when another is under
/// way.
CFileDescriptor LockChanges(const CMachine& machine) {
  if (!machine.IsHere()) return CFileDescriptor();
  CFileDescriptor file(::open(LOCK_FILE, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!file.IsOpen())
    throw CError(EXIT_PLUGIN_ERROR, std::string("cannot open ") + LOCK_FILE + ": " + std::strerror(errno) +
                                        "; it keeps two changes apart");
  if (::flock(file.Get(), LOCK_EX | LOCK_NB) != 0)
    throw CError(EXIT_BUSY, errno == EWOULDBLOCK
                                ? std::string("another rvxctl is changing this machine; nothing was done")
                                : std::string("cannot lock ") + LOCK_FILE + ": " + std::strerror(errno));
  return file;
}

}  // namespace

std::optional<SExecution> CarryOut(CContext& context, const Proposal& propose, const SConsent& consent) {
  auto look = std::make_unique<SLook>(context.Session(), context.Machine(), propose);
  if (consent.m_IfUnchanged && consent.m_IfUnchanged != look->m_Token)
    RefuseChanged("the token is of another state");
  if (consent.m_DryRun) ShowDryRun(context, *look);
  if (look->m_Check != PI::OK) throw look->Refusal();
  if (consent.m_DryRun) return std::nullopt;
  const bool asks = !look->m_Change.m_Loss.empty();
  if (asks) std::cerr << TextOf(context, *look);
  if (asks && !consent.m_Yes)
    Confirm(!look->m_Change.m_FirstQuestion.empty()
                ? look->m_Change.m_FirstQuestion
                : Texts::Find(look->m_Offered.m_ConfirmationCode).value_or("Go on?"));
  if (!look->m_Change.m_Question.empty() && !consent.m_Yes) Confirm(look->m_Change.m_Question);
  const CFileDescriptor lock = LockChanges(context.Machine());
  // Under the lock, and also where nobody was asked: another one's change may have come first.
  look = LookAgain(context, propose, *look);
  // Before the plug-in's threads run: what was consented to is carried out on the model that was shown.
  const SChange& change = look->m_Change;
  const unsigned int status =
      context.Session().Change(change.m_Object.m_ID, look->m_Operation, "\"" + change.m_What + "\"");
  if (status == PI::OK) return SExecution{};
  return SExecution{ExecutionFailed(context, change, status)};
}

}  // namespace Host
