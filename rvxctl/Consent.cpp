#include "rvxctl/Consent.h"

#include <iostream>

namespace Host {

namespace {

void ShowDryRun(CContext& context, const SPlan& plan) {
  Json errors = Json::array();
  if (plan.m_Refusal) errors.push_back(ErrorJson(*plan.m_Refusal));
  context.Show("plan", plan.m_Document, plan.m_Text + "This is " + plan.m_Answer + ". Nothing was changed.\n",
               errors);
}

}  // namespace

std::optional<SOutcome> CarryOut(CContext& context, SRequest request, const SConsent& consent) {
  request.m_Rules = consent.m_Rules;
  const SPlan plan = context.Source().Plan(request, context.Terminal().Width());
  if (consent.m_IfUnchanged && *consent.m_IfUnchanged != plan.m_Document["token"])
    throw ChangedMeanwhile("the token is of another state");
  if (consent.m_DryRun) ShowDryRun(context, plan);
  if (plan.m_Refusal) throw CError(*plan.m_Refusal);
  if (consent.m_DryRun) return std::nullopt;
  if (!plan.m_Document["loss"].is_null()) std::cerr << plan.m_Text;
  for (const std::string& question : plan.m_Questions)
    if (!consent.m_Yes) Confirm(question);
  return context.Source().CarryOut(request, plan);
}

}  // namespace Host
