#include "rvxd/Settings.h"

#include "host/Error.h"
#include "rvxd/Document.h"
#include "rvxd/Log.h"

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
  Keep(spares);
}

void CSettings::Keep(const Spares& spares) {
  WriteWhole(m_File, Json{{"spares", spares}}.dump());
  m_Spares = spares;
}

void CSettings::Learn(const Json& arrays) {
  const std::lock_guard lock(m_Mutex);
  Spares spares = m_Spares;
  for (const Json& array : arrays) {
    if (!array["uuid"].is_string()) continue;
    if (const auto byName = spares.extract(array["name"].get<std::string>()))
      spares.try_emplace(array["uuid"].get<std::string>(), byName.mapped());
  }
  if (spares == m_Spares) return;
  try {
    Keep(spares);
  } catch (const Host::CError& error) {
    Log(4, error.what());
  }
}

}  // namespace Rvxd
