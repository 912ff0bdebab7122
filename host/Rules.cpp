#include "host/Rules.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "Src/md/Array.h"
#include "Src/md/Members.h"
#include "Src/md/ProcTexts.h"
#include "Src/md/Superblock.h"
#include "host/Levels.h"
#include "host/Texts.h"
#include "host/Values.h"
#include "system/Descriptor.h"

namespace Host::Rules {

namespace {

[[noreturn]] void Wrong(const std::string& message) { throw CError(EXIT_USAGE, message); }
/// `rule`: a word that programs know it by; the API's description lists them.
[[noreturn]] void Forbidden(const char* rule, const std::string& object, const std::string& message) {
  CError error(EXIT_NOT_ALLOWED, message);
  error.m_Rule = rule;
  error.m_Object = object;
  throw CError(error);
}

std::string PathOf(const PI::CObject& object) { return TextOf(object, PI::PROP_DEVICE_PATH); }

std::uint64_t KiBOf(const CInventory& inventory, const PI::CObject& disk) {
  return inventory.FactsOf(disk).m_Bytes.value_or(0) >> 10;
}

std::string MetadataOf(const SArrayEntry& array) {
  return array.m_Md->m_Metadata.empty() ? "0.90" : array.m_Md->m_Metadata;
}

/// What keeps a disk from being free; no text when nothing does.
struct SUse {
  const char* m_Rule;
  std::string m_Text;
};

SUse UseOf(const CInventory& inventory, const PI::CObject& disk) {
  const auto status = NumberOf(disk, PI::PROP_STATUS);
  const std::string name = NameOf(disk);
  for (const SArrayEntry& array : inventory.Arrays())
    for (const SMember& member : array.m_Members) {
      if (member.m_Whole != &disk) continue;
      const char* const role = member.m_Role == ERole::SPARE    ? " is a hot spare of "
                               : member.m_Role == ERole::FAILED ? " is a failed member of "
                                                                : " is a member of ";
      return {"disk-in-array", std::string(member.m_Name).append(role).append(array.m_Name)};
    }
  if (status == PI::STATUS_READY) return {"", {}};
  const std::vector<std::string> uses = inventory.Machine().Contents(PathOf(disk)).m_InUse;
  if (!uses.empty()) return {"disk-in-use", Joined(uses)};
  if (status == PI::STATUS_OK) return {"disk-held", name + " is held open by another program"};
  return {"disk-not-ready", name + " is not ready: " + TextOf(disk, PI::PROP_STATUS)};
}

void RequireReadable(const CInventory& inventory, const std::string& name) {
  if (!inventory.Machine().Contents("/dev/" + name).m_IsReadable)
    Forbidden(
        "disk-unreadable", name,
        name +
            " cannot be read, and so not be written to safely: it is asleep (wake it), offline or failing "
            "(the kernel log tells)");
}

void RequireFree(const CInventory& inventory, const PI::CObject& disk) {
  if (const SUse use = UseOf(inventory, disk); !use.m_Text.empty())
    Forbidden(use.m_Rule, NameOf(disk), use.m_Text + "; only a disk that nothing uses can be taken");
  RequireReadable(inventory, NameOf(disk));
}

/// What must be in the kernel before a disk is written to.
void RequireMd(const CInventory& inventory, const SNewArray& wanted) {
  const CMachine& machine = inventory.Machine();
  const auto mdstat = machine.MdStat();
  if (!mdstat) Forbidden("md-missing", "md", "md is not in the kernel: modprobe md-mod");
  const bool known =
      mdstat->substr(0, mdstat->find('\n')).find("[" + wanted.m_Word + "]") != std::string::npos;
  // The kernel loads a missing level by itself when there is one to load.
  if (!known && machine.Runs("modprobe", "--dry-run --quiet md-" + wanted.m_Word) == false)
    Forbidden("level-missing", wanted.m_Word,
              "this kernel has no " + wanted.m_Word + ": there is no module md-" + wanted.m_Word);
  if (const auto devices = OS::ReadText(machine.System(), "/proc/devices");
      devices && Md::ParseMdMajor(*devices) < 0)
    Forbidden("md-not-partitionable", "md",
              "this kernel has no partitionable md devices (no \"mdp\" in /proc/devices): modprobe md-mod");
  if (machine.Line("/sys/module/md_mod/parameters/create_on_open") == "N")
    Forbidden("md-not-created-on-open", "md",
              "md makes no array when its device node is opened: echo Y "
              ">/sys/module/md_mod/parameters/create_on_open");
  if (machine.IsHere() && ::access("/dev", W_OK) != 0)
    Forbidden("dev-not-writable", "/dev",
              "/dev cannot be written to: the array's device node could not be made there");
}

/// md asks how RAID 0 is laid out where two members or more go on behind the end of the smallest, and stops
/// half-way when nobody has said.
void RequireLayout(const CInventory& inventory, const SNewArray& wanted) {
  if (wanted.m_Word != "raid0") return;
  std::vector<std::uint64_t> chunks;
  for (const PI::CObject* const disk : wanted.m_Disks)
    chunks.push_back(Md::UsableSize(KiBOf(inventory, *disk)) / wanted.ChunkKiB());
  const std::uint64_t least = *std::ranges::min_element(chunks);
  if (std::ranges::count_if(chunks, [least](std::uint64_t count) { return count > least; }) < 2) return;
  const CMachine& machine = inventory.Machine();
  const auto layout = machine.Line("/sys/module/raid0/parameters/default_layout");
  if (layout == "0" || (!layout && machine.MdStat().value_or("").find("[raid0]") == std::string::npos))
    Forbidden(
        "raid0-layout-unset", "raid0",
        "the disks have several sizes, and md was not told how to lay out such a raid0: " +
            std::string(layout
                            ? "echo 2 >/sys/module/raid0/parameters/default_layout"
                            : "modprobe raid0 default_layout=2, or modprobe raid0 where modprobe.d says so"));
}

/// What md uses of each member; 0 when it does not tell: its record has 32 bits for it.
std::uint64_t ComponentKiB(const CMachine& machine, const std::string& array, const mdu_array_info_s& info) {
  if (const auto size = machine.Line("/sys/block/" + array + "/md/component_size"))
    return std::strtoull(size->c_str(), nullptr, 10);
  return info.size > 0 ? static_cast<std::uint64_t>(info.size) : 0;
}

void RequireWritable(const SArrayEntry& array) {
  if (array.m_Md && array.m_Md->m_ReadOnly == "read-only")
    Forbidden("array-read-only", array.m_Name,
              array.m_Name + " is read-only, and md changes nothing of it: mdadm --readwrite");
}

void RequireOwnNumber(const CInventory& inventory, const PI::CObject& array) {
  const auto number = NumberOf(array, PI::PROP_ARRAY_NUMBER);
  for (const SArrayEntry& other : inventory.Arrays())
    if (&other.m_Object != &array && NumberOf(other.m_Object, PI::PROP_ARRAY_NUMBER) == number)
      Forbidden("array-number-shared", NameOf(array),
                NameOf(array) + " and " + other.m_Name +
                    " have the same number, and the plug-in is told the number alone: stop one of them with "
                    "mdadm --stop, or use mdadm for this change");
}

/// The request alone, whatever the state.
void RequireDistinct(const CInventory& inventory, const SNewArray& wanted) {
  const std::size_t count = wanted.m_Disks.size();
  const unsigned int least = wanted.m_Level.m_MinimumDrives;
  const unsigned int most = wanted.m_Level.m_MaximumDrives;
  if (count < least || count > most)
    Wrong("a " + wanted.m_Word + " is made of " +
          (least == most ? "exactly " + std::to_string(least)
                         : std::to_string(least) + " to " + std::to_string(most)) +
          " disks, and " + std::to_string(count) + (count == 1 ? " is" : " are") + " named");
  for (std::size_t i = 0; i < count; ++i)
    for (std::size_t j = 0; j < i; ++j) {
      const std::string wwn = inventory.FactsOf(*wanted.m_Disks[i]).m_WWN;
      if (wanted.m_Disks[i] != wanted.m_Disks[j] && !wwn.empty() &&
          wwn == inventory.FactsOf(*wanted.m_Disks[j]).m_WWN)
        Wrong(NameOf(*wanted.m_Disks[j]) + " and " + NameOf(*wanted.m_Disks[i]) + " have one WWN (" + wwn +
              "): they are two paths to the same disk");
      if (wanted.m_Disks[i] == wanted.m_Disks[j])
        Wrong(NameOf(*wanted.m_Disks[i]) + " is named twice: as \"" + wanted.m_Addresses[j] + "\" and as \"" +
              wanted.m_Addresses[i] + "\"");
    }
}

}  // namespace

std::uint64_t SmallestKiB(const CInventory& inventory, const SNewArray& wanted) {
  std::uint64_t smallest = ~std::uint64_t{0};
  for (const PI::CObject* const disk : wanted.m_Disks) smallest = std::min(smallest, KiBOf(inventory, *disk));
  return smallest;
}

unsigned int SNewArray::ChunkKiB() const {
  const unsigned int stripe = m_Stripe.value_or(PI::STRIPE_64K);
  // As the plug-in understands it: a mirror has chunks too, and 64 KiB are each level's own default.
  if (stripe == PI::STRIPE_64K) return m_Word == "linear" ? 4 : 64;
  return static_cast<unsigned int>(std::stoul(WordOf(stripe)));
}

std::optional<std::uint64_t> MirrorKiB(const CInventory& inventory, const SNewArray& wanted) {
  const std::uint64_t usable = Md::UsableSize(SmallestKiB(inventory, wanted));
  const auto sectors =
      static_cast<std::int32_t>(static_cast<std::uint32_t>(usable - usable % wanted.ChunkKiB()) * 2U);
  if (sectors <= 0) return std::nullopt;
  return static_cast<std::uint64_t>(sectors) / 2;
}

void RequireCreatable(const CInventory& inventory, const SNewArray& wanted) {
  RequireDistinct(inventory, wanted);
  for (const PI::CObject* const disk : wanted.m_Disks) {
    RequireFree(inventory, *disk);
    const std::uint64_t least = std::uint64_t{wanted.ChunkKiB()} + 140;
    if (KiBOf(inventory, *disk) < least)
      Forbidden("disk-too-small", NameOf(*disk),
                NameOf(*disk) + " is too small: " + SizeOfKiB(KiBOf(inventory, *disk)) +
                    ", and a member needs " + std::to_string(least) + " KiB");
  }
  RequireMd(inventory, wanted);
  RequireLayout(inventory, wanted);
  if (wanted.m_Word == "raid1" && !MirrorKiB(inventory, wanted))
    Forbidden("mirror-size-refused", wanted.m_Word,
              "md refuses this mirror: its smallest disk has " + SizeOfKiB(SmallestKiB(inventory, wanted)) +
                  ", and between an odd number of TiB and the next even one the size that the plug-in writes "
                  "is wrong");
}

void RequireTakesSpare(const CInventory& inventory, const PI::CObject& array) {
  RequireOwnNumber(inventory, array);
  const SArrayEntry& entry = inventory.EntryOf(array);
  if (!entry.m_Md || !entry.m_Md->m_Active)
    Forbidden("array-not-running", entry.m_Name, entry.m_Name + " does not run: it takes no spare");
  if (!entry.m_Md->m_Slots)
    Forbidden("level-without-redundancy", entry.m_Name,
              entry.m_Name + " is " + TextOf(array, PI::PROP_RAID_LEVEL) +
                  ": a level without redundancy takes no spare");
  if (entry.m_Md->m_Metadata != "1.0")
    Forbidden("metadata-unknown", entry.m_Name,
              entry.m_Name + " has metadata " + MetadataOf(entry) +
                  ", and the plug-in knows version 1.0 alone: use mdadm --add");
  RequireWritable(entry);
  const Md::CArray device(inventory.Machine().System(), PathOf(array));
  const auto info = device.Info();
  if (!info) return;
  if (info->level == 1 && info->chunk_size == 0)
    Forbidden("mirror-without-chunk-size", entry.m_Name,
              entry.m_Name + " is a mirror without a chunk size, as mdadm makes it: use mdadm --add");
  // The plug-in copies the superblock of this one.
  const Md::TDisk working = Md::FindWorkingMember(device.Disks(), info->raid_disks);
  const auto isWorking = [&](const PI::CObject* one) {
    return working && inventory.FactsOf(*one).m_Number ==
                          std::to_string(working->major) + ":" + std::to_string(working->minor);
  };
  if (std::ranges::none_of(inventory.Topology().OfKind(PI::OBJ_PHYSICAL_DRIVE), isWorking))
    Forbidden("member-not-managed", entry.m_Name,
              "the first working member of " + entry.m_Name +
                  " is a partition or no managed disk, and its superblock cannot be copied: use mdadm --add");
}

void RequireSpare(const CInventory& inventory, const PI::CObject& disk, const PI::CObject& array) {
  RequireTakesSpare(inventory, array);
  RequireFree(inventory, disk);
  const SArrayEntry& entry = inventory.EntryOf(array);
  const auto info = Md::CArray(inventory.Machine().System(), PathOf(array)).Info();
  if (!info) return;
  const std::uint64_t needed = ComponentKiB(inventory.Machine(), entry.m_Name, *info);
  if (Md::UsableSize(KiBOf(inventory, disk)) < needed)
    Forbidden("disk-too-small", NameOf(disk),
              NameOf(disk) + " is too small: " + SizeOfKiB(KiBOf(inventory, disk)) + ", and a member of " +
                  entry.m_Name + " needs " + SizeOfKiB(needed + 140));
}

void RequireRelease(const CInventory& inventory, const PI::CObject& disk) {
  for (const SArrayEntry& array : inventory.Arrays())
    for (const SMember& member : array.m_Members) {
      if (member.m_Disk != &disk) continue;
      constexpr ERole WORKING[] = {ERole::ACTIVE, ERole::REBUILDING, ERole::JOURNAL, ERole::REPLACEMENT};
      if (std::ranges::find(WORKING, member.m_Role) != std::end(WORKING))
        Forbidden("member-works", NameOf(disk),
                  NameOf(disk) + " is a working member of " + array.m_Name +
                      "; only a spare or a failed member can be released");
      RequireWritable(array);
      const auto state = inventory.Machine().Line("/sys/block/" + member.m_Name + "/device/state");
      if (member.m_Role == ERole::OFFLINE || (state && *state != "running"))
        Forbidden("member-offline", member.m_Name,
                  member.m_Name +
                      " is offline, and the plug-in lets go only of what it can wipe: 'mdadm --manage /dev/" +
                      array.m_Name + " --remove /dev/" + member.m_Name + "'");
      return RequireOwnNumber(inventory, array.m_Object);
    }
  for (const SArrayEntry& array : inventory.Arrays())
    for (const SMember& member : array.m_Members)
      if (member.m_Whole == &disk)
        Forbidden("member-is-partition", NameOf(disk),
                  member.m_Name + ", a partition of " + NameOf(disk) + ", is the member of " + array.m_Name +
                      ": use mdadm --remove");
}

void RequireRebuild(const CInventory& inventory, const PI::CObject& array, bool start) {
  const SArrayEntry& entry = inventory.EntryOf(array);
  const std::vector<std::string> failed = entry.Of(ERole::FAILED);
  if (start && IsOneOf(array, PI::PROP_STATUS, {PI::STATUS_DEGRADED, PI::STATUS_FAILED}))
    Forbidden(
        "rebuild-not-startable", entry.m_Name,
        "this kernel does not start a rebuild on the plug-in's request; " +
            (failed.empty() ? std::string("add a spare: 'rvxctl spare add DISK ")
                            : "release " + failed.front() + " ('rvxctl spare release " + failed.front() +
                                  "') and add it or another disk: 'rvxctl spare add DISK ") +
            entry.m_Name + "'");
  if (!start && NumberOf(array, PI::PROP_ACTIVITY) == PI::ACTIVITY_REBUILDING)
    Forbidden("rebuild-not-cancellable", NameOf(array),
              "this kernel does not end a rebuild on the plug-in's request: mdadm --fail the new disk");
}

void RequireDeletable(const CInventory& inventory, const PI::CObject& array, bool partitionMembers) {
  const SArrayEntry& entry = inventory.EntryOf(array);
  RequireOwnNumber(inventory, array);
  if (const SContents contents = inventory.Machine().Contents(PathOf(array)); !contents.m_InUse.empty())
    Forbidden("array-in-use", entry.m_Name, entry.m_Name + " is in use: " + Joined(contents.m_InUse));
  if (entry.m_Md && entry.m_Md->m_Active && entry.m_Md->m_Metadata != "1.0")
    Forbidden(
        "metadata-unknown", entry.m_Name,
        entry.m_Name + " has metadata " + MetadataOf(entry) +
            ", and only an array with version 1.0 can be deleted: use mdadm --stop and --zero-superblock");
  // The plug-in looks at every array whose name contains this one's.
  for (const SMdArray& other : ParseMdStat(inventory.Machine().MdStat().value_or("")))
    if (other.m_Name != entry.m_Name && other.m_Name.find(entry.m_Name) != std::string::npos &&
        other.m_Active && other.m_Metadata != "1.0")
      Forbidden("array-name-ambiguous", entry.m_Name,
                entry.m_Name + " cannot be told apart from " + other.m_Name +
                    ", whose metadata is not version 1.0: use mdadm --stop and --zero-superblock");
  if (const OS::CDescriptor held(inventory.Machine().System(), PathOf(array), O_RDONLY | O_EXCL);
      !held.IsOpen() && errno == EBUSY)
    Forbidden("array-held", entry.m_Name, entry.m_Name + " is held open by another program");
  bool managed = false;
  for (const SMember& member : entry.m_Members) {
    managed = managed || member.m_Disk != nullptr;
    if (member.m_Disk != nullptr || partitionMembers) continue;
    if (const PI::CObject* const disk = member.m_Whole)
      Forbidden("member-is-partition", entry.m_Name,
                "the member " + member.m_Name + " of " + entry.m_Name +
                    " is a partition: the blank superblock would be written to the end of the whole disk " +
                    NameOf(*disk) +
                    ", into what lies there. Use mdadm --stop and --zero-superblock, or say "
                    "--force-partition-members");
  }
  if (!managed && !partitionMembers)
    Forbidden("member-not-managed", entry.m_Name,
              "no member of " + entry.m_Name + " is a managed disk: use mdadm --stop and --zero-superblock");
}

}  // namespace Host::Rules
