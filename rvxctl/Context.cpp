#include "rvxctl/Context.h"

#include <cstdlib>

namespace Host {

CContext::CContext(const SOptions& options, CTerminal& terminal) : m_Options(options), m_Terminal(terminal) {
  const char* const plain = std::getenv("NO_COLOR");
  m_Color = terminal.IsTerminal() && !options.m_Plain && (plain == nullptr || *plain == '\0');
}

CRemote* CContext::Remote() {
  if (!m_Remote && !m_Direct) m_Remote = CRemote::Find(m_Options);
  return m_Remote.get();
}

CDirect& CContext::Direct() {
  if (!m_Direct) m_Direct = std::make_unique<CDirect>(m_Options);
  return *m_Direct;
}

CSource& CContext::Source() {
  if (CRemote* const remote = Remote()) return *remote;
  return Direct();
}

void CContext::Show(const std::string& name, const Json& data, const std::string& text, const Json& errors) {
  if (IsStream())
    m_Terminal.PrintDocument(StreamLine((*m_Stream)++, name, errors.empty() ? data : errors[0]));
  else if (m_Options.m_Json)
    m_Terminal.PrintDocument(Envelope(name, data, errors));
  else
    m_Terminal.Print(text);
}

int CContext::Show(const SView& view, const Json& errors) {
  Show(view.m_Schema, view.m_Data, view.m_Text, errors);
  return EXIT_DONE;
}

void CContext::Close() {
  if (m_Direct) m_Direct->Session().End();
}

}  // namespace Host
