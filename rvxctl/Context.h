#pragma once
/// @file
/// What a command works with.

#include <memory>
#include <optional>
#include <string>

#include "host/Machine.h"
#include "host/Options.h"
#include "host/Session.h"
#include "host/Views.h"
#include "rvxctl/Terminal.h"

namespace Host {

/// The plug-in is loaded at the first use of Session().
class CContext {
 public:
  CContext(const SOptions& options, CTerminal& terminal);

  const SOptions& Options() const { return m_Options; }
  CTerminal& Terminal() const { return m_Terminal; }
  /// As the person and the terminal want what is shown.
  SForm Form() const { return {m_Options.m_Json || IsStream(), {m_Terminal.Width(), m_Color}}; }
  CSession& Session();
  /// The machine that the plug-in works on. Behind a first Session().
  const CMachine& Machine() const { return *m_Machine; }
  /// From now on each result, and what goes wrong, is a line of JSON by itself: for what goes on until it is
  /// ended.
  void BeginStream() { m_Stream.emplace(0); }
  bool IsStream() const { return m_Stream.has_value(); }
  /// Prints the result in the form that was asked for; `name` names the JSON schema, or a line's type.
  void Show(const std::string& name, const Json& data, const std::string& text,
            const Json& errors = Json::array());
  /// Prints the form that was made; EXIT_DONE.
  int Show(const SView& view, const Json& errors = Json::array());
  /// Ends the session, if there is one. Throws CError when the simulated machine cannot be saved.
  void Close();

 private:
  SOptions m_Options;
  CTerminal& m_Terminal;
  bool m_Color;
  std::optional<CSession> m_Session;
  std::unique_ptr<OS::COperatingSystem> m_Here;
  std::optional<const CMachine> m_Machine;
  std::optional<unsigned long> m_Stream;  ///< the next line's number
};

}  // namespace Host
