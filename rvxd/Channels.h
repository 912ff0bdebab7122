#pragma once
/// @file
/// Where alarms go: a file for each channel, as the administrator wrote it.

#include <map>
#include <string>

#include "rvxd/Alarms.h"

namespace Rvxd {

struct SChannel {
  std::string m_Type;         ///< "journal", "mail", "program", "webhook", "heartbeat"
  SPolicy m_Policy{};         ///< of all but a heartbeat
  Milliseconds m_Limit{};     ///< for one message
  Milliseconds m_Interval{};  ///< of a heartbeat
  std::string m_Target{};     ///< as people are told of it: without a secret
  /// What is handed to whoever delivers, secrets included.
  Json m_Settings{};
  /// Why it cannot be used; empty: it can.
  std::string m_Refusal{};
};

/// By name, which is that of the file without its ".conf".
using Channels = std::map<std::string, SChannel>;

/// The journal, and what the folder's files say. A file that is wrong gives a channel with a refusal, which
/// names file and line; so does one that others may write to, and a secret that others may read. No folder:
/// the journal alone. Throws std::runtime_error when the folder cannot be read.
Channels ReadChannels(const std::string& folder);

}  // namespace Rvxd
