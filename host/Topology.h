#pragma once
/// @file
/// One look at the topology: finding objects by what people call them, and their properties as people read
/// them.

#include <optional>
#include <string>
#include <vector>

#include "host/Session.h"

namespace rvxctl {

/// A property's value of one object; null when the object does not have it.
const PI::CProperty* FindProperty(const PI::CObject& object, PI::_PROPERTY_ID id);
/// The value as a number: of a range, choice or unsigned property.
std::optional<long> NumberOf(const PI::CObject& object, PI::_PROPERTY_ID id);
/// The value as a person reads it, with its unit; empty when the object does not have it.
std::string TextOf(const CTexts& texts, const PI::CObject& object, PI::_PROPERTY_ID id);
std::string TextOf(const CTexts& texts, const PI::CProperty& property);
/// What runs on an array and how far it is: "Resyncing 34%".
std::string ActivityText(const CTexts& texts, const PI::CObject& array);
std::string LabelOf(const CTexts& texts, const PI::CProperty& property);
/// A property whose value the plug-in does not know, such as SMART figures of a disk without SMART.
bool IsUnknown(const PI::CProperty& property);
/// "sda" or "md_d0"; "plugin" and "adapter" for these two.
std::string NameOf(const PI::CObject& object);
std::string HexadecimalID(unsigned long id);
/// MiB as a person reads it: "4.0 GiB".
std::string SizeText(std::optional<long> mebibytes);

class CTopology {
 public:
  explicit CTopology(CSession& session) : m_Objects(session.Topology()) {}

  const std::vector<PI::CObject>& Objects() const { return m_Objects; }
  const PI::CObject& Plugin() const { return m_Objects[0]; }
  const PI::CObject& Adapter() const { return m_Objects[1]; }
  std::vector<const PI::CObject*> OfKind(PI::_OBJECT_KIND kind) const;
  const PI::CObject* FindID(unsigned long id) const;
  /// The object of a kernel name, path (links are followed), device key or identifier; "plugin" and "adapter"
  /// too. Of any kind for OBJ_NONE. Throws CError(EXIT_NO_OBJECT), which lists what there is.
  const PI::CObject& Find(const std::string& address, PI::_OBJECT_KIND kind = PI::OBJ_NONE) const;
  /// The array that lists the disk as a member; null when none does.
  const PI::CObject* ArrayOf(const PI::CObject& disk) const;
  /// The names of all objects with these identifiers, in order, separated by blanks.
  std::string Names(const std::vector<unsigned long>& ids) const;

 private:
  std::vector<PI::CObject> m_Objects;
};

}  // namespace rvxctl
