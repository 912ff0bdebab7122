#include "host/Topology.h"

#include <algorithm>
#include <boost/filesystem.hpp>

#include "host/Error.h"
#include "host/Values.h"

namespace Host {

std::vector<const PI::CObject*> CTopology::OfKind(PI::_OBJECT_KIND kind) const {
  std::vector<const PI::CObject*> found;
  for (const PI::CObject& object : m_Objects)
    if (object.m_Kind == kind) found.push_back(&object);
  return found;
}

const PI::CObject* CTopology::FindID(unsigned long id) const {
  const auto found = std::find_if(m_Objects.begin(), m_Objects.end(),
                                  [id](const PI::CObject& object) { return object.m_ID == id; });
  return found == m_Objects.end() ? nullptr : &*found;
}

const PI::CObject* CTopology::FindNamed(const std::string& name, PI::_OBJECT_KIND kind) const {
  const auto found = std::ranges::find_if(
      m_Objects, [&](const PI::CObject& object) { return object.m_Kind == kind && NameOf(object) == name; });
  return found == m_Objects.end() ? nullptr : &*found;
}

const PI::CObject* CTopology::FindDisk(const std::string& name) const {
  return FindNamed(name, PI::OBJ_PHYSICAL_DRIVE);
}

const PI::CObject* CTopology::FindArray(const std::string& name) const {
  return FindNamed(name, PI::OBJ_LOGICAL_DRIVE);
}

const PI::CObject* CTopology::Match(const std::string& address, PI::_OBJECT_KIND kind) const {
  boost::system::error_code error;
  const std::string target =
      address.starts_with("/") ? boost::filesystem::canonical(address, error).string() : std::string();
  for (const PI::CObject& object : m_Objects) {
    if (kind != PI::OBJ_NONE && object.m_Kind != kind) continue;
    const std::string name = NameOf(object);
    const std::string path = "/dev/" + name;
    if (address == name || address == path || target == path ||
        address == TextOf(object, PI::PROP_DEVICE_KEY) || IdentifierOf(address) == object.m_ID)
      return &object;
  }
  return nullptr;
}

const PI::CObject& CTopology::Find(const std::string& address, PI::_OBJECT_KIND kind) const {
  if (const PI::CObject* const object = Match(address, kind)) return *object;
  ThrowUnknown(address, kind);
}

void CTopology::ThrowUnknown(const std::string& address, PI::_OBJECT_KIND kind) const {
  std::string known;
  for (const PI::CObject& object : m_Objects)
    if (kind == PI::OBJ_NONE || object.m_Kind == kind) known += (known.empty() ? "" : ", ") + NameOf(object);
  const char* const what = kind == PI::OBJ_PHYSICAL_DRIVE  ? "disk"
                           : kind == PI::OBJ_LOGICAL_DRIVE ? "array"
                                                           : "object";
  std::string other;
  if (const PI::CObject* const object = kind == PI::OBJ_NONE ? nullptr : Match(address, PI::OBJ_NONE))
    other = NameOf(*object) + (object->m_Kind == PI::OBJ_LOGICAL_DRIVE    ? " is an array; "
                               : object->m_Kind == PI::OBJ_PHYSICAL_DRIVE ? " is a disk; "
                                                                          : " is neither; ");
  throw CError(EXIT_NO_OBJECT,
               other + "there is no " + what + " \"" + address + "\"; there " +
                   (known.empty() ? "is none at all" : "are: " + known) +
                   (address.find(',') == std::string::npos ? "" : "; write names with blanks between"));
}

std::optional<unsigned long> IdentifierOf(const std::string& address) {
  char* end = nullptr;
  const unsigned long id = std::strtoul(address.c_str(), &end, 0);
  return address.empty() || *end != '\0' ? std::nullopt : std::optional(id);
}

const PI::CObject* CTopology::ArrayOf(const PI::CObject& disk) const {
  for (const PI::CObject* const array : OfKind(PI::OBJ_LOGICAL_DRIVE))
    if (std::find(array->m_Children.begin(), array->m_Children.end(), disk.m_ID) != array->m_Children.end())
      return array;
  return nullptr;
}

}  // namespace Host
