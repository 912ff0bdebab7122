/// @file
/// What rvxd hands over, and the way that it is for.

#include <unistd.h>

#include "notify/Ways.h"

namespace Notify {

SResult Deliver(const std::string& text) {
  constexpr std::pair<std::string_view, SResult (*)(const SOrder&)> WAYS[] = {{"journal", &ByJournal},
                                                                              {"mail", &ByMail},
                                                                              {"program", &ByProgram},
                                                                              {"webhook", &ByWebhook},
                                                                              {"heartbeat", &ByHeartbeat}};
  const Json given = Json::parse(text, nullptr, false);
  if (!given.is_object() || !given.at("process").is_number_unsigned() ||
      !given.at("limit").is_number_unsigned())
    return {false, "no order came"};
  const SOrder order{given.at("settings"), given.at("message"), given.at("process"),
                     std::chrono::milliseconds(given.at("limit").get<unsigned int>())};
  const auto seconds = static_cast<unsigned int>(order.m_Limit.count() / 1000);
  ::alarm(seconds + 1);  // behind what a way keeps by itself, whose words say more
  for (const auto& [type, way] : WAYS)
    if (type == TextIn(given, "type")) return way(order);
  return {false, "there is no such way: " + TextIn(given, "type")};
}

}  // namespace Notify
