#include "host/Change.h"

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

namespace rvxctl {

namespace {

using KVT::Internal::CFileDescriptor;

constexpr char LOCK_FILE[] = "/run/rvxctl.lock";

PI::COperation OperationOf(const SChange& change) {
  for (const PI::COperation& operation : change.m_Object.m_Operations)
    if (operation.m_Code == change.m_Code) return operation;
  throw CError(EXIT_NOT_ALLOWED, NameOf(change.m_Object) + " does not offer this operation");
}

/// The catalogue's words for a warning that the check raised; empty when it raised none.
std::string WarningOf(const PI::COperation& before, const PI::COperation& after) {
  if (after.m_ConfirmationCode == before.m_ConfirmationCode) return {};
  switch (after.m_ConfirmationCode) {
    case PI::REASON_DRIVE_LETTER:
    case PI::REASON_MOUNTED:
    case PI::CONFIRM_DELETE_DRIVE_LETTER:
    case PI::CONFIRM_DELETE_MOUNTED:
      return Texts::Of(after.m_ConfirmationCode);
    default:
      return {};
  }
}

/// A change as one look at the machine shows it.
struct SLook {
  SLook(CContext& context, const Proposal& propose)
      : m_Topology(context.Session()),
        m_Inventory(m_Topology, context.Machine()),
        m_Change(propose(m_Inventory)),
        m_Offered(OperationOf(m_Change)),
        m_Operation(m_Offered) {
    if (m_Change.m_Complete) m_Change.m_Complete(m_Operation);
    m_Check = context.Session().Check(m_Change.m_Object.m_ID, m_Operation);
    if (m_Check == PI::OK) m_Warning = WarningOf(m_Offered, m_Operation);
    std::string rest = std::to_string(m_Change.m_Code) + " " + std::to_string(m_Check);
    for (const std::string& one : {m_Change.m_What, m_Change.m_Loss, m_Change.m_Basis, m_Warning})
      rest.append("\n").append(one);
    m_Token = TokenOf(m_Change.m_Disks, rest);
  }

  const CTopology m_Topology;
  const CInventory m_Inventory;
  const SChange m_Change;
  const PI::COperation m_Offered;
  PI::COperation m_Operation;
  unsigned int m_Check{PI::OK};
  std::string m_Warning;
  std::string m_Token;
};

CError CheckRefused(const CContext& context, const SLook& look) {
  const SChange& change = look.m_Change;
  std::string help = ReasonOf(look.m_Topology, change.m_Object, change.m_Code, look.m_Check);
  const std::string hint = HintForCheck(context.Machine().MdStat(), look.m_Check);
  help += (help.empty() || hint.empty() ? "" : "\n") + hint;
  return PluginError(look.m_Check, "cannot " + change.m_What, help);
}

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
  const Json data = {
      {"plan", look.m_Change.m_What},
      {"disks", PlanJson(look.m_Change.m_Disks)},
      {"check", {{"status", look.m_Check}, {"name", allowed ? "OK" : Texts::StatusName(look.m_Check)}}},
      {"warning", look.m_Warning.empty() ? Json(nullptr) : Json(look.m_Warning)},
      {"loss", look.m_Change.m_Loss.empty() ? Json(nullptr) : Json(look.m_Change.m_Loss)},
      {"token", look.m_Token}};
  Json errors = Json::array();
  if (!allowed) errors.push_back(ErrorJson(CheckRefused(context, look)));
  context.Show("plan", data, TextOf(context, look) + "This is " + answer + ". Nothing was changed.\n",
               errors);
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
    now = std::make_unique<SLook>(context, propose);
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
  auto look = std::make_unique<SLook>(context, propose);
  if (consent.m_IfUnchanged && consent.m_IfUnchanged != look->m_Token)
    RefuseChanged("the token is of another state");
  if (consent.m_DryRun) ShowDryRun(context, *look);
  if (look->m_Check != PI::OK) throw CheckRefused(context, *look);
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

}  // namespace rvxctl
