#include "host/Plan.h"

#include <boost/uuid/name_generator_sha1.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "host/Table.h"
#include "host/Values.h"

namespace Host {

namespace {

std::string Or(const std::string& text, const char* otherwise) { return text.empty() ? otherwise : text; }

/// The last part of a path.
std::string Base(const std::string& path) { return path.substr(path.rfind('/') + 1); }

std::string MembershipOf(const CTopology& topology, const PI::CObject& object) {
  const PI::CObject* const array = topology.ArrayOf(object);
  if (object.m_Kind != PI::OBJ_PHYSICAL_DRIVE || array == nullptr) return {};
  const bool spare = NumberOf(object, PI::PROP_STATUS) == PI::STATUS_SPARE;
  return (spare ? "hot spare of " : "member of ") + NameOf(*array);
}

}  // namespace

SDiskPlan PlanOf(const CMachine& machine, const CTopology& topology, const PI::CObject& object) {
  const bool array = object.m_Kind == PI::OBJ_LOGICAL_DRIVE;
  const auto mebibytes = NumberOf(object, array ? PI::PROP_ARRAY_CAPACITY : PI::PROP_CAPACITY);
  const std::string device = TextOf(object, PI::PROP_DEVICE_PATH);
  return {NameOf(object),
          SizeText(mebibytes),
          mebibytes ? std::optional(static_cast<unsigned long>(*mebibytes) << 20) : std::nullopt,
          array ? TextOf(object, PI::PROP_RAID_LEVEL)
                : TextOf(object, PI::PROP_VENDOR) + " " + TextOf(object, PI::PROP_MODEL),
          MembershipOf(topology, object),
          machine.Facts(device),
          machine.Contents(device)};
}

Json PlanJson(const std::vector<SDiskPlan>& disks) {
  const auto known = [](const std::string& text) { return text.empty() ? Json(nullptr) : Json(text); };
  Json list = Json::array();
  for (const SDiskPlan& disk : disks)
    list.push_back({{"name", disk.m_Name},
                    {"size", disk.m_Size},
                    {"bytes", disk.m_Bytes ? Json(*disk.m_Bytes) : Json(nullptr)},
                    {"model", disk.m_Model},
                    {"serial", known(disk.m_Facts.m_Serial)},
                    {"wwn", known(disk.m_Facts.m_WWN)},
                    {"byId", disk.m_Facts.m_ByID},
                    {"address", known(disk.m_Facts.m_Address)},
                    {"membership", known(disk.m_Membership)},
                    {"contents", disk.m_Contents.m_All},
                    {"inUse", disk.m_Contents.m_InUse}});
  return list;
}

std::string PlanText(const std::vector<SDiskPlan>& disks, std::size_t width) {
  Rows rows;
  for (const SDiskPlan& disk : disks) {
    std::vector<std::string> about = disk.m_Contents.m_All;
    if (!disk.m_Membership.empty()) about.insert(about.begin(), disk.m_Membership);
    rows.push_back({"  " + disk.m_Name, disk.m_Size, disk.m_Model, Or(disk.m_Facts.m_Serial, "-"),
                    Or(Joined(about, "; "), "nothing known")});
    std::vector<std::string> names;
    if (!disk.m_Facts.m_WWN.empty()) names.push_back("WWN " + disk.m_Facts.m_WWN);
    if (!disk.m_Facts.m_ByID.empty()) names.push_back(Base(disk.m_Facts.m_ByID.front()));
    if (!names.empty()) rows.push_back({"", "", "", "", Joined(names, ", ")});
  }
  return Table({"  DEVICE", "SIZE", "MODEL", "SERIAL", "WHAT IS ON IT"}, rows, width);
}

std::string TokenOf(const std::vector<SDiskPlan>& disks, const std::string& rest) {
  Json all = PlanJson(disks);
  for (std::size_t i = 0; i < disks.size(); ++i) {
    all[i]["number"] = disks[i].m_Facts.m_Number;
    all[i]["sequence"] = disks[i].m_Facts.m_Sequence;
    all[i]["exactBytes"] = disks[i].m_Facts.m_Bytes.value_or(0);
  }
  all.push_back(rest);
  const boost::uuids::name_generator_sha1 generator(boost::uuids::ns::oid());
  return to_string(generator(all.dump(-1, ' ', false, Json::error_handler_t::replace)));
}

}  // namespace Host
