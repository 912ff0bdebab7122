#include "rvxd/Settings.h"

#include "rvxd/Document.h"

namespace Rvxd {

CSettings::CSettings(const std::string& folder) : m_File(folder + "/settings.json") {
  const Json kept = ReadDocument(m_File);
  if (!kept.is_object()) return;
  const Json spares = kept.value("spares", Json());
  if (!spares.is_object()) return;
  for (const auto& [array, count] : spares.items())
    if (count.is_number_unsigned() && count <= SPARES_LIMIT) m_Spares[array] = count;
}

Spares CSettings::Wanted() const {
  const std::lock_guard lock(m_Mutex);
  return m_Spares;
}

void CSettings::Want(const Spares& spares) {
  const std::lock_guard lock(m_Mutex);
  WriteWhole(m_File, Json{{"spares", spares}}.dump());
  m_Spares = spares;
}

}  // namespace Rvxd
