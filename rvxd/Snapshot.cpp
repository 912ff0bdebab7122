#include "rvxd/Snapshot.h"

#include <algorithm>
#include <ctime>

#include "host/Keys.h"
#include "host/Levels.h"
#include "host/Proposals.h"
#include "host/Rules.h"
#include "host/Texts.h"
#include "host/Values.h"

namespace Rvxd {

namespace {

using Host::NameOf;
using Host::NumberOf;
using Host::TextOf;

constexpr std::uint64_t MILLISECONDS = 1000;
constexpr int BLIND_INTERVALS = 5;

Json TextOrNull(const std::string& text) { return text.empty() ? Json(nullptr) : Json(text); }
template <class T>
Json OrNull(const std::optional<T>& value) {
  return value ? Json(*value) : Json(nullptr);
}

/// A choice as a word and the plug-in's number.
void PutChoice(Json& json, const std::string& name, const PI::CObject& object, PI::_PROPERTY_ID id) {
  const auto choice = NumberOf(object, id);
  json[name] =
      choice ? Json(Host::Keys::OfChoice(static_cast<unsigned int>(*choice), object.m_Kind)) : Json(nullptr);
  json[name + "Code"] = OrNull(choice);
}

/// A property's value as a number; none when the object does not have it, or the plug-in does not know it.
std::optional<double> Figure(const PI::CObject& object, PI::_PROPERTY_ID id) {
  const PI::CProperty* const property = Host::FindProperty(object, id);
  if (property == nullptr || Host::IsUnknown(*property)) return std::nullopt;
  if (const auto* const value = std::get_if<float>(&property->m_Value)) return *value;
  const auto number = NumberOf(object, id);
  return number ? std::optional(static_cast<double>(*number)) : std::nullopt;
}

Json Share(const std::optional<double>& percent) { return percent ? Json(*percent / 100) : Json(nullptr); }

Json Bytes(const PI::CObject& object, PI::_PROPERTY_ID id) {
  const auto mebibytes = NumberOf(object, id);
  return mebibytes ? Json(static_cast<std::uint64_t>(*mebibytes) << 20) : Json(nullptr);
}

/// Seconds until the day that the plug-in reckons with, in whole days.
Json RemainingLife(const PI::CObject& disk) {
  const PI::CProperty* const date = Host::FindProperty(disk, PI::PROP_END_OF_LIFE);
  if (date == nullptr || Host::IsUnknown(*date)) return nullptr;
  std::tm day{};
  if (::strptime(TextOf(*date).c_str(), "%Y-%m-%d", &day) == nullptr) return nullptr;
  constexpr std::time_t SECONDS = 86400;
  return std::max<std::time_t>(0, ::timegm(&day) / SECONDS - std::time(nullptr) / SECONDS) * SECONDS;
}

Json ActivityJson(const Host::SArrayEntry& array) {
  const std::optional<Host::SMdRun> run = array.m_Md ? array.m_Md->m_Run : std::nullopt;
  const auto activity = NumberOf(array.m_Object, PI::PROP_ACTIVITY);
  const bool isRebuild = activity == PI::ACTIVITY_REBUILDING;
  std::string kind = isRebuild ? "rebuild" : activity == PI::ACTIVITY_RESYNCING ? "resync" : "none";
  if (run) kind = run->m_Action == "recovery" ? "rebuild" : run->m_Action;
  std::optional<double> percent = run ? run->m_Percent : std::nullopt;
  if (const auto told = Host::ProgressOf(array.m_Object);
      !percent && told && (!run || run->m_Waiting.empty()))
    percent = *told;
  return {{"kind", kind},
          {"text", array.ActivityText()},
          {"firstSync", array.m_IsFirstSync},
          {"waiting", run ? TextOrNull(run->m_Waiting) : Json(nullptr)},
          {"progress", Share(percent)},
          {"speed", run && run->m_KiBPerSecond ? Json(*run->m_KiBPerSecond * 1024) : Json(nullptr)},
          {"remaining", run && run->m_Minutes ? Json(std::llround(*run->m_Minutes * 60)) : Json(nullptr)}};
}

/// The array's identity as md has written it to its members.
Json UuidOf(const Host::SDeviceFacts& facts) {
  constexpr std::string_view LINK = "/md-uuid-";
  for (const std::string& path : facts.m_ByID)
    if (const std::size_t at = path.find(LINK); at != std::string::npos) return path.substr(at + LINK.size());
  return nullptr;
}

std::vector<std::string> MountsOf(const Host::CMachine& machine, const std::string& device) {
  std::vector<std::string> mounts;
  for (const KVTX::CPartition& place : machine.System().GetPartitions(device))
    if (!place.m_MountPoint.empty()) mounts.push_back(place.m_MountPoint);
  return mounts;
}

}  // namespace

Host::SHealth CSnapshot::ArrayHealth(const std::vector<Host::SProblem>& own) {
  m_Inventory.Remember();
  Host::SHealth health = Host::ArrayHealthOf(m_Inventory);
  for (const Host::SArrayEntry& array : m_Inventory.Arrays()) {
    const std::size_t spares = array.Of(Host::ERole::SPARE).size();
    if (const auto wanted = SparesWanted(array); wanted && spares < *wanted)
      health.m_Problems.push_back({Host::EHealth::WARNING, "spare missing", array.m_Name,
                                   std::to_string(spares) + " of the " + std::to_string(*wanted) +
                                       " spares that it is to have " + (spares == 1 ? "is" : "are") +
                                       " there",
                                   "'rvxctl spare add DISK " + array.m_Name + "'"});
  }
  health.m_Problems.insert(health.m_Problems.end(), own.begin(), own.end());
  return health;
}

std::optional<unsigned int> CSnapshot::SparesWanted(const Host::SArrayEntry& array) const {
  const Json uuid = UuidOf(m_Inventory.FactsOf(array.m_Object));
  const auto found = m_Wanted.find(uuid.is_string() ? uuid.get<std::string>() : array.m_Name);
  return found == m_Wanted.end() ? std::nullopt : std::optional(found->second);
}

CSnapshot::CSnapshot(Host::CSession& session, const Host::CMachine& machine, const CSnapshot* before,
                     const Spares& wanted, const std::vector<Host::SProblem>& own)
    : m_Topology(session),
      m_Inventory(m_Topology, machine),
      m_Wanted(wanted),
      m_ArrayHealth(ArrayHealth(own)),
      m_Health(Host::HealthOf(m_Inventory, m_ArrayHealth)) {
  const auto check = [&](const PI::CObject& object, PI::COperation& operation) {
    return session.Check(object.m_ID, operation);
  };
  std::string arrays;  // the state of all of them, on which everybody's offers depend
  for (const Host::SArrayEntry& entry : m_Inventory.Arrays()) {
    const auto& mounts = m_Mounts[entry.m_Object.m_ID] =
        MountsOf(machine, TextOf(entry.m_Object, PI::PROP_DEVICE_PATH));
    arrays += entry.m_Name + TextOf(entry.m_Object, PI::PROP_STATUS) +
              TextOf(entry.m_Object, PI::PROP_ACTIVITY) + entry.MembersText() + Host::Joined(mounts) + "\n";
  }
  // Of a disk that is a member as a whole nothing is mounted but the array.
  const auto isMember = [&](const PI::CObject& disk) {
    return std::ranges::any_of(m_Inventory.Arrays(), [&](const Host::SArrayEntry& entry) {
      return std::ranges::any_of(entry.m_Members, [&](const auto& one) { return one.m_Disk == &disk; });
    });
  };
  for (const PI::CObject& object : m_Topology.Objects()) {
    if (object.m_Kind == PI::OBJ_PHYSICAL_DRIVE && !isMember(object) &&
        NumberOf(object, PI::PROP_STATUS) != PI::STATUS_READY)
      m_Mounts[object.m_ID] = MountsOf(machine, TextOf(object, PI::PROP_DEVICE_PATH));
    const std::string state = arrays + TextOf(object, PI::PROP_STATUS);
    const auto known = before == nullptr ? m_Offers.end() : before->m_Offers.find(object.m_ID);
    if (before != nullptr && known != before->m_Offers.end() && known->second.m_State == state)
      m_Offers[object.m_ID] = known->second;
    else
      m_Offers[object.m_ID] = {state, Host::OffersOf(m_Inventory, object, check)};
  }
  NameDisks();
  m_Arrays = m_Disks = m_Controllers = m_Levels = Json::array();
  for (const Host::SArrayEntry& entry : m_Inventory.Arrays()) m_Arrays.push_back(ArrayJson(entry));
  for (const PI::CObject* const disk : m_Topology.OfKind(PI::OBJ_PHYSICAL_DRIVE))
    m_Disks.push_back(DiskJson(*disk));
  const PI::CObject& adapter = m_Topology.Adapter();
  Json controller = {{"id", Host::HexadecimalID(adapter.m_ID)}, {"name", NameOf(adapter)}};
  PutChoice(controller, "state", adapter, PI::PROP_STATUS);
  controller["properties"] = Json::object();
  for (const PI::CProperty& property : adapter.m_Properties)
    controller["properties"][Host::Keys::OfProperty(property.m_ID, adapter.m_Kind)] = TextOf(property);
  m_Controllers.push_back(controller);
  for (const PI::CLevel& level : Host::OfferedLevels(m_Topology)) {
    const auto bytes = [](unsigned int stripe) { return std::stoul(Host::WordOf(stripe)) * 1024; };
    Json stripes = Json::array();
    for (const unsigned int stripe : level.m_StripeSizes) stripes.push_back(bytes(stripe));
    m_Levels.push_back(
        {{"level", Host::WordOf(level.m_Level)},
         {"levelCode", level.m_Level},
         {"text", Host::Texts::Of(level.m_Level)},
         {"minimumDisks", level.m_MinimumDrives},
         {"maximumDisks", level.m_MaximumDrives},
         {"stripes", stripes},
         {"defaultStripe",
          level.m_DefaultStripeSize == 0 ? Json(nullptr) : Json(bytes(level.m_DefaultStripeSize))}});
  }
}

void CSnapshot::NameDisks() {
  const auto disks = m_Topology.OfKind(PI::OBJ_PHYSICAL_DRIVE);
  std::map<unsigned long, std::vector<std::string>> names;
  std::map<std::string, int> owners;
  for (const PI::CObject* const disk : disks) {
    const Host::SDeviceFacts facts = m_Inventory.FactsOf(*disk);
    auto& own = names[disk->m_ID];
    for (const std::string& path : facts.m_ByID) own.push_back(path.substr(path.rfind('/') + 1));
    if (!facts.m_WWN.empty()) own.push_back(facts.m_WWN);
    for (const std::string& name : own) ++owners[name];
  }
  for (const PI::CObject* const disk : disks) {
    const auto& own = names[disk->m_ID];
    const auto found = std::ranges::find_if(own, [&](const std::string& name) { return owners[name] == 1; });
    m_DiskIDs[disk->m_ID] = found == own.end() ? NameOf(*disk) : *found;
  }
}

Json CSnapshot::OffersJson(const PI::CObject& object) const {
  // What can be asked for, under the kinds of plans.
  constexpr std::pair<unsigned int, Host::EChange> KINDS[] = {
      {PI::OP_DELETE_LOGICAL_DRIVE, Host::EChange::DELETE_ARRAY},
      {PI::OP_CREATE_DEDICATED_HOTSPARE, Host::EChange::ADD_SPARE},
      {PI::OP_DELETE_DEDICATED_HOTSPARE, Host::EChange::RELEASE_SPARE},
      {PI::OP_START_REBUILD, Host::EChange::START_REBUILD},
      {PI::OP_CANCEL_REBUILD, Host::EChange::CANCEL_REBUILD}};
  Json list = Json::array();
  for (const Host::SOffer& offer : m_Offers.at(object.m_ID).m_Offers) {
    const unsigned int code = offer.m_Operation.m_Code;
    const auto* const kind = std::ranges::find(KINDS, code, &std::pair<unsigned int, Host::EChange>::first);
    if (kind == std::end(KINDS)) continue;
    Json reasons = Json::array();
    if (!offer.m_Why.empty())
      reasons.push_back({{"rule", offer.m_Rule.empty() ? "plugin-check" : offer.m_Rule},
                         {"object", NameOf(object)},
                         {"text", offer.m_Why},
                         {"overridable", false}});
    list.push_back({{"kind", Host::WordOf(kind->second)},
                    {"code", code},
                    {"text", Host::Texts::Of(code)},
                    {"allowed", offer.m_Why.empty()},
                    {"reasons", reasons}});
  }
  return list;
}

Json CSnapshot::ArrayJson(const Host::SArrayEntry& entry) const {
  const PI::CObject& array = entry.m_Object;
  const Host::SDeviceFacts facts = m_Inventory.FactsOf(array);
  Json json = {{"uuid", UuidOf(facts)},
               {"name", entry.m_Name},
               {"identifier", Host::HexadecimalID(array.m_ID)},
               {"device", TextOf(array, PI::PROP_DEVICE_PATH)}};
  PutChoice(json, "level", array, PI::PROP_RAID_LEVEL);
  json["size"] = facts.m_Bytes ? Json(*facts.m_Bytes) : Bytes(array, PI::PROP_ARRAY_CAPACITY);
  json["metadata"] =
      entry.m_Md ? Json(entry.m_Md->m_Metadata.empty() ? "0.90" : entry.m_Md->m_Metadata) : Json(nullptr);
  PutChoice(json, "state", array, PI::PROP_STATUS);
  json["stateText"] = TextOf(array, PI::PROP_STATUS);
  const std::optional<unsigned int> canLose = Host::CanLose(entry);
  json["redundancy"] = {{"required", entry.m_Wanted},
                        {"active", entry.m_Present},
                        {"missing", entry.m_Wanted - std::min(entry.m_Wanted, entry.m_Present)},
                        {"canLose", canLose ? Json(*canLose) : Json(nullptr)}};
  json["activity"] = ActivityJson(entry);
  json["members"] = json["spares"] = Json::array();
  for (const Host::SMember& member : entry.m_Members) {
    Json slot = nullptr;
    if (entry.m_Md)
      for (const Host::SMdMember& one : entry.m_Md->m_Members)
        if (one.m_Name == member.m_Name && one.m_Mark != 'S' && one.m_Mark != 'F') slot = one.m_Number;
    json["members"].push_back(
        {{"disk", member.m_Disk == nullptr ? Json(nullptr) : Json(m_DiskIDs.at(member.m_Disk->m_ID))},
         {"whole", member.m_Whole == nullptr ? Json(nullptr) : Json(m_DiskIDs.at(member.m_Whole->m_ID))},
         {"name", member.m_Name},
         {"slot", slot},
         {"state", Host::WordOf(member.m_Role)}});
    if (member.m_Role == Host::ERole::SPARE) json["spares"].push_back(member.m_Name);
  }
  json["sparesWanted"] = OrNull(SparesWanted(entry));
  json["mounts"] = m_Mounts.at(array.m_ID);
  json["operations"] = OffersJson(array);
  return json;
}

Json CSnapshot::DiskJson(const PI::CObject& disk) const {
  const Host::SDeviceFacts facts = m_Inventory.FactsOf(disk);
  const PI::CObject* const array = m_Topology.ArrayOf(disk);
  Json json = {{"id", m_DiskIDs.at(disk.m_ID)},
               {"device", TextOf(disk, PI::PROP_DEVICE_PATH)},
               {"name", NameOf(disk)},
               {"identifier", Host::HexadecimalID(disk.m_ID)},
               {"serial", TextOrNull(facts.m_Serial)},
               {"wwn", TextOrNull(facts.m_WWN)},
               {"byId", facts.m_ByID},
               {"model", TextOrNull(TextOf(disk, PI::PROP_MODEL))},
               {"vendor", TextOrNull(TextOf(disk, PI::PROP_VENDOR))},
               {"size", facts.m_Bytes ? Json(*facts.m_Bytes) : Bytes(disk, PI::PROP_CAPACITY)},
               {"usableSize", Bytes(disk, PI::PROP_USABLE_CAPACITY)}};
  PutChoice(json, "medium", disk, PI::PROP_MEDIUM);
  PutChoice(json, "attachment", disk, PI::PROP_ATTACHMENT);
  json["path"] = TextOrNull(facts.m_Address);
  PutChoice(json, "state", disk, PI::PROP_STATUS);
  json["stateText"] = TextOf(disk, PI::PROP_STATUS);
  json["array"] = array == nullptr ? Json(nullptr) : Json(NameOf(*array));
  const PI::CProperty* const written = Host::FindProperty(disk, PI::PROP_SMART_BYTES_WRITTEN);
  const auto hours = Figure(disk, PI::PROP_SMART_POWER_ON_HOURS);
  json["smart"] = {{"wear", Share(Figure(disk, PI::PROP_SMART_WEAR))},
                   {"reserve", Share(Figure(disk, PI::PROP_SMART_RESERVE))},
                   {"written", written == nullptr
                                   ? Json(nullptr)
                                   : Host::PropertyJson(*written, disk.m_Kind).value("bytes", Json(nullptr))},
                   {"powerOn", hours ? Json(std::llround(*hours * 3600)) : Json(nullptr)},
                   {"remainingLife", RemainingLife(disk)}};
  if (written != nullptr && Host::IsUnknown(*written)) json["smart"]["written"] = nullptr;
  json["usedBy"] = Json::array();
  if (array != nullptr) json["usedBy"].push_back(NameOf(*array));
  // Its partitions may be members of others, too.
  for (const Host::SArrayEntry& entry : m_Inventory.Arrays())
    if (std::ranges::any_of(entry.m_Members,
                            [&](const Host::SMember& one) { return one.m_Whole == &disk; }) &&
        (array == nullptr || entry.m_Name != NameOf(*array)))
      json["usedBy"].push_back(entry.m_Name);
  if (const auto mounts = m_Mounts.find(disk.m_ID); mounts != m_Mounts.end())
    for (const std::string& mount : mounts->second) json["usedBy"].push_back(mount);
  json["operations"] = OffersJson(disk);
  return json;
}

void CSnapshot::Publish(const std::string& instance, const std::string& cursor, const Json& conditions,
                        const SPass& pass, const CSnapshot* before) {
  Host::EHealth level = m_Health.m_Health;
  for (const Json& condition : conditions)  // rvxd's own are among them
    for (const Host::EHealth worse : {Host::EHealth::WARNING, Host::EHealth::CRITICAL})
      if (condition["level"] == Host::WordOf(worse)) level = std::max(level, worse);
  m_HealthJson = {{"level", Host::WordOf(level)},
                  {"headline", m_Health.m_Headline},
                  {"notes", m_Health.m_Notes},
                  {"conditions", conditions},
                  {"lastPass", nullptr}};
  m_Revision = before == nullptr ? 1 : before->m_Revision + 1;
  if (before != nullptr) m_ChangedAt = before->m_ChangedAt;
  bool isOther =
      before == nullptr || m_HealthJson != before->m_OwnHealth || m_Controllers != before->m_Controllers;
  const auto compare = [&](const Json& now, const Json& then) {
    std::map<std::string, const Json*> old;
    for (const Json& one : then) old[one["name"]] = &one;
    for (const Json& one : now) {
      const std::string name = one["name"];
      const auto known = old.find(name);
      if (known != old.end() && *known->second == one) {
        old.erase(known);
        continue;
      }
      if (known != old.end()) old.erase(known);
      m_ChangedAt[name] = m_Revision;
      isOther = true;
    }
    for (const auto& [name, gone] : old) {
      m_ChangedAt[name] = m_Revision;
      isOther = true;
    }
  };
  compare(m_Arrays, before == nullptr ? Json::array() : before->m_Arrays);
  compare(m_Disks, before == nullptr ? Json::array() : before->m_Disks);
  m_OwnHealth = m_HealthJson;
  if (!isOther && before != nullptr) m_Revision = before->m_Revision;
  m_HealthJson = HealthNow(*this, pass, pass.m_Time);
  const Json state = {
      {"revision", m_Revision},       {"cursor", cursor},   {"time", Host::TimeText(pass.m_Time)},
      {"health", m_HealthJson},       {"arrays", m_Arrays}, {"disks", m_Disks},
      {"controllers", m_Controllers}, {"levels", m_Levels}};
  m_State = std::make_shared<const std::string>(state.dump(-1, ' ', false, Json::error_handler_t::replace));
  m_Tag = "\"" + instance + "-" + std::to_string(m_Revision) + "\"";
}

std::vector<std::string> CSnapshot::ChangedSince(unsigned long revision) const {
  std::vector<std::string> names;
  for (const auto& [name, at] : m_ChangedAt)
    if (at > revision) names.push_back(name);
  return names;
}

Host::SView CSnapshot::View(const Host::SViewRequest& request, const Host::SForm& form) const {
  const Host::SQuestions questions{
      [&] { return m_ArrayHealth; },
      [&](const PI::CObject& object) { return m_Offers.at(object.m_ID).m_Offers; },
      [&](const PI::CObject& object, unsigned int id) {
        if (id == PI::PROP_ALL) return object.m_Properties;
        const PI::CProperty* const property = Host::FindProperty(object, static_cast<PI::_PROPERTY_ID>(id));
        if (property == nullptr) throw Host::NoProperty(id);
        return std::vector{*property};
      }};
  return Host::ViewOf(m_Inventory, questions, request, form);
}

const Json* CSnapshot::FindArray(const std::string& address) const {
  for (const Json& array : m_Arrays)
    if (array["uuid"] == address || array["name"] == address) return &array;
  return nullptr;
}

const Json* CSnapshot::FindDisk(const std::string& address) const {
  for (const char* const key : {"id", "name", "serial", "wwn"}) {
    const auto has = [&](const Json& disk) { return disk[key] == address; };
    const auto found = std::ranges::find_if(m_Disks, has);
    if (found == m_Disks.end()) continue;
    // Two disks may tell the same serial number: then it names neither.
    return std::none_of(std::next(found), m_Disks.end(), has) ? &*found : nullptr;
  }
  return nullptr;
}

bool IsBlind(const SPass& pass) {
  return std::chrono::steady_clock::now() >
         pass.m_At + BLIND_INTERVALS * std::chrono::seconds(pass.m_Interval);
}

Host::SProblem BlindProblem(const SPass& pass) {
  return {Host::EHealth::CRITICAL,
          "watch blind",
          "rvxd",
          "the plug-in has not looked at the machine since " + Host::TimeText(pass.m_Time),
          "'systemctl restart rvxd', and the kernel's log tells which disk hangs",
          pass.m_Time};
}

Json HealthNow(const CSnapshot& snapshot, const SPass& pass, std::uint64_t now) {
  Json health = snapshot.HealthJson();
  health["lastPass"] = {{"time", Host::TimeText(pass.m_Time)},
                        {"seconds", static_cast<double>(now - std::min(now, pass.m_Time)) / MILLISECONDS},
                        {"interval", pass.m_Interval}};
  if (!IsBlind(pass)) return health;
  health["level"] = Host::WordOf(Host::EHealth::UNKNOWN);
  health["headline"] = "nobody has looked since " + Host::TimeText(pass.m_Time) +
                       "; before that: " + health["headline"].get<std::string>();
  return health;
}

}  // namespace Rvxd
