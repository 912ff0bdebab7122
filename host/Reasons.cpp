#include "host/Reasons.h"

#include <fstream>

namespace rvxctl {

namespace {

/// The text of a file of this machine; empty when it cannot be read.
std::string FileText(const char* path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::string DiskState(const CTexts& texts, const CTopology& topology, const PI::CObject& disk) {
  const PI::CObject* const array = topology.ArrayOf(disk);
  return NameOf(disk) + " belongs to " + (array == nullptr ? "no array" : NameOf(*array)) +
         "; its status is \"" + TextOf(texts, disk, PI::PROP_STATUS) + "\"";
}

/// The arrays that something runs on: all of them, or the one that is asked about.
std::string RunningWork(const CTexts& texts, const CTopology& topology, const PI::CObject& object) {
  std::string work;
  for (const PI::CObject* const array : topology.OfKind(PI::OBJ_LOGICAL_DRIVE)) {
    const bool asked = object.m_Kind != PI::OBJ_LOGICAL_DRIVE || object.m_ID == array->m_ID;
    if (asked && NumberOf(*array, PI::PROP_ACTIVITY) != PI::ACTIVITY_NONE)
      work += (work.empty() ? "" : ", ") + NameOf(*array) + ": " + ActivityText(texts, *array);
  }
  return work;
}

}  // namespace

std::string ReasonOf(const CTexts& texts, const CTopology& topology, const PI::CObject& object,
                     unsigned int operation, unsigned int status) {
  const bool isDisk = object.m_Kind == PI::OBJ_PHYSICAL_DRIVE;
  switch (status) {
    case PI::ERR_BUSY:
      return RunningWork(texts, topology, object);
    case PI::ERR_NO_REDUNDANCY:
      return NameOf(object) + " is " + TextOf(texts, object, PI::PROP_RAID_LEVEL);
    case PI::ERR_STATE_FORBIDS_REBUILD:
      return NameOf(object) + ": " + TextOf(texts, object, PI::PROP_STATUS);
    case PI::ERR_OPERATION_NOT_SUPPORTED:
    case PI::ERR_DRIVE_NOT_MISSING:
      return isDisk ? DiskState(texts, topology, object) : std::string();
    case PI::ERR_NOT_AVAILABLE:
      return topology.OfKind(PI::OBJ_LOGICAL_DRIVE).empty() ? "there is no array" : "";
    case PI::ERR_DEVICE_IO:
      return operation == PI::OP_DELETE_LOGICAL_DRIVE || operation == PI::OP_DELETE_LAST_LOGICAL_DRIVE ||
                     operation == PI::OP_DELETE_ALL_LOGICAL_DRIVES
                 ? "only an array with metadata version 1.0 that nothing uses can be deleted"
                 : "";
    case PI::ERR_GENERAL:
      return operation == PI::OP_REPLACE_MISSING_DRIVE ? "md lists no missing disks" : "";
    default:
      return {};
  }
}

std::string RefusalText(const CTexts& texts, const CTopology& topology, const PI::CObject& object,
                        unsigned int operation, unsigned int status) {
  const std::string reason = ReasonOf(texts, topology, object, operation, status);
  return texts.OfStatus(status) + (reason.empty() ? "" : " (" + reason + ")");
}

std::string HintFor(const CContext& context, unsigned int status, const std::string& level) {
  if (context.Options().m_Simulate || (status != PI::ERR_DEVICE_IO && status != PI::ERR_OPEN_FAILED))
    return {};
  const std::string mdstat = FileText("/proc/mdstat");
  if (mdstat.empty()) return "md is not in the kernel: modprobe md-mod";
  std::string hint;
  if (!level.empty() && mdstat.substr(0, mdstat.find('\n')).find("[" + level + "]") == std::string::npos)
    hint = "The kernel does not know the level: modprobe " + level;
  // A creation that failed half-way leaves its array inactive, with busy members.
  std::size_t begin = 0;
  while (begin < mdstat.size()) {
    const std::size_t end = std::min(mdstat.find('\n', begin), mdstat.size());
    const std::string line = mdstat.substr(begin, end - begin);
    if (const std::size_t name = line.find(" : inactive"); name != std::string::npos)
      hint += (hint.empty() ? "" : "\n") +
              std::string("A half-built array holds its disks: mdadm --stop /dev/") + line.substr(0, name);
    begin = end + 1;
  }
  return hint;
}

}  // namespace rvxctl
