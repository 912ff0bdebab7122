#include "rvxd/Members.h"

#include <algorithm>

#include "host/Error.h"
#include "rvxd/Document.h"
#include "rvxd/Log.h"

namespace Rvxd {

namespace {

constexpr std::size_t ARRAY_LIMIT = 256;

std::string KeyOf(const Json& array) {
  return array["uuid"].is_string() ? array["uuid"].get<std::string>() : array["name"].get<std::string>();
}

const Json* Find(const Json& list, const char* key, const Json& value) {
  const auto found = std::ranges::find_if(list, [&](const Json& one) { return one[key] == value; });
  return found == list.end() || value.is_null() ? nullptr : &*found;
}

/// What tells the disk from others, and where it is.
Json IdentityOf(const std::string& name, const Json* disk, const std::string& state) {
  Json identity = {{"name", name}, {"state", state}};
  for (const char* const key : {"id", "serial", "model", "path"})
    identity[key] = disk == nullptr ? Json(nullptr) : (*disk)[key];
  return identity;
}

}  // namespace

bool CMembers::IsDisk(const Json& json) {
  const auto has = [&](const char* key) {
    return json.contains(key) && (json[key].is_string() || json[key].is_null());
  };
  return json.is_object() &&
         std::ranges::all_of(std::initializer_list<const char*>{"id", "serial", "model", "path"}, has) &&
         json.value("name", Json()).is_string() && json.value("state", Json()).is_string();
}

CMembers::CMembers(const std::string& folder)
    : m_File(folder + "/members.json"), m_Known(ReadDocument(m_File)) {
  if (!m_Known.is_object()) m_Known = Json::object();
  for (Json& disks : m_Known)
    if (!disks.is_array() || !std::ranges::all_of(disks, &IsDisk)) disks = Json::array();
}

void CMembers::Learn(const Json& arrays, const Json& disks) {
  Json known = m_Known;
  for (const Json& array : arrays) {
    const bool isWhole = array["redundancy"]["missing"] == 0;
    Json members = isWhole ? Json::array() : known.value(KeyOf(array), Json::array());
    for (const Json& member : array["members"]) {
      if (member["state"] != (isWhole ? "active" : "failed")) continue;
      const Json* const disk = Find(disks, "id", member["whole"]);
      // One that failed since the array was whole is known already, one that failed before is not.
      const bool isNew = disk != nullptr && std::ranges::none_of(members, [&](const Json& one) {
                           return one["id"] == (*disk)["id"] && one["serial"] == (*disk)["serial"];
                         });
      if (isWhole || isNew) members.push_back(IdentityOf(member["name"], disk, "gone"));
    }
    known[KeyOf(array)] = std::move(members);
  }
  // Arrays come and go; one that is not there may be on its way.
  for (auto one = known.begin(); one != known.end() && known.size() > ARRAY_LIMIT;)
    if (std::ranges::none_of(arrays, [&](const Json& array) { return KeyOf(array) == one.key(); }))
      one = known.erase(one);
    else
      ++one;
  if (known == m_Known && m_IsKept) return;
  m_Known = std::move(known);
  m_IsKept = false;
  try {
    WriteWhole(m_File, m_Known.dump(-1, ' ', false, Json::error_handler_t::replace));
    m_IsKept = true;
  } catch (const Host::CError& error) {
    Log(4, error.what());
  }
}

Json CMembers::Concerned(const std::string& object, const Json& arrays, const Json& disks) const {
  if (const Json* const disk = Find(disks, "name", object))
    return Json::array({IdentityOf(object, disk, (*disk)["state"])});
  const Json* const array = Find(arrays, "name", object);
  if (array == nullptr) return Json::array();
  const Json known = m_Known.value(KeyOf(*array), Json::array());
  Json concerned = Json::array();
  for (const char* const state : {"failed", "missing", "offline"})
    for (const Json& member : (*array)["members"]) {
      if (member["state"] != state) continue;
      const Json* disk = Find(disks, "id", member["whole"]);
      if (disk == nullptr) disk = Find(known, "name", member["name"]);
      concerned.push_back(IdentityOf(member["name"], disk, state));
    }
  if ((*array)["redundancy"]["missing"] == 0) return concerned;
  const auto isThere = [&](const Json& disk) {
    return std::ranges::any_of((*array)["members"], [&](const Json& member) {
      const Json* const whole = Find(disks, "id", member["whole"]);
      if (whole == nullptr || (disk["id"].is_null() && disk["serial"].is_null()))
        return member["name"] == disk["name"];
      // A name below by-id may belong to another one as soon as its twin is gone.
      return (*whole)["id"] == disk["id"] ||
             (!disk["serial"].is_null() && (*whole)["serial"] == disk["serial"]);
    });
  };
  for (const Json& disk : known) {
    if (isThere(disk)) continue;
    // One that is plugged in still, or again, may have another name and another place by now. What two disks
    // tell as their serial number says nothing.
    const auto isIt = [&](const Json& one) { return one["serial"] == disk["serial"]; };
    const Json* const now =
        std::ranges::count_if(disks, isIt) == 1 ? Find(disks, "serial", disk["serial"]) : nullptr;
    concerned.push_back(now == nullptr ? disk : IdentityOf((*now)["name"], now, "gone"));
  }
  return concerned;
}

}  // namespace Rvxd
