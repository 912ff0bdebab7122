#include "host/Plan.h"

#include "host/Table.h"
#include "host/Values.h"

namespace rvxctl {

SDiskPlan PlanOf(const CLocalMachine& machine, const PI::CObject& disk) {
  const bool array = disk.m_Kind == PI::OBJ_LOGICAL_DRIVE;
  const auto mebibytes = NumberOf(disk, array ? PI::PROP_ARRAY_CAPACITY : PI::PROP_CAPACITY);
  SDiskPlan plan;
  plan.m_Name = NameOf(disk);
  plan.m_Size = SizeText(mebibytes);
  if (mebibytes) plan.m_Bytes = static_cast<unsigned long>(*mebibytes) << 20;
  plan.m_Model = array ? TextOf(disk, PI::PROP_RAID_LEVEL)
                       : TextOf(disk, PI::PROP_VENDOR) + " " + TextOf(disk, PI::PROP_MODEL);
  const std::string device = TextOf(disk, PI::PROP_DEVICE_PATH);
  plan.m_Serial = machine.SerialOf(device);
  plan.m_Contents = machine.ContentsOf(device);
  return plan;
}

Json PlanJson(const std::vector<SDiskPlan>& disks) {
  Json list = Json::array();
  for (const SDiskPlan& disk : disks)
    list.push_back({{"name", disk.m_Name},
                    {"size", disk.m_Size},
                    {"bytes", disk.m_Bytes ? Json(*disk.m_Bytes) : Json(nullptr)},
                    {"model", disk.m_Model},
                    {"serial", disk.m_Serial.empty() ? Json(nullptr) : Json(disk.m_Serial)},
                    {"contents", disk.m_Contents}});
  return list;
}

std::string PlanText(const std::vector<SDiskPlan>& disks, std::size_t width) {
  Rows rows;
  for (const SDiskPlan& disk : disks) {
    std::string contents;
    for (const std::string& content : disk.m_Contents) contents += (contents.empty() ? "" : "; ") + content;
    rows.push_back({"  " + disk.m_Name, disk.m_Size, disk.m_Model,
                    disk.m_Serial.empty() ? "-" : disk.m_Serial,
                    contents.empty() ? "nothing known" : contents});
  }
  return Table({"  DEVICE", "SIZE", "MODEL", "SERIAL", "WHAT IS ON IT"}, rows, width);
}

}  // namespace rvxctl
