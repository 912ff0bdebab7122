#include "host/Keys.h"

#include <algorithm>
#include <iterator>

#include "PI/Numbers.h"

namespace rvxctl::Keys {

namespace {

/// Kinds of objects that a number occurs at, as a set.
enum EAt : unsigned int { PLUGIN = 1, ADAPTER = 2, ARRAY = 4, DISK = 8, ALL = 15 };

struct SKey {
  unsigned int m_Number;
  const char* m_Key;
  unsigned int m_At{ALL};
};

constexpr SKey KINDS[] = {{PI::OBJ_PLUGIN, "plugin", PLUGIN},
                          {PI::OBJ_ADAPTER, "adapter", ADAPTER},
                          {PI::OBJ_LOGICAL_DRIVE, "array", ARRAY},
                          {PI::OBJ_PHYSICAL_DRIVE, "disk", DISK}};

constexpr SKey PROPERTIES[] = {
    {PI::PROP_VENDOR, "operatingSystem", PLUGIN | ADAPTER},
    {PI::PROP_VENDOR, "vendor", DISK},
    {PI::PROP_POLL_INTERVAL, "pollInterval"},
    {PI::PROP_NAME, "displayName"},  // "name" is the kernel's, "sda"
    {PI::PROP_STATUS, "status"},
    {PI::PROP_ADAPTER_EXTRA_TEXT, "furtherInformation"},
    {PI::PROP_LOCATION_0, "pciSegment"},
    {PI::PROP_LOCATION_1, "pciBus"},
    {PI::PROP_LOCATION_2, "pciDevice"},
    {PI::PROP_LOCATION_3, "pciFunction"},
    {PI::PROP_RAID_LEVEL, "level"},
    {PI::PROP_STRIPE_SIZE, "stripeSize"},
    {PI::PROP_ACTIVITY, "activity"},
    {PI::PROP_ATTACHMENT, "attachmentName", ADAPTER},
    {PI::PROP_ATTACHMENT, "attachment", DISK},
    {PI::PROP_CAPACITY, "spaceTaken", ARRAY},
    {PI::PROP_CAPACITY, "capacity", DISK},
    {PI::PROP_USABLE_CAPACITY, "usableCapacity"},
    {PI::PROP_MODEL, "adapterName", ADAPTER},
    {PI::PROP_MODEL, "model", DISK},
    {PI::PROP_MAX_PHYSICAL_DRIVES, "maximumDisks"},
    {PI::PROP_MAX_LOGICAL_DRIVES, "maximumArrays"},
    {PI::PROP_ARRAY_CAPACITY, "capacity", ARRAY},
    {PI::PROP_VERSION, "version"},
    {PI::PROP_TARGET_LOGICAL_DRIVE, "targetArray"},
    {PI::PROP_ADAPTER_NUMBER, "adapterNumber"},
    {PI::PROP_CHANNEL, "channel"},
    {PI::PROP_DRIVE_NUMBER, "diskNumber"},
    {PI::PROP_ARRAY_NUMBER, "arrayNumber"},
    {PI::PROP_RESYNC_PROGRESS, "resyncProgress"},
    {PI::PROP_REBUILD_PROGRESS, "rebuildProgress"},
    {PI::PROP_DEVICE_KEY, "deviceKey"},
    {PI::PROP_ADAPTER_TYPE, "adapterType"},
    {PI::PROP_ADAPTER_ATTRIBUTES, "attributes"},
    {PI::PROP_TIME_REMAINING, "timeRemaining"},
    {PI::PROP_SPARE_STATE, "spareState"},
    {PI::PROP_DEVICE_PATH, "devicePath"},
    {PI::PROP_DRIVER, "driver"},
    {PI::PROP_PHYSICAL_DRIVES, "diskCount"},
    {PI::PROP_LOGICAL_DRIVES, "arrayCount"},
    {PI::PROP_PHYSICAL_DRIVES_OF_MAX, "disksOfMaximum"},
    {PI::PROP_LOGICAL_DRIVES_OF_MAX, "arraysOfMaximum"},
    {PI::PROP_MEDIUM, "medium"},
    {PI::PROP_END_OF_LIFE, "endOfLife"},
    {PI::PROP_SMART_RESERVE, "reserve"},
    {PI::PROP_SMART_BYTES_WRITTEN, "dataWritten"},
    {PI::PROP_SMART_WEAR, "wear"},
    {PI::PROP_CONFIGURATION, "configuration"},
    {PI::PROP_SMART_POWER_ON_HOURS, "powerOnTime"},
};

constexpr SKey CHOICES[] = {
    {PI::STATUS_OK, "in-order", ARRAY},
    {PI::STATUS_OK, "in-use", DISK},
    {PI::ADAPTER_OK, "in-order", ADAPTER},
    {PI::STATUS_DEGRADED, "degraded", ARRAY},
    {PI::ADAPTER_DEGRADED, "degraded", ADAPTER},
    {PI::STATUS_FAILED, "failed"},
    {PI::STATUS_MISSING, "missing", DISK},
    {PI::STATUS_SPARE, "spare", DISK},
    {PI::STATUS_READY, "ready", DISK},
    {PI::STATUS_REBUILDING, "rebuilding"},
    {PI::ACTIVITY_NONE, "none"},
    {PI::ACTIVITY_RESYNCING, "resyncing"},
    {PI::ACTIVITY_VERIFYING, "verifying"},
    {PI::LEVEL_RAID0, "raid0", ARRAY},
    {PI::LEVEL_RAID1, "raid1", ARRAY},
    {PI::LEVEL_RAID4, "raid4", ARRAY},
    {PI::LEVEL_RAID5, "raid5", ARRAY},
    {PI::LEVEL_RAID6, "raid6", ARRAY},
    {PI::LEVEL_RAID10, "raid10", ARRAY},
    {PI::LEVEL_CONCATENATION, "linear", ARRAY},
    {PI::STRIPE_4K, "4", ARRAY},
    {PI::STRIPE_8K, "8", ARRAY},
    {PI::STRIPE_16K, "16", ARRAY},
    {PI::STRIPE_32K, "32", ARRAY},
    {PI::STRIPE_64K, "64", ARRAY},
    {PI::STRIPE_128K, "128", ARRAY},
    {PI::ATTACHMENT_ATA, "ata", DISK},
    {PI::ATTACHMENT_OTHER, "scsi", DISK},
    {PI::MEDIUM_ROTATING, "rotating", DISK},
    {PI::MEDIUM_SOLID_STATE, "solid-state", DISK},
    {PI::SPARE_STATE_FREE, "free", DISK},
    {PI::SPARE_STATE_IN_USE, "taken", DISK},
    {PI::SPARE_STATE_PENDING, "pending", DISK},
    {PI::ADAPTER_TYPE_SOFTWARE, "software", ADAPTER},
};

constexpr SKey EVENTS[] = {
    {PI::EVT_PHYSICALDRIVE_ADDED, "disk-found"},
    {PI::EVT_PHYSICALDRIVE_REMOVED, "disk-gone"},
    {PI::EVT_REBUILD_STARTED, "rebuild-started"},
    {PI::EVT_REBUILD_COMPLETED, "rebuild-completed"},
    {PI::EVT_REBUILD_ABORTED, "rebuild-aborted"},
    {PI::EVT_LOGICALDRIVE_DEGRADED, "array-degraded"},
    {PI::EVT_LOGICALDRIVE_FAILED, "array-failed"},
    {PI::EVT_LOGICALDRIVE_ADDED, "array-found"},
    {PI::EVT_LOGICALDRIVE_DELETED, "array-gone"},
    {PI::EVT_LOGICALDRIVE_OK, "array-in-order"},
    {PI::EVT_RESYNC_STARTED, "resync-started"},
    {PI::EVT_RESYNC_COMPLETED, "resync-completed"},
    {PI::EVT_RESYNC_ABORTED, "resync-aborted"},
    {PI::EVT_RESCAN_REQUESTED, "rescan-requested"},
    {PI::EVT_READY_DRIVE_OFFLINE, "ready-disk-offline"},
    {PI::EVT_READY_DRIVE_IN_USE, "ready-disk-in-use"},
    {PI::EVT_FAILED_DRIVE_READY, "failed-disk-ready"},
    // Not "in use again", which the number was meant for: md holds a failed member until it is released.
    {PI::EVT_FAILED_DRIVE_IN_USE, "failed-disk-held"},
    {PI::EVT_USED_DRIVE_READY, "used-disk-ready"},
    {PI::EVT_USED_DRIVE_OFFLINE, "used-disk-offline"},
    {PI::EVT_SMART_LIFETIME_LOW, "disk-life-ending"},
    {PI::EVT_SMART_WEAR_HIGH, "disk-worn"},
    {PI::EVT_SMART_RESERVE_LOW, "disk-reserve-low"},
};

constexpr SKey OPERATIONS[] = {
    {PI::OP_CREATE_LOGICAL_DRIVE, "create-array"},
    {PI::OP_GET_EVENTS, "fetch-events"},
    {PI::OP_GET_RAID_LEVEL_INFORMATION, "get-levels"},
    {PI::OP_GET_ADAPTER_INFORMATION, "get-adapter-information"},
    {PI::OP_GET_CONFIGURATION, "get-configuration"},
    {PI::OP_RESCAN_ADAPTER, "rescan"},
    {PI::OP_CREATE_DEDICATED_HOTSPARE, "add-spare"},
    {PI::OP_DELETE_DEDICATED_HOTSPARE, "release-disk"},
    {PI::OP_DELETE_LOGICAL_DRIVE, "delete-array"},
    {PI::OP_DELETE_LAST_LOGICAL_DRIVE, "delete-last-array"},
    {PI::OP_DELETE_ALL_LOGICAL_DRIVES, "delete-all-arrays"},
    {PI::OP_START_REBUILD, "start-rebuild"},
    {PI::OP_CANCEL_REBUILD, "cancel-rebuild"},
    {PI::OP_REPLACE_MISSING_DRIVE, "replace-missing-disk"},
    {PI::OP_GET_MISSING_DRIVES, "list-missing-disks"},
};

constexpr SKey SEVERITIES[] = {
    {PI::SEV_INFORMATION, "information"}, {PI::SEV_WARNING, "warning"}, {PI::SEV_ERROR, "error"}};

template <class TTable>
const SKey* Find(const TTable& table, unsigned int number, unsigned int at) {
  const auto* const found = std::ranges::find_if(
      table, [&](const SKey& key) { return key.m_Number == number && (key.m_At & at) != 0; });
  return found == std::end(table) ? nullptr : found;
}

template <class TTable>
std::string KeyOf(const TTable& table, unsigned int number, unsigned int at = ALL) {
  const SKey* const key = Find(table, number, at);
  return key == nullptr ? std::to_string(number) : key->m_Key;
}

unsigned int SetOf(unsigned int kind) {
  const SKey* const key = Find(KINDS, kind, ALL);
  return key == nullptr ? 0 : key->m_At;
}

}  // namespace

std::string OfKind(unsigned int kind) { return KeyOf(KINDS, kind); }
std::string OfProperty(unsigned int property, unsigned int kind) {
  return KeyOf(PROPERTIES, property, SetOf(kind));
}
std::string OfChoice(unsigned int choice, unsigned int kind) { return KeyOf(CHOICES, choice, SetOf(kind)); }
std::string OfEvent(unsigned int code) { return KeyOf(EVENTS, code); }
std::string OfOperation(unsigned int code) { return KeyOf(OPERATIONS, code); }
std::string OfSeverity(unsigned int severity) { return KeyOf(SEVERITIES, severity); }

}  // namespace rvxctl::Keys
