#include "host/Inventory.h"

#include <algorithm>

#include "Src/md/Array.h"
#include "host/Error.h"
#include "host/Levels.h"
#include "host/Values.h"

namespace Host {

namespace {

ERole RoleOf(const CMachine& machine, const SMdMember& member, const PI::CObject* disk) {
  if (member.m_Mark == 'F') return ERole::FAILED;
  if (disk == nullptr && !machine.Has("/dev/" + member.m_Name)) return ERole::MISSING;
  const auto state = machine.Line("/sys/block/" + member.m_Name + "/device/state");
  if (state && (*state == "offline" || *state == "transport-offline")) return ERole::OFFLINE;
  if (disk != nullptr && NumberOf(*disk, PI::PROP_STATUS) == PI::STATUS_REBUILDING) return ERole::REBUILDING;
  return member.m_Mark == 'S'   ? ERole::SPARE
         : member.m_Mark == 'J' ? ERole::JOURNAL
         : member.m_Mark == 'R' ? ERole::REPLACEMENT
                                : ERole::ACTIVE;
}

/// Where md does not list the array any more.
ERole RoleOf(const PI::CObject& disk) {
  const auto status = NumberOf(disk, PI::PROP_STATUS);
  return status == PI::STATUS_SPARE        ? ERole::SPARE
         : status == PI::STATUS_REBUILDING ? ERole::REBUILDING
         : status == PI::STATUS_OK         ? ERole::ACTIVE
                                           : ERole::FAILED;
}

/// Whether a name is that of a partition of the disk: "sda1" or "nvme0n1p1".
bool IsPartitionOf(const std::string& name, const std::string& disk) {
  if (!name.starts_with(disk) || name.size() == disk.size()) return false;
  std::string rest = name.substr(disk.size());
  // A "p" stands between where the disk's own name ends in a digit.
  if (std::isdigit(static_cast<unsigned char>(disk.back())) != 0) {
    if (rest.size() < 2 || rest.front() != 'p') return false;
    rest.erase(0, 1);
  }
  return std::ranges::all_of(rest, [](unsigned char c) { return std::isdigit(c) != 0; });
}

/// md has no word for it: an array that was started later may go on with its first resync, or may have been
/// stopped uncleanly.
bool IsFirstSync(const CMachine& machine, const SMdArray& array) {
  constexpr std::uint64_t NEAR = 10;  // seconds between the device and the array that is made with it
  if (!array.m_Run || array.m_Run->m_Action != "resync" || !array.m_Run->m_Waiting.empty()) return false;
  const std::string device = "/dev/" + array.m_Name;
  const auto info = Md::CArray(machine.System(), device).Info();
  const auto made = machine.MadeAt(device);
  return info && made && info->ctime + NEAR > *made && *made + NEAR > info->ctime;
}

/// The managed disk that a member is, or is a partition of; null when it is neither.
const PI::CObject* WholeDiskOf(const CTopology& topology, const std::string& name,
                               const PI::CObject* itself) {
  if (itself != nullptr) return itself;
  for (const PI::CObject* const disk : topology.OfKind(PI::OBJ_PHYSICAL_DRIVE))
    if (IsPartitionOf(name, NameOf(*disk))) return disk;
  return nullptr;
}

SArrayEntry EntryOfArray(const CTopology& topology, const CMachine& machine, const PI::CObject& object,
                         const std::vector<SMdArray>& arrays) {
  const auto level = NumberOf(object, PI::PROP_RAID_LEVEL);
  SArrayEntry entry{object, NameOf(object),
                    level ? WordOf(static_cast<unsigned int>(*level)) : std::string()};
  unsigned int gone = 0;  // md counts these among the working ones still
  if (const SMdArray* const md = FindArray(arrays, entry.m_Name)) {
    entry.m_Md = *md;
    if (machine.Line("/sys/block/" + entry.m_Name + "/md/array_state") == "broken")
      entry.m_Md->m_Broken = true;
    entry.m_IsFirstSync = IsFirstSync(machine, *md);
    for (const SMdMember& member : md->m_Members) {
      const PI::CObject* const disk = topology.FindDisk(member.m_Name);
      const ERole role = RoleOf(machine, member, disk);
      const bool isLost = role == ERole::MISSING || role == ERole::OFFLINE;
      entry.m_Members.push_back({member.m_Name, disk, WholeDiskOf(topology, member.m_Name, disk), role,
                                 isLost && member.m_Mark == 'S'});
      gone += isLost && member.m_Mark == 0 ? 1 : 0;
    }
  } else {
    for (const unsigned long id : object.m_Children)
      if (const PI::CObject* const disk = topology.FindID(id))
        entry.m_Members.push_back({NameOf(*disk), disk, disk, RoleOf(*disk)});
  }
  // md lists members as they came; people look for names.
  std::ranges::stable_sort(entry.m_Members, {}, [](const SMember& member) {
    return std::pair(member.m_Role == ERole::SPARE, std::pair(member.m_Name.size(), member.m_Name));
  });
  entry.m_Present =
      static_cast<unsigned int>(std::ranges::count(entry.m_Members, ERole::ACTIVE, &SMember::m_Role));
  if (entry.m_Md && entry.m_Md->m_Slots) {
    entry.m_Wanted = *entry.m_Md->m_Slots;
    const unsigned int working = entry.m_Md->m_Working.value_or(entry.m_Present);
    entry.m_Present = working - std::min(working, gone);
  } else {
    entry.m_Wanted = static_cast<unsigned int>(entry.m_Members.size());
  }
  // Where a start, or udev after a disk went, has left an array read-only until it is written to, md tells of
  // a resync that waits for that, and of a rebuild nothing.
  if (entry.m_Md && entry.m_Md->m_ReadOnly == "auto-read-only" && !entry.m_Md->m_Run &&
      entry.m_Present < entry.m_Wanted && std::ranges::any_of(entry.m_Members, [](const SMember& member) {
        return member.m_Role == ERole::SPARE || member.m_Role == ERole::REBUILDING;
      }))
    entry.m_Md->m_Run = SMdRun{"recovery", "PENDING"};
  return entry;
}

}  // namespace

const char* WordOf(ERole role) {
  constexpr const char* WORDS[] = {"active",  "spare",   "failed",  "rebuilding",
                                   "missing", "offline", "journal", "replacement"};
  return WORDS[static_cast<std::size_t>(role)];
}

std::string SArrayEntry::MembersText() const {
  std::string text;
  for (const SMember& member : m_Members) {
    text += (text.empty() ? "" : " ") + member.m_Name;
    if (member.m_Role == ERole::SPARE) text += "(S)";
    if (member.m_Role == ERole::FAILED) text += "(F)";
    if (member.m_Role >= ERole::MISSING) text += std::string("(") + WordOf(member.m_Role) + ")";
  }
  return text;
}

std::string SArrayEntry::ActivityText() const {
  if (m_Md && m_Md->m_Run) {
    const SMdRun& run = *m_Md->m_Run;
    const std::string words = " (md)";
    if (run.m_Waiting == "PENDING") return "Waiting for the first write" + words;
    if (run.m_Waiting == "DELAYED") return "Waiting for another array" + words;
    if (!run.m_Waiting.empty()) return "Waiting" + words;
    if (run.m_Action == "check") return "Checking (md)";
    if (run.m_Action == "reshape") return "Reshaping (md)";
  }
  std::string text = Host::ActivityText(m_Object);
  if (m_IsFirstSync && ProgressOf(m_Object))
    text = "First sync " + TextOf(m_Object, PI::PROP_RESYNC_PROGRESS) + " (md)";
  if (m_Md && m_Md->m_Broken) text += ", broken (md)";
  if (m_Md && m_Md->m_ReadOnly == "auto-read-only") text += ", read-only until written (md)";
  if (m_Md && m_Md->m_ReadOnly == "read-only") text += ", read-only (md)";
  return text;
}

bool SArrayEntry::HasMembers(std::vector<std::string> names) const {
  std::vector<std::string> own;
  for (const SMember& member : m_Members) own.push_back(member.m_Name);
  std::ranges::sort(own);
  std::ranges::sort(names);
  return own == names;
}

std::vector<std::string> SArrayEntry::Of(ERole role) const {
  std::vector<std::string> names;
  for (const SMember& member : m_Members)
    if (member.m_Role == role) names.push_back(member.m_Name);
  return names;
}

CInventory::CInventory(const CTopology& topology, const CMachine& machine)
    : m_Topology(topology), m_Machine(machine) {
  const std::vector<SMdArray> md = ParseMdStat(machine.MdStat().value_or(""));
  for (const PI::CObject* const array : topology.OfKind(PI::OBJ_LOGICAL_DRIVE))
    m_Arrays.push_back(EntryOfArray(topology, machine, *array, md));
}

const SArrayEntry& CInventory::EntryOf(const PI::CObject& array) const {
  return *std::ranges::find_if(m_Arrays, [&](const SArrayEntry& entry) { return &entry.m_Object == &array; });
}

const PI::CObject& CInventory::Find(const std::string& address, PI::_OBJECT_KIND kind) const {
  if (address.empty()) throw CError(EXIT_USAGE, "an empty name names nothing: is a script's variable unset?");
  if (const PI::CObject* const object = m_Topology.Match(address, kind)) return *object;
  const PI::CObject* found = nullptr;
  for (const PI::CObject& object : m_Topology.Objects()) {
    const bool isArray = object.m_Kind == PI::OBJ_LOGICAL_DRIVE;
    if (!isArray && object.m_Kind != PI::OBJ_PHYSICAL_DRIVE) continue;
    if (kind != PI::OBJ_NONE && kind != object.m_Kind) continue;
    const SDeviceFacts facts = FactsOf(object);
    const bool byID = std::ranges::any_of(facts.m_ByID, [&](const std::string& path) {
      return path == address || path.ends_with((isArray ? "/md-uuid-" : "/") + address);
    });
    if (address != facts.m_Serial && address != facts.m_WWN && !byID) continue;
    if (found != nullptr)
      throw CError(EXIT_USAGE, "\"" + address + "\" is " + NameOf(*found) + " and " + NameOf(object) +
                                   ": name the " + (isArray ? "array" : "disk"));
    found = &object;
  }
  if (found == nullptr) m_Topology.ThrowUnknown(address, kind);
  return *found;
}

const PI::CObject& CInventory::FindForChange(const std::string& address, PI::_OBJECT_KIND kind) const {
  const PI::CObject& object = Find(address, kind);
  RequireLastingName(address, object.m_ID, NameOf(object));
  return object;
}

void CInventory::Remember() {
  for (const PI::CObject& object : m_Topology.Objects())
    if (object.m_Kind == PI::OBJ_PHYSICAL_DRIVE || object.m_Kind == PI::OBJ_LOGICAL_DRIVE)
      m_Facts[object.m_ID] = FactsOf(object);
}

SDeviceFacts CInventory::FactsOf(const PI::CObject& object) const {
  if (const auto known = m_Facts.find(object.m_ID); known != m_Facts.end()) return known->second;
  return m_Machine.Facts(TextOf(object, PI::PROP_DEVICE_PATH));
}

void RequireLastingName(const std::string& address, unsigned long id, const std::string& name) {
  if (IdentifierOf(address) == id)
    throw CError(EXIT_USAGE, address + " is the identifier of " + name +
                                 " in this run alone, and another run may mean another by it: name it by "
                                 "kernel name, path, serial number or /dev/disk/by-id");
}

}  // namespace Host
