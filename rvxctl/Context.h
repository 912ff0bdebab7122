#pragma once
/// @file
/// What a command works with.

#include <memory>
#include <optional>
#include <string>

#include "rvxctl/Direct.h"
#include "rvxctl/Remote.h"
#include "rvxctl/Terminal.h"

namespace Host {

class CContext {
 public:
  CContext(const SOptions& options, CTerminal& terminal);

  const SOptions& Options() const { return m_Options; }
  CTerminal& Terminal() const { return m_Terminal; }
  /// As the person and the terminal want what is shown.
  SForm Form() const { return {m_Options.m_Json || IsStream(), {m_Terminal.Width(), m_Color}}; }
  /// rvxd where it answers, else a plug-in that is loaded at the first use.
  CSource& Source();
  /// rvxd; null when the machine is looked at by a plug-in of this program's own.
  CRemote* Remote();
  /// Behind a first Remote() that was null.
  CDirect& Direct();
  /// From now on each result, and what goes wrong, is a line of JSON by itself: for what goes on until it is
  /// ended.
  void BeginStream() { m_Stream.emplace(0); }
  bool IsStream() const { return m_Stream.has_value(); }
  /// Prints the result in the form that was asked for; `name` names the JSON schema, or a line's type.
  void Show(const std::string& name, const Json& data, const std::string& text,
            const Json& errors = Json::array());
  /// Prints the form that was made; EXIT_DONE.
  int Show(const SView& view, const Json& errors = Json::array());
  int Show(const SViewRequest& request) { return Show(Source().View(request, Form())); }
  /// Ends the session, if there is one. Throws CError when the simulated machine cannot be saved.
  void Close();

 private:
  SOptions m_Options;
  CTerminal& m_Terminal;
  bool m_Color;
  std::unique_ptr<CRemote> m_Remote;
  std::unique_ptr<CDirect> m_Direct;
  std::optional<unsigned long> m_Stream;  ///< the next line's number
};

}  // namespace Host
