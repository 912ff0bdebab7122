#include "host/Rules.h"

#include <unistd.h>

#include <algorithm>

#include "Src/md/Array.h"
#include "Src/md/ProcTexts.h"
#include "Src/md/Superblock.h"
#include "host/Levels.h"
#include "host/Texts.h"
#include "host/Values.h"

namespace rvxctl::Rules {

namespace {

[[noreturn]] void Wrong(const std::string& message) { throw CError(EXIT_USAGE, message); }
[[noreturn]] void Forbidden(const std::string& message) { throw CError(EXIT_NOT_ALLOWED, message); }

std::string PathOf(const PI::CObject& object) { return TextOf(object, PI::PROP_DEVICE_PATH); }

std::uint64_t KiBOf(const CInventory& inventory, const PI::CObject& disk) {
  return inventory.FactsOf(disk).m_Bytes.value_or(0) >> 10;
}

/// "sda1 is mounted at /srv, sda2 is held by dm-0"
std::string Joined(const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) all += (all.empty() ? "" : ", ") + text;
  return all;
}

/// Why a disk is not free; empty when it is.
std::string WhyNotFree(const CInventory& inventory, const PI::CObject& disk) {
  const auto status = NumberOf(disk, PI::PROP_STATUS);
  const std::string name = NameOf(disk);
  for (const SArrayEntry& array : inventory.Arrays())
    for (const SMember& member : array.m_Members) {
      if (member.m_Disk != &disk) continue;
      const std::string role = member.m_Role == ERole::SPARE    ? "a hot spare of "
                               : member.m_Role == ERole::FAILED ? "a failed member of "
                                                                : "a member of ";
      return name + " is " + role + array.m_Name;
    }
  if (status == PI::STATUS_READY) return {};
  const std::vector<std::string> uses = inventory.Machine().Contents(PathOf(disk)).m_InUse;
  if (!uses.empty()) return Joined(uses);
  if (status == PI::STATUS_OK) return name + " is held open by another program";
  return name + " is not ready: " + TextOf(disk, PI::PROP_STATUS);
}

void RequireFree(const CInventory& inventory, const PI::CObject& disk) {
  if (const std::string why = WhyNotFree(inventory, disk); !why.empty())
    Forbidden(why + "; only a disk that nothing uses can be taken");
}

/// What must be in the kernel before a disk is written to.
void RequireMd(const CInventory& inventory, const SNewArray& wanted) {
  const CMachine& machine = inventory.Machine();
  const auto mdstat = machine.MdStat();
  if (!mdstat) Forbidden("md is not in the kernel: modprobe md-mod");
  const bool known =
      mdstat->substr(0, mdstat->find('\n')).find("[" + wanted.m_Word + "]") != std::string::npos;
  // The kernel loads a missing level by itself when there is one to load.
  if (!known && machine.Runs("modprobe", "--dry-run --quiet md-" + wanted.m_Word) == false)
    Forbidden("this kernel has no " + wanted.m_Word + ": there is no module md-" + wanted.m_Word);
  if (const auto devices = OS::ReadText(machine.System(), "/proc/devices");
      devices && Md::ParseMdMajor(*devices) < 0)
    Forbidden("this kernel has no partitionable md devices (no \"mdp\" in /proc/devices): modprobe md-mod");
  if (machine.IsHere() && ::access("/dev", W_OK) != 0)
    Forbidden("/dev cannot be written to: the array's device node could not be made there");
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
    Forbidden("the disks have several sizes, and md was not told how to lay out such a raid0: " +
              std::string(layout ? "echo 2 >/sys/module/raid0/parameters/default_layout"
                                 : "modprobe raid0 default_layout=2"));
}

std::string Sizes(std::uint64_t kibibytes) {
  return kibibytes < 1024 ? std::to_string(kibibytes) + " KiB" : SizeText(static_cast<long>(kibibytes >> 10));
}

/// The name of a partition of that disk: "sda1" or "nvme0n1p1".
bool IsPartitionOf(const std::string& name, const std::string& disk) {
  if (!name.starts_with(disk) || name.size() == disk.size()) return false;
  std::string rest = name.substr(disk.size());
  if (rest.size() > 1 && rest.front() == 'p') rest.erase(0, 1);
  return std::ranges::all_of(rest, [](unsigned char c) { return std::isdigit(c) != 0; });
}

void RequireOwnNumber(const CInventory& inventory, const PI::CObject& array) {
  const auto number = NumberOf(array, PI::PROP_ARRAY_NUMBER);
  for (const SArrayEntry& other : inventory.Arrays())
    if (&other.m_Object != &array && NumberOf(other.m_Object, PI::PROP_ARRAY_NUMBER) == number)
      Forbidden(NameOf(array) + " and " + other.m_Name +
                " have the same number, and the plug-in is told the number alone: stop one of them with "
                "mdadm --stop, or use mdadm for this change");
}

/// The request alone, whatever the state.
void RequireDistinct(const SNewArray& wanted) {
  const std::size_t count = wanted.m_Disks.size();
  const unsigned int least = wanted.m_Level.m_MinimumDrives;
  const unsigned int most = wanted.m_Level.m_MaximumDrives;
  if (count < least || count > most)
    Wrong("a " + wanted.m_Word + " is made of " +
          (least == most ? "exactly " + std::to_string(least)
                         : std::to_string(least) + " to " + std::to_string(most)) +
          " disks, and " + std::to_string(count) + (count == 1 ? " is" : " are") + " named");
  for (std::size_t i = 0; i < count; ++i)
    for (std::size_t j = 0; j < i; ++j)
      if (wanted.m_Disks[i] == wanted.m_Disks[j])
        Wrong(NameOf(*wanted.m_Disks[i]) + " is named twice: as \"" + wanted.m_Addresses[j] + "\" and as \"" +
              wanted.m_Addresses[i] + "\"");
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
  RequireDistinct(wanted);
  for (const PI::CObject* const disk : wanted.m_Disks) {
    RequireFree(inventory, *disk);
    const std::uint64_t least = std::uint64_t{wanted.ChunkKiB()} + 140;
    if (KiBOf(inventory, *disk) < least)
      Forbidden(NameOf(*disk) + " is too small: " + Sizes(KiBOf(inventory, *disk)) + ", and a member needs " +
                std::to_string(least) + " KiB");
  }
  RequireMd(inventory, wanted);
  RequireLayout(inventory, wanted);
  if (wanted.m_Word == "raid1" && !MirrorKiB(inventory, wanted))
    Forbidden("md refuses this mirror: its smallest disk has " + Sizes(SmallestKiB(inventory, wanted)) +
              ", and between 1 and 2 TiB, or 3 and 4, the size that the plug-in writes is wrong");
}

void RequireSpare(const CInventory& inventory, const PI::CObject& disk, const PI::CObject& array) {
  RequireOwnNumber(inventory, array);
  RequireFree(inventory, disk);
  const SArrayEntry& entry = inventory.EntryOf(array);
  if (!entry.m_Md || !entry.m_Md->m_Active) Forbidden(entry.m_Name + " does not run: it takes no spare");
  if (!entry.m_Md->m_Slots)
    Forbidden(entry.m_Name + " is " + TextOf(array, PI::PROP_RAID_LEVEL) +
              ": a level without redundancy takes no spare");
  if (entry.m_Md->m_Metadata != "1.0")
    Forbidden(entry.m_Name + " has metadata " +
              (entry.m_Md->m_Metadata.empty() ? "0.90" : entry.m_Md->m_Metadata) +
              ", and the plug-in knows version 1.0 alone: use mdadm --add");
  const auto info = Md::CArray(inventory.Machine().System(), PathOf(array)).Info();
  if (!info) return;
  if (info->level == 1 && info->chunk_size == 0)
    Forbidden(entry.m_Name + " is a mirror without a chunk size, as mdadm makes it: use mdadm --add");
  const auto needed = static_cast<std::uint64_t>(static_cast<std::uint32_t>(info->size));
  if (Md::UsableSize(KiBOf(inventory, disk)) < needed)
    Forbidden(NameOf(disk) + " is too small: " + Sizes(KiBOf(inventory, disk)) + ", and a member of " +
              entry.m_Name + " needs " + Sizes(needed + 140));
}

void RequireRelease(const CInventory& inventory, const PI::CObject& disk) {
  for (const SArrayEntry& array : inventory.Arrays())
    for (const SMember& member : array.m_Members) {
      if (member.m_Disk != &disk) continue;
      if (member.m_Role == ERole::ACTIVE || member.m_Role == ERole::REBUILDING)
        Forbidden(NameOf(disk) + " is a working member of " + array.m_Name +
                  "; only a spare or a failed member can be released");
      return RequireOwnNumber(inventory, array.m_Object);
    }
}

void RequireRebuild(const CInventory& inventory, const PI::CObject& array, bool start) {
  const SArrayEntry& entry = inventory.EntryOf(array);
  const std::vector<std::string> failed = entry.Failed();
  if (start && NumberOf(array, PI::PROP_STATUS) == PI::STATUS_DEGRADED)
    Forbidden("this kernel does not start a rebuild on the plug-in's request; " +
              (failed.empty() ? std::string("add a spare: 'rvxctl spare add DISK ")
                              : "release " + failed.front() + " ('rvxctl spare release " + failed.front() +
                                    "') and add it or another disk: 'rvxctl spare add DISK ") +
              entry.m_Name + "'");
  if (!start && NumberOf(array, PI::PROP_ACTIVITY) == PI::ACTIVITY_REBUILDING)
    Forbidden("this kernel does not end a rebuild on the plug-in's request: mdadm --fail the new disk");
}

void RequireDeletable(const CInventory& inventory, const PI::CObject& array, bool partitionMembers) {
  const SArrayEntry& entry = inventory.EntryOf(array);
  RequireOwnNumber(inventory, array);
  if (const SContents contents = inventory.Machine().Contents(PathOf(array)); !contents.m_InUse.empty())
    Forbidden(entry.m_Name + " is in use: " + Joined(contents.m_InUse));
  if (entry.m_Md && entry.m_Md->m_Active && entry.m_Md->m_Metadata != "1.0")
    Forbidden(entry.m_Name + " has metadata " +
              (entry.m_Md->m_Metadata.empty() ? "0.90" : entry.m_Md->m_Metadata) +
              ", and only an array with version 1.0 can be deleted: use mdadm --stop and --zero-superblock");
  bool managed = false;
  for (const SMember& member : entry.m_Members) {
    managed = managed || member.m_Disk != nullptr;
    if (member.m_Disk != nullptr || partitionMembers) continue;
    for (const PI::CObject* const disk : inventory.Topology().OfKind(PI::OBJ_PHYSICAL_DRIVE))
      if (IsPartitionOf(member.m_Name, NameOf(*disk)))
        Forbidden("the member " + member.m_Name + " of " + entry.m_Name +
                  " is a partition: the blank superblock would be written to the end of the whole disk " +
                  NameOf(*disk) +
                  ", into what lies there. Use mdadm --stop and --zero-superblock, or say "
                  "--force-partition-members");
  }
  if (!managed && !partitionMembers)
    Forbidden("no member of " + entry.m_Name + " is a managed disk: use mdadm --stop and --zero-superblock");
}

}  // namespace rvxctl::Rules
