#include "host/Reasons.h"

#include <sstream>

#include "host/Texts.h"
#include "host/Values.h"

namespace Host {

namespace {

constexpr char NO_MD[] = "md is not in the kernel: modprobe md-mod";

/// Answers that may come from md.
bool MdMayHelp(unsigned int status) {
  return status == PI::ERR_DEVICE_IO || status == PI::ERR_OPEN_FAILED || status == PI::ERR_WRITE_FAILED;
}

std::string DiskState(const CTopology& topology, const PI::CObject& disk) {
  const PI::CObject* const array = topology.ArrayOf(disk);
  return NameOf(disk) + " belongs to " + (array == nullptr ? "no array" : NameOf(*array)) +
         "; its status is \"" + TextOf(disk, PI::PROP_STATUS) + "\"";
}

/// The arrays that something runs on: all of them, or the one that is asked about.
std::string RunningWork(const CTopology& topology, const PI::CObject& object, unsigned int operation) {
  std::string work;
  for (const PI::CObject* const array : topology.OfKind(PI::OBJ_LOGICAL_DRIVE)) {
    const bool asked = object.m_Kind != PI::OBJ_LOGICAL_DRIVE || object.m_ID == array->m_ID;
    const auto activity = NumberOf(*array, PI::PROP_ACTIVITY);
    // A resync is in the way of a rebuild alone.
    if (asked && (activity == PI::ACTIVITY_REBUILDING ||
                  (operation == PI::OP_START_REBUILD && activity != PI::ACTIVITY_NONE)))
      work += (work.empty() ? "" : ", ") + NameOf(*array) + ": " + ActivityText(*array);
  }
  return work;
}

bool IsDeletion(unsigned int operation) {
  return operation == PI::OP_DELETE_LOGICAL_DRIVE || operation == PI::OP_DELETE_LAST_LOGICAL_DRIVE ||
         operation == PI::OP_DELETE_ALL_LOGICAL_DRIVES;
}

/// What a creation that failed on its way left in the kernel, and what to do about it.
std::string HalfBuilt(const std::string& mdstat, const std::string& level) {
  std::string text;
  if (mdstat.substr(0, mdstat.find('\n')).find("[" + level + "]") == std::string::npos)
    text = "If the kernel log says that it does not know the level: modprobe " + level;
  // The array does not run and its members are busy. The plug-in's names begin with md_d; who stops another
  // one may take it from somebody else.
  std::istringstream lines(mdstat);
  for (std::string line; std::getline(lines, line);)
    if (const std::size_t name = line.find(" : inactive");
        name != std::string::npos && line.starts_with("md_d"))
      text += (text.empty() ? "" : "\n") +
              std::string("A half-built array holds its disks: mdadm --stop /dev/") + line.substr(0, name);
  return text;
}

}  // namespace

// A refusal comes as a status alone; what is behind it has to be known here, too.
std::string ReasonOf(const CTopology& topology, const PI::CObject& object, unsigned int operation,
                     unsigned int status) {
  const bool isDisk = object.m_Kind == PI::OBJ_PHYSICAL_DRIVE;
  switch (status) {
    case PI::ERR_BUSY:
      return RunningWork(topology, object, operation);
    case PI::ERR_NO_REDUNDANCY:
      return NameOf(object) + " is " + TextOf(object, PI::PROP_RAID_LEVEL);
    case PI::ERR_STATE_FORBIDS_REBUILD:
      return NameOf(object) + ": " + TextOf(object, PI::PROP_STATUS);
    case PI::ERR_OPERATION_NOT_SUPPORTED:
    case PI::ERR_DRIVE_NOT_MISSING:
      return isDisk ? DiskState(topology, object) : std::string();
    case PI::ERR_NOT_AVAILABLE:
      return topology.OfKind(PI::OBJ_LOGICAL_DRIVE).empty() ? "there is no array" : "";
    case PI::ERR_DEVICE_IO:
      return IsDeletion(operation)
                 ? "only an array with metadata version 1.0 that nothing uses can be deleted"
                 : "";
    case PI::ERR_GENERAL:
      return operation == PI::OP_REPLACE_MISSING_DRIVE ? "md lists no missing disks" : "";
    default:
      return {};
  }
}

std::string RefusalText(const CTopology& topology, const PI::CObject& object, unsigned int operation,
                        unsigned int status) {
  const std::string reason = ReasonOf(topology, object, operation, status);
  return Texts::OfStatus(status) + (reason.empty() ? "" : " (" + reason + ")");
}

std::string HintForCheck(const std::optional<std::string>& mdstat, unsigned int status) {
  return MdMayHelp(status) && !mdstat ? NO_MD : "";
}

std::string HintForExecution(const std::optional<std::string>& mdstat, unsigned int operation,
                             unsigned int status, const std::string& level) {
  if (!MdMayHelp(status)) return {};
  if (IsDeletion(operation)) return {};  // what is gone and what is left is told behind it
  if (operation == PI::OP_CREATE_DEDICATED_HOTSPARE)
    return status == PI::ERR_DEVICE_IO
               ? "md takes no disk that is too small, none into an array without redundancy, and none this "
                 "way into a mirror without a chunk size, as mdadm makes it: use mdadm --add there. Nor "
                 "does it take one where a member's superblock cannot be read: the kernel log tells."
               : "";
  if (!mdstat) return NO_MD;
  return operation == PI::OP_CREATE_LOGICAL_DRIVE ? HalfBuilt(*mdstat, level) : std::string();
}

}  // namespace Host
