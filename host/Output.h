#pragma once
/// @file
/// What commands print: tables for people, one JSON document for scripts.

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "host/Session.h"
#include "host/Topology.h"

namespace rvxctl {

using Json = nlohmann::ordered_json;

/// What a command works with. The plug-in is loaded at the first use of Session().
class CContext {
 public:
  CContext(const SOptions& options, COutput& output) : m_Options(options), m_Output(output) {}

  const SOptions& Options() const { return m_Options; }
  COutput& Output() { return m_Output; }
  CSession& Session();
  /// Prints the result in the form that was asked for; `name` names the JSON schema.
  void Show(const std::string& name, const Json& data, const std::string& text,
            const Json& errors = Json::array());
  /// Ends the session, if there is one. Throws CError when the simulated machine cannot be saved.
  void Close();
  /// The text in a colour by what it says ("Failed", "Degraded", ...), on a terminal that wants colours.
  std::string Colored(const std::string& text) const;

 private:
  SOptions m_Options;
  COutput& m_Output;
  std::optional<CSession> m_Session;
};

/// The JSON document of a result or of a failure.
std::string Envelope(const std::string& name, const Json& data, const Json& errors = Json::array());
Json ErrorJson(const CError& error);

/// Columns of equal width below a heading, a line a row.
std::string Table(const std::vector<std::string>& heading, const std::vector<std::vector<std::string>>& rows);
/// "label  value" lines.
std::string Pairs(const std::vector<std::pair<std::string, std::string>>& pairs);

Json PropertyJson(const CTexts& texts, const PI::CProperty& property);
Json ObjectJson(const CTexts& texts, const PI::CObject& object);
Json EventJson(const CTexts& texts, const CTopology& topology, const PI::CEvent& event);
/// RFC 3339 with milliseconds, UTC.
std::string TimeText(unsigned long milliseconds);

}  // namespace rvxctl
