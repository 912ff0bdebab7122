#pragma once
/// @file
/// The ways by which a message leaves the machine.

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace Notify {

using Json = nlohmann::json;

/// What is to be delivered, as rvxd hands it over: {"type", "settings", "limit", "process", "message"}.
struct SOrder {
  Json m_Settings;
  Json m_Message;
  long m_Process{0};  ///< rvxd's
  std::chrono::milliseconds m_Limit{};
};

struct SResult {
  bool m_IsDelivered{false};
  std::string m_Text{};  ///< "HTTP 404"
  std::string m_Said{};  ///< the way's own words, which may hold what is secret
};

/// Takes an order's text, and has at most its time. Throws std::exception where it is none of rvxd's.
SResult Deliver(const std::string& text);

SResult ByJournal(const SOrder& order);
SResult ByMail(const SOrder& order);
SResult ByProgram(const SOrder& order);
SResult ByWebhook(const SOrder& order);
/// An address that is asked for, so that who listens there knows that somebody watches.
SResult ByHeartbeat(const SOrder& order);

/// Runs a program with this text as its input. Its output and errors are its words.
/// @param variables beside those of this process
SResult Run(const std::vector<std::string>& words, const std::vector<std::string>& variables,
            const std::string& input);

/// A field of the message; empty when there is none.
std::string TextIn(const Json& json, const char* key);

}  // namespace Notify
