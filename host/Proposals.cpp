#include "host/Proposals.h"

#include <algorithm>

#include "host/Levels.h"
#include "host/Rules.h"
#include "host/Values.h"

namespace Host {

namespace {

constexpr std::uint64_t MIRROR_LIMIT_KIB = std::uint64_t{1} << 30;

/// "sda, sdb"
std::string Listed(const std::vector<const PI::CObject*>& objects) {
  std::vector<std::string> names;
  for (const PI::CObject* const object : objects) names.push_back(NameOf(*object));
  return Joined(names);
}

/// What tells an array from another one of its name.
std::string BasisOf(const CInventory& inventory, const PI::CObject& array) {
  const SDeviceFacts facts = inventory.FactsOf(array);
  std::string text = facts.m_Number + " " + facts.m_Sequence + " " + inventory.EntryOf(array).MembersText();
  for (const std::string& path : facts.m_ByID) text += " " + path;
  return text + "\n";
}

/// The request as the rules look at it. Throws CError for what is not offered.
Rules::SNewArray WantedBy(const CInventory& inventory, const SRequest& wanted) {
  const std::vector<PI::CLevel> levels = OfferedLevels(inventory.Topology());
  const unsigned int level = LevelOf(levels, wanted.m_Level);
  Rules::SNewArray array{*std::ranges::find(levels, level, &PI::CLevel::m_Level),
                         wanted.m_Level,
                         std::nullopt,
                         {},
                         wanted.m_Disks};
  if (wanted.m_Stripe) array.m_Stripe = StripeOf(levels, *wanted.m_Stripe);
  for (const std::string& address : wanted.m_Disks)
    array.m_Disks.push_back(&inventory.FindForChange(address, PI::OBJ_PHYSICAL_DRIVE));
  return array;
}

/// What is lost by it, and what a person may not expect of it.
std::string LossOf(const CInventory& inventory, const Rules::SNewArray& wanted) {
  std::string loss = "What is on these disks is lost.";
  const auto& stripes = wanted.m_Level.m_StripeSizes;
  if (wanted.m_Stripe && std::ranges::find(stripes, *wanted.m_Stripe) == stripes.end())
    loss += " A " + wanted.m_Word + " has no stripes of " + WordOf(*wanted.m_Stripe) +
            " KiB; its size is rounded to that, nothing else.";
  if (wanted.m_Level.m_Level != PI::LEVEL_RAID1) return loss;
  const std::uint64_t smallest = Rules::SmallestKiB(inventory, wanted);
  const auto size = Rules::MirrorKiB(inventory, wanted);
  // Above 1 TiB the size in a mirror's superblock is another one.
  if (smallest <= MIRROR_LIMIT_KIB || !size) return loss;
  return loss + " The mirror will have " + SizeOfKiB(*size) + ", not the " + SizeOfKiB(smallest) +
         " of its smallest disk.";
}

/// What a deletion asks whom for, and which arrays go by it.
struct SDoomed {
  PI::_OPERATION_CODE m_Code;
  const PI::CObject& m_Asked;
  const char* m_Which;
  std::vector<const PI::CObject*> m_Arrays;
};

SDoomed DoomedBy(const CInventory& inventory, const SRequest& wanted) {
  const CTopology& topology = inventory.Topology();
  const auto arrays = topology.OfKind(PI::OBJ_LOGICAL_DRIVE);
  if ((wanted.m_All || wanted.m_Last) && arrays.empty() && wanted.m_Rules == ERules::ALL)
    throw CError(EXIT_NO_OBJECT, "there is no array");
  if (wanted.m_All) return {PI::OP_DELETE_ALL_LOGICAL_DRIVES, topology.Adapter(), "all arrays", arrays};
  if (wanted.m_Last)
    return {PI::OP_DELETE_LAST_LOGICAL_DRIVE,
            topology.Adapter(),
            "the last array",
            {arrays.empty() ? arrays.end() : arrays.end() - 1, arrays.end()}};
  const PI::CObject& array = inventory.FindForChange(wanted.m_Array, PI::OBJ_LOGICAL_DRIVE);
  return {PI::OP_DELETE_LOGICAL_DRIVE, array, "", {&array}};
}

SChange Creation(const CInventory& inventory, const SRequest& wanted) {
  const Rules::SNewArray array = WantedBy(inventory, wanted);
  if (wanted.m_Rules == ERules::ALL) Rules::RequireCreatable(inventory, array);
  PI::CLogicalDrive request;
  request.m_RaidLevel = array.m_Level.m_Level;
  if (array.m_Stripe) request.m_StripeSize = *array.m_Stripe;
  request.m_Containers.emplace_back();
  std::vector<SDiskPlan> plans;
  for (const PI::CObject* const disk : array.m_Disks) {
    request.m_Containers.front().m_Drives.emplace_back(disk->m_ID);
    plans.push_back(PlanOf(inventory.Machine(), inventory.Topology(), *disk));
  }
  return {"create a " + wanted.m_Level + " array of " + Listed(array.m_Disks),
          inventory.Topology().Adapter(),
          PI::OP_CREATE_LOGICAL_DRIVE,
          plans,
          LossOf(inventory, array),
          wanted.m_Level,
          "chunks of " + std::to_string(array.ChunkKiB()) + " KiB",
          {},
          [request](PI::COperation& operation) mutable { operation.m_pRequest = &request; }};
}

SChange Deletion(const CInventory& inventory, const SRequest& wanted) {
  const SDoomed doomed = DoomedBy(inventory, wanted);
  std::vector<SDiskPlan> plans;
  std::string loss = "What is stored on it is lost.";
  std::string basis;
  std::string overwritten;
  for (const PI::CObject* const array : doomed.m_Arrays) {
    if (wanted.m_Rules == ERules::ALL) Rules::RequireDeletable(inventory, *array, wanted.m_PartitionMembers);
    // Its file system and mounts are what is lost.
    plans.push_back(PlanOf(inventory.Machine(), inventory.Topology(), *array));
    for (const SMember& member : inventory.EntryOf(*array).m_Members) {
      const PI::CObject* const whole = member.m_Whole;
      if (whole != nullptr) plans.push_back(PlanOf(inventory.Machine(), inventory.Topology(), *whole));
      if (member.m_Disk == nullptr) loss += " The member " + member.m_Name + " keeps its superblock.";
      if (member.m_Disk == nullptr && whole != nullptr)
        overwritten += (overwritten.empty() ? "" : ", ") + NameOf(*whole);
    }
    basis += BasisOf(inventory, *array);
  }
  if (!overwritten.empty())
    loss += " 1 KiB near the end of the whole disk is overwritten, whatever lies there: " + overwritten + ".";
  const std::string which = doomed.m_Which;
  const std::string names = Listed(doomed.m_Arrays);
  return {"delete " + which + (which.empty() || names.empty() ? "" : ": ") + names,
          doomed.m_Asked,
          doomed.m_Code,
          plans,
          loss,
          {},
          basis,
          overwritten.empty() ? "" : "Overwrite the end of " + overwritten + "?"};
}

SChange SpareAddition(const CInventory& inventory, const SRequest& wanted) {
  const PI::CObject& disk = inventory.FindForChange(wanted.m_Disks.at(0), PI::OBJ_PHYSICAL_DRIVE);
  const PI::CObject& array = inventory.FindForChange(wanted.m_Array, PI::OBJ_LOGICAL_DRIVE);
  if (wanted.m_Rules == ERules::ALL) Rules::RequireSpare(inventory, disk, array);
  const auto number = static_cast<unsigned long>(NumberOf(array, PI::PROP_ARRAY_NUMBER).value_or(-1));
  return {"make " + NameOf(disk) + " a hot spare of " + NameOf(array),
          disk,
          PI::OP_CREATE_DEDICATED_HOTSPARE,
          {PlanOf(inventory.Machine(), inventory.Topology(), disk)},
          "What is on the disk is lost.",
          {},
          BasisOf(inventory, array),
          {},
          [number](PI::COperation& operation) { operation.m_Parameters.at(0).SetValue(number); }};
}

SChange Release(const CInventory& inventory, const SRequest& wanted) {
  const PI::CObject& disk = inventory.FindForChange(wanted.m_Disks.at(0), PI::OBJ_PHYSICAL_DRIVE);
  if (wanted.m_Rules == ERules::ALL) Rules::RequireRelease(inventory, disk);
  SChange change{"release " + NameOf(disk) + " from its array and wipe its superblock",
                 disk,
                 PI::OP_DELETE_DEDICATED_HOTSPARE,
                 {PlanOf(inventory.Machine(), inventory.Topology(), disk)},
                 "What is on the disk is lost."};
  // The catalogue asks whether a hot spare may go missing.
  if (NumberOf(disk, PI::PROP_STATUS) == PI::STATUS_FAILED)
    change.m_FirstQuestion = "Release this failed disk from its array?";
  return change;
}

SChange Rebuild(const CInventory& inventory, const SRequest& wanted) {
  const PI::CObject& array = inventory.FindForChange(wanted.m_Array, PI::OBJ_LOGICAL_DRIVE);
  const std::string name = NameOf(array);
  const bool start = wanted.m_Kind == EChange::START_REBUILD;
  if (wanted.m_Rules == ERules::ALL) Rules::RequireRebuild(inventory, array, start);
  if (start) return {"start the rebuild of " + name, array, PI::OP_START_REBUILD};
  return {"cancel the rebuild of " + name, array, PI::OP_CANCEL_REBUILD, {}, "The array stays degraded."};
}

/// Only rescan: the plug-in offers it as an operation like any other.
SChange Rescan(const CInventory& inventory) {
  return {"look at the system now", inventory.Topology().Adapter(), PI::OP_RESCAN_ADAPTER};
}

constexpr const char* KINDS[] = {"array.create",  "array.delete",   "spare.add", "spare.release",
                                 "rebuild.start", "rebuild.cancel", "rescan"};  // in the order of EChange

/// A field of a document. Throws CError when it is of another type.
template <class T>
std::optional<T> Field(const Json& document, const char* name, const char* type) {
  const auto found = document.find(name);
  if (found == document.end() || found->is_null()) return std::nullopt;
  try {
    return found->get<T>();
  } catch (const Json::exception&) {
    throw CError(EXIT_USAGE, std::string("\"") + name + "\" must be " + type);
  }
}

/// KiB as people write them, or bytes as documents have sizes.
std::optional<std::string> StripeField(const Json& document) {
  const auto found = document.find("stripe");
  if (found == document.end() || !found->is_number_unsigned())
    return Field<std::string>(document, "stripe", "a number of bytes, or the KiB as a text");
  const auto bytes = found->get<unsigned long>();
  if (bytes % 1024 != 0) throw CError(EXIT_USAGE, "\"stripe\" is no number of whole KiB");
  return std::to_string(bytes / 1024);
}

std::string RequiredText(const Json& document, const char* name) {
  const auto text = Field<std::string>(document, name, "a text");
  if (!text) throw CError(EXIT_USAGE, std::string("\"") + name + "\" is missing");
  return *text;
}

}  // namespace

const char* WordOf(EChange kind) { return KINDS[static_cast<std::size_t>(kind)]; }

Json ToJson(const SRequest& request) {
  Json json = {{"kind", WordOf(request.m_Kind)}};
  if (!request.m_Level.empty()) json["level"] = request.m_Level;
  if (request.m_Stripe) json["stripe"] = *request.m_Stripe;
  if (request.m_Kind == EChange::CREATE_ARRAY)
    json["disks"] = request.m_Disks;
  else if (!request.m_Disks.empty())
    json["disk"] = request.m_Disks.front();
  if (!request.m_Array.empty()) json["array"] = request.m_Array;
  for (const auto& [name, isSaid] : {std::pair("last", request.m_Last), std::pair("all", request.m_All),
                                     std::pair("forcePartitionMembers", request.m_PartitionMembers)})
    if (isSaid) json[name] = true;
  return json;
}

SRequest RequestOf(const Json& document) {
  if (!document.is_object()) throw CError(EXIT_USAGE, "a request is a JSON object");
  const std::string word = RequiredText(document, "kind");
  const auto* const kind = std::ranges::find(KINDS, word);
  if (kind == std::end(KINDS)) throw CError(EXIT_USAGE, "there is no change \"" + word + "\"");
  const auto isSaid = [&](const char* name) {
    return Field<bool>(document, name, "true or false").value_or(false);
  };
  SRequest request{static_cast<EChange>(kind - std::begin(KINDS))};
  switch (request.m_Kind) {
    case EChange::CREATE_ARRAY:
      request.m_Level = RequiredText(document, "level");
      request.m_Stripe = StripeField(document);
      request.m_Disks = Field<std::vector<std::string>>(document, "disks", "a list of texts")
                            .value_or(std::vector<std::string>());
      break;
    case EChange::DELETE_ARRAY:
      request.m_Array = Field<std::string>(document, "array", "a text").value_or("");
      request.m_Last = isSaid("last");
      request.m_All = isSaid("all");
      request.m_PartitionMembers = isSaid("forcePartitionMembers");
      if (!request.m_Array.empty() + request.m_Last + request.m_All != 1)
        throw CError(EXIT_USAGE, "say which: \"array\", \"last\" or \"all\"");
      break;
    case EChange::ADD_SPARE:
      request.m_Disks = {RequiredText(document, "disk")};
      [[fallthrough]];
    case EChange::START_REBUILD:
    case EChange::CANCEL_REBUILD:
      request.m_Array = RequiredText(document, "array");
      break;
    case EChange::RELEASE_SPARE:
      request.m_Disks = {RequiredText(document, "disk")};
      break;
    case EChange::RESCAN:
      break;
  }
  return request;
}

SRequest ByKernelNames(const CInventory& inventory, SRequest request) {
  for (std::string& disk : request.m_Disks)
    disk = NameOf(inventory.FindForChange(disk, PI::OBJ_PHYSICAL_DRIVE));
  if (!request.m_Array.empty())
    request.m_Array = NameOf(inventory.FindForChange(request.m_Array, PI::OBJ_LOGICAL_DRIVE));
  return request;
}

std::vector<const PI::CObject*> ArraysOf(const CInventory& inventory, const SRequest& wanted) {
  return DoomedBy(inventory, wanted).m_Arrays;
}

SChange ChangeOf(const CInventory& inventory, const SRequest& request) {
  switch (request.m_Kind) {
    case EChange::CREATE_ARRAY:
      return Creation(inventory, request);
    case EChange::DELETE_ARRAY:
      return Deletion(inventory, request);
    case EChange::ADD_SPARE:
      return SpareAddition(inventory, request);
    case EChange::RELEASE_SPARE:
      return Release(inventory, request);
    case EChange::START_REBUILD:
    case EChange::CANCEL_REBUILD:
      return Rebuild(inventory, request);
    case EChange::RESCAN:
      break;
  }
  return Rescan(inventory);
}

}  // namespace Host
