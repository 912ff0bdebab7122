#include "host/Change.h"

#include "host/Reasons.h"
#include "host/Texts.h"
#include "host/Values.h"

namespace Host {

namespace {

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

}  // namespace

SLook::SLook(CSession& session, const CMachine& machine, const Proposal& propose)
    : m_Topology(session),
      m_Inventory(m_Topology, machine),
      m_Change(propose(m_Inventory)),
      m_Offered(OperationOf(m_Change)),
      m_Operation(m_Offered) {
  if (m_Change.m_Complete) m_Change.m_Complete(m_Operation);
  m_Check = session.Check(m_Change.m_Object.m_ID, m_Operation);
  if (m_Check == PI::OK) m_Warning = WarningOf(m_Offered, m_Operation);
  std::string rest = std::to_string(m_Change.m_Code) + " " + std::to_string(m_Check);
  for (const std::string& one : {m_Change.m_What, m_Change.m_Loss, m_Change.m_Basis, m_Warning})
    rest.append("\n").append(one);
  m_Token = TokenOf(m_Change.m_Disks, rest);
}

SPlan SLook::Plan(std::size_t width) const {
  const SChange& change = m_Change;
  SPlan plan;
  plan.m_Document = {
      {"plan", change.m_What},
      {"disks", PlanJson(change.m_Disks)},
      {"check", {{"status", m_Check}, {"name", m_Check == PI::OK ? "OK" : Texts::StatusName(m_Check)}}},
      {"warning", m_Warning.empty() ? Json(nullptr) : Json(m_Warning)},
      {"loss", change.m_Loss.empty() ? Json(nullptr) : Json(change.m_Loss)},
      {"token", m_Token}};
  plan.m_Text = "This will " + change.m_What + "." + (change.m_Loss.empty() ? "" : " " + change.m_Loss) +
                "\n" + (change.m_Disks.empty() ? "" : PlanText(change.m_Disks, width)) +
                (m_Warning.empty() ? "" : "WARNING: " + m_Warning + "\n");
  if (!change.m_Loss.empty())
    plan.m_Questions.push_back(!change.m_FirstQuestion.empty()
                                   ? change.m_FirstQuestion
                                   : Texts::Find(m_Offered.m_ConfirmationCode).value_or("Go on?"));
  if (!change.m_Question.empty()) plan.m_Questions.push_back(change.m_Question);
  plan.m_Answer = "allowed";
  if (m_Check == PI::OK) return plan;
  plan.m_Refusal = Refusal();
  plan.m_Answer = "refused: " + Texts::OfStatus(m_Check);
  if (plan.m_Answer.ends_with('.')) plan.m_Answer.pop_back();
  return plan;
}

std::optional<CError> SLook::FailureOf(unsigned int status) const {
  if (status == PI::OK) return std::nullopt;
  return PluginError(
      status, "could not " + m_Change.m_What,
      HintForExecution(m_Inventory.Machine().MdStat(), m_Change.m_Code, status, m_Change.m_Level));
}

CError SLook::Refusal() const {
  std::string help = ReasonOf(m_Topology, m_Change.m_Object, m_Change.m_Code, m_Check);
  const std::string hint = HintForCheck(m_Inventory.Machine().MdStat(), m_Check);
  help += (help.empty() || hint.empty() ? "" : "\n") + hint;
  CError refusal = PluginError(m_Check, "cannot " + m_Change.m_What, help);
  refusal.m_Rule = "plugin-check";
  refusal.m_Object = NameOf(m_Change.m_Object);
  return refusal;
}

CError ChangedMeanwhile(const std::string& why) {
  return {EXIT_BUSY, "changed meanwhile, nothing was done: " + why + "; look again before you go on"};
}

std::unique_ptr<SLook> LookAgain(CSession& session, const CMachine& machine, const Proposal& propose,
                                 const std::string& token) {
  std::unique_ptr<SLook> now;
  try {
    now = std::make_unique<SLook>(session, machine, propose);
  } catch (const CError& error) {
    CError changed = ChangedMeanwhile(error.what());
    changed.m_Rule = error.m_Rule;
    changed.m_Object = error.m_Object;
    throw CError(changed);
  }
  if (now->m_Token != token) throw ChangedMeanwhile("the disks are not what the plan showed");
  return now;
}

}  // namespace Host
