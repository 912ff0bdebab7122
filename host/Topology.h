#pragma once
/// @file
/// One look at the topology: finding objects by what people call them.

#include <optional>
#include <string>
#include <vector>

#include "host/Session.h"

namespace Host {

class CTopology {
 public:
  explicit CTopology(CSession& session) : m_Objects(session.Topology()) {}

  const std::vector<PI::CObject>& Objects() const { return m_Objects; }
  const PI::CObject& Plugin() const { return m_Objects[0]; }
  const PI::CObject& Adapter() const { return m_Objects[1]; }
  std::vector<const PI::CObject*> OfKind(PI::_OBJECT_KIND kind) const;
  const PI::CObject* FindID(unsigned long id) const;
  /// The disk or array of that kernel name; null when there is none.
  const PI::CObject* FindDisk(const std::string& name) const;
  const PI::CObject* FindArray(const std::string& name) const;
  /// The object of a kernel name, path (links are followed), device key or identifier; "plugin" and "adapter"
  /// too. Of any kind for OBJ_NONE. Throws CError(EXIT_NO_OBJECT), which lists what there is.
  const PI::CObject& Find(const std::string& address, PI::_OBJECT_KIND kind = PI::OBJ_NONE) const;
  /// The same, and null when there is none.
  const PI::CObject* Match(const std::string& address, PI::_OBJECT_KIND kind) const;
  [[noreturn]] void ThrowUnknown(const std::string& address, PI::_OBJECT_KIND kind) const;
  /// The array that lists the disk as a member; null when none does.
  const PI::CObject* ArrayOf(const PI::CObject& disk) const;

 private:
  const PI::CObject* FindNamed(const std::string& name, PI::_OBJECT_KIND kind) const;

  std::vector<PI::CObject> m_Objects;
};

/// The identifier that is written so, such as "0x0127000000000004"; none when it is no number.
std::optional<unsigned long> IdentifierOf(const std::string& address);

}  // namespace Host
