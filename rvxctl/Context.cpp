#include "rvxctl/Context.h"

#include <cstdlib>

#include "system/Linux.h"

namespace Host {

CContext::CContext(const SOptions& options, CTerminal& terminal) : m_Options(options), m_Terminal(terminal) {
  const char* const plain = std::getenv("NO_COLOR");
  m_Color = terminal.IsTerminal() && !options.m_Plain && (plain == nullptr || *plain == '\0');
}

CSession& CContext::Session() {
  if (m_Session) return *m_Session;
  m_Session.emplace(m_Options);
  if (!m_Options.m_Simulate) m_Here = std::make_unique<OS::CLinux>();
  m_Machine.emplace(m_Here ? *m_Here : m_Session->SimulatedMachine(), m_Here != nullptr);
  return *m_Session;
}

void CContext::Show(const std::string& name, const Json& data, const std::string& text, const Json& errors) {
  if (IsStream())
    m_Terminal.Print(StreamLine((*m_Stream)++, name, errors.empty() ? data : errors[0]));
  else
    m_Terminal.Print(m_Options.m_Json ? Envelope(name, data, errors) : text);
}

int CContext::Show(const SView& view, const Json& errors) {
  Show(view.m_Schema, view.m_Data, view.m_Text, errors);
  return EXIT_DONE;
}

void CContext::Close() {
  if (m_Session) m_Session->End();
}

}  // namespace Host
