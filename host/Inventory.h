#pragma once
/// @file
/// Disks and arrays as people and programs are told of them: the plug-in's answers, beside them what md, udev
/// and the kernel say.

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/Machine.h"
#include "host/MdStat.h"
#include "host/Topology.h"

namespace Host {

/// What a disk is to its array.
/// MISSING: md counts on it, but the machine has no such device; OFFLINE: the kernel sends it nothing;
/// REPLACEMENT: it is to take the place of a member that still works.
enum class ERole { ACTIVE, SPARE, FAILED, REBUILDING, MISSING, OFFLINE, JOURNAL, REPLACEMENT };
/// "active", "spare", ...
const char* WordOf(ERole role);

struct SMember {
  std::string m_Name;          ///< also of a partition, or of a disk that is not managed
  const PI::CObject* m_Disk;   ///< null: not managed as a whole
  const PI::CObject* m_Whole;  ///< the managed disk that it is, or is a partition of; null: neither
  ERole m_Role;
  bool m_IsLostSpare{false};  ///< a spare that is missing or offline: the array works without it
};

/// An array. Its references live as long as the topology.
struct SArrayEntry {
  const PI::CObject& m_Object;
  std::string m_Name;
  std::string m_Level;             ///< as on the command line: "raid1"
  std::optional<SMdArray> m_Md{};  ///< none: md does not list it
  std::vector<SMember> m_Members{};
  unsigned int m_Present{0};  ///< members that work
  unsigned int m_Wanted{0};   ///< members that it was made of
  /// It resynchronises for the first time: its device came with the array, and not with a later start.
  bool m_IsFirstSync{false};

  /// "sda sdb(F) sde(S)", as md marks them; what it does not know is a word: "sdc(missing)".
  std::string MembersText() const;
  /// What runs and how far it is, or what it waits for: "Resyncing 12%". What only md tells is marked so:
  /// "Waiting for another array (md)".
  std::string ActivityText() const;
  /// Whether its members are these disks and no others.
  bool HasMembers(std::vector<std::string> names) const;
  /// The names of the members with this role.
  std::vector<std::string> Of(ERole role) const;
};

class CInventory {
 public:
  CInventory(const CTopology& topology, const CMachine& machine);

  const CTopology& Topology() const { return m_Topology; }
  const CMachine& Machine() const { return m_Machine; }
  /// In the topology's order.
  const std::vector<SArrayEntry>& Arrays() const { return m_Arrays; }
  /// The entry of an array's object.
  const SArrayEntry& EntryOf(const PI::CObject& array) const;
  /// As CTopology::Find; a disk's serial number, WWN and name below /dev/disk/by-id too, and an array's UUID,
  /// where one object alone has it. Throws CError.
  const PI::CObject& Find(const std::string& address, PI::_OBJECT_KIND kind) const;
  /// The same of an object that is to be changed: an identifier, which another run gives to another object,
  /// is refused.
  const PI::CObject& FindForChange(const std::string& address, PI::_OBJECT_KIND kind) const;
  /// What kernel and udev know of a disk or array: read now, unless it was remembered.
  SDeviceFacts FactsOf(const PI::CObject& object) const;
  /// Reads the facts of all disks and arrays, so that this is a picture of one moment.
  void Remember();

 private:
  const CTopology& m_Topology;
  const CMachine& m_Machine;
  std::vector<SArrayEntry> m_Arrays;
  std::map<unsigned long, SDeviceFacts> m_Facts;  ///< by identifier
};

/// Throws CError(EXIT_USAGE) when the address is the object's identifier, which another run gives to another
/// one.
void RequireLastingName(const std::string& address, unsigned long id, const std::string& name);

}  // namespace Host
