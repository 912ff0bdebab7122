#include "host/Change.h"

#include <iostream>

#include "host/Reasons.h"
#include "host/Texts.h"
#include "host/Values.h"

namespace rvxctl {

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

CError CheckRefused(const CContext& context, const SChange& change, unsigned int status) {
  std::string help = ReasonOf(change.m_Topology, change.m_Object, change.m_Code, status);
  const std::string hint = HintForCheck(context.Machine(), status);
  help += (help.empty() || hint.empty() ? "" : "\n") + hint;
  return PluginError(status, "cannot " + change.m_What, help);
}

CError ExecutionFailed(const CContext& context, const SChange& change, unsigned int status) {
  return PluginError(status, "could not " + change.m_What,
                     HintForExecution(context.Machine(), change.m_Code, status, change.m_Level));
}

/// What a person reads before.
std::string TextOf(const CContext& context, const SChange& change, const std::string& warning) {
  return "This will " + change.m_What + "." + (change.m_Loss.empty() ? "" : " " + change.m_Loss) + "\n" +
         (change.m_Disks.empty() ? "" : PlanText(change.m_Disks, context.Terminal().Width())) +
         (warning.empty() ? "" : "WARNING: " + warning + "\n");
}

void ShowDryRun(CContext& context, const SChange& change, unsigned int check, const std::string& warning) {
  const bool allowed = check == PI::OK;
  const Json data = {{"plan", change.m_What},
                     {"disks", PlanJson(change.m_Disks)},
                     {"check", {{"status", check}, {"name", allowed ? "OK" : Texts::StatusName(check)}}},
                     {"warning", warning.empty() ? Json(nullptr) : Json(warning)}};
  Json errors = Json::array();
  if (!allowed) errors.push_back(ErrorJson(CheckRefused(context, change, check)));
  context.Show("plan", data,
               TextOf(context, change, warning) + "The plug-in's check: " +
                   (allowed ? std::string("allowed") : Texts::OfStatus(check)) + "\nNothing was changed.\n",
               errors);
}

}  // namespace

bool CarryOut(CContext& context, const SChange& change, const SConsent& consent) {
  CSession& session = context.Session();
  PI::COperation operation = OperationOf(change);
  const PI::COperation offered = operation;
  if (change.m_Complete) change.m_Complete(operation);
  const unsigned int check = session.Check(change.m_Object.m_ID, operation);
  const std::string warning = check == PI::OK ? WarningOf(offered, operation) : "";
  if (consent.m_DryRun) ShowDryRun(context, change, check, warning);
  if (check != PI::OK) throw CheckRefused(context, change, check);
  if (consent.m_DryRun) return false;
  if (!change.m_Loss.empty()) {
    std::cerr << TextOf(context, change, warning);
    if (!consent.m_Yes) Confirm(Texts::Find(offered.m_ConfirmationCode).value_or("Go on?"));
  }
  // Before the plug-in's threads run: what was consented to is carried out on the model that was shown.
  session.HoldSignals();
  if (const unsigned int status = session.Run(change.m_Object.m_ID, operation); status != PI::OK)
    throw ExecutionFailed(context, change, status);
  return true;
}

}  // namespace rvxctl
