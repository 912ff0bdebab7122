#include "host/Keys.h"

#include <algorithm>
#include <iterator>

#include "PI/Numbers.h"

namespace Host::Keys {

namespace {

/// Kinds of objects that a number occurs at, as a set.
enum EAt : unsigned int { PLUGIN = 1, ADAPTER = 2, ARRAY = 4, DISK = 8, ALL = 15 };

struct SKey {
  const char* m_Key;
  unsigned int m_Number;
  unsigned int m_At{ALL};
};

constexpr SKey KINDS[] = {{"plugin", PI::OBJ_PLUGIN, PLUGIN},
                          {"adapter", PI::OBJ_ADAPTER, ADAPTER},
                          {"array", PI::OBJ_LOGICAL_DRIVE, ARRAY},
                          {"disk", PI::OBJ_PHYSICAL_DRIVE, DISK}};

constexpr SKey PROPERTIES[] = {
    {"operatingSystem", PI::PROP_VENDOR, PLUGIN | ADAPTER},
    {"vendor", PI::PROP_VENDOR, DISK},
    {"pollInterval", PI::PROP_POLL_INTERVAL},
    {"displayName", PI::PROP_NAME},  // "name" is the kernel's, "sda"
    {"status", PI::PROP_STATUS},
    {"furtherInformation", PI::PROP_ADAPTER_EXTRA_TEXT},
    {"pciSegment", PI::PROP_LOCATION_0},
    {"pciBus", PI::PROP_LOCATION_1},
    {"pciDevice", PI::PROP_LOCATION_2},
    {"pciFunction", PI::PROP_LOCATION_3},
    {"level", PI::PROP_RAID_LEVEL},
    {"stripeSize", PI::PROP_STRIPE_SIZE},
    {"activity", PI::PROP_ACTIVITY},
    {"attachmentName", PI::PROP_ATTACHMENT, ADAPTER},
    {"attachment", PI::PROP_ATTACHMENT, DISK},
    {"spaceTaken", PI::PROP_CAPACITY, ARRAY},
    {"capacity", PI::PROP_CAPACITY, DISK},
    {"usableCapacity", PI::PROP_USABLE_CAPACITY},
    {"adapterName", PI::PROP_MODEL, ADAPTER},
    {"model", PI::PROP_MODEL, DISK},
    {"maximumDisks", PI::PROP_MAX_PHYSICAL_DRIVES},
    {"maximumArrays", PI::PROP_MAX_LOGICAL_DRIVES},
    {"capacity", PI::PROP_ARRAY_CAPACITY, ARRAY},
    {"version", PI::PROP_VERSION},
    {"targetArray", PI::PROP_TARGET_LOGICAL_DRIVE},
    {"adapterNumber", PI::PROP_ADAPTER_NUMBER},
    {"channel", PI::PROP_CHANNEL},
    {"diskNumber", PI::PROP_DRIVE_NUMBER},
    {"arrayNumber", PI::PROP_ARRAY_NUMBER},
    {"resyncProgress", PI::PROP_RESYNC_PROGRESS},
    {"rebuildProgress", PI::PROP_REBUILD_PROGRESS},
    {"deviceKey", PI::PROP_DEVICE_KEY},
    {"adapterType", PI::PROP_ADAPTER_TYPE},
    {"attributes", PI::PROP_ADAPTER_ATTRIBUTES},
    {"timeRemaining", PI::PROP_TIME_REMAINING},
    {"spareState", PI::PROP_SPARE_STATE},
    {"devicePath", PI::PROP_DEVICE_PATH},
    {"driver", PI::PROP_DRIVER},
    {"diskCount", PI::PROP_PHYSICAL_DRIVES},
    {"arrayCount", PI::PROP_LOGICAL_DRIVES},
    {"disksOfMaximum", PI::PROP_PHYSICAL_DRIVES_OF_MAX},
    {"arraysOfMaximum", PI::PROP_LOGICAL_DRIVES_OF_MAX},
    {"medium", PI::PROP_MEDIUM},
    {"endOfLife", PI::PROP_END_OF_LIFE},
    {"reserve", PI::PROP_SMART_RESERVE},
    {"dataWritten", PI::PROP_SMART_BYTES_WRITTEN},
    {"wear", PI::PROP_SMART_WEAR},
    {"configuration", PI::PROP_CONFIGURATION},
    {"powerOnTime", PI::PROP_SMART_POWER_ON_HOURS},
};

constexpr SKey CHOICES[] = {
    {"in-order", PI::STATUS_OK, ARRAY},
    {"in-use", PI::STATUS_OK, DISK},
    {"in-order", PI::ADAPTER_OK, ADAPTER},
    {"degraded", PI::STATUS_DEGRADED, ARRAY},
    {"degraded", PI::ADAPTER_DEGRADED, ADAPTER},
    {"failed", PI::STATUS_FAILED},
    {"missing", PI::STATUS_MISSING, DISK},
    {"spare", PI::STATUS_SPARE, DISK},
    {"ready", PI::STATUS_READY, DISK},
    {"rebuilding", PI::STATUS_REBUILDING},
    {"none", PI::ACTIVITY_NONE},
    {"resyncing", PI::ACTIVITY_RESYNCING},
    {"verifying", PI::ACTIVITY_VERIFYING},
    {"raid0", PI::LEVEL_RAID0, ARRAY},
    {"raid1", PI::LEVEL_RAID1, ARRAY},
    {"raid4", PI::LEVEL_RAID4, ARRAY},
    {"raid5", PI::LEVEL_RAID5, ARRAY},
    {"raid6", PI::LEVEL_RAID6, ARRAY},
    {"raid10", PI::LEVEL_RAID10, ARRAY},
    {"linear", PI::LEVEL_CONCATENATION, ARRAY},
    {"4", PI::STRIPE_4K, ARRAY},
    {"8", PI::STRIPE_8K, ARRAY},
    {"16", PI::STRIPE_16K, ARRAY},
    {"32", PI::STRIPE_32K, ARRAY},
    {"64", PI::STRIPE_64K, ARRAY},
    {"128", PI::STRIPE_128K, ARRAY},
    {"ata", PI::ATTACHMENT_ATA, DISK},
    {"scsi", PI::ATTACHMENT_OTHER, DISK},
    {"rotating", PI::MEDIUM_ROTATING, DISK},
    {"solid-state", PI::MEDIUM_SOLID_STATE, DISK},
    {"free", PI::SPARE_STATE_FREE, DISK},
    {"taken", PI::SPARE_STATE_IN_USE, DISK},
    {"pending", PI::SPARE_STATE_PENDING, DISK},
    {"software", PI::ADAPTER_TYPE_SOFTWARE, ADAPTER},
};

constexpr SKey EVENTS[] = {
    {"disk-found", PI::EVT_PHYSICALDRIVE_ADDED},
    {"disk-gone", PI::EVT_PHYSICALDRIVE_REMOVED},
    {"rebuild-started", PI::EVT_REBUILD_STARTED},
    {"rebuild-completed", PI::EVT_REBUILD_COMPLETED},
    {"rebuild-aborted", PI::EVT_REBUILD_ABORTED},
    {"array-degraded", PI::EVT_LOGICALDRIVE_DEGRADED},
    {"array-failed", PI::EVT_LOGICALDRIVE_FAILED},
    {"array-found", PI::EVT_LOGICALDRIVE_ADDED},
    {"array-gone", PI::EVT_LOGICALDRIVE_DELETED},
    {"array-in-order", PI::EVT_LOGICALDRIVE_OK},
    {"resync-started", PI::EVT_RESYNC_STARTED},
    {"resync-completed", PI::EVT_RESYNC_COMPLETED},
    {"resync-aborted", PI::EVT_RESYNC_ABORTED},
    {"rescan-requested", PI::EVT_RESCAN_REQUESTED},
    {"ready-disk-offline", PI::EVT_READY_DRIVE_OFFLINE},
    {"ready-disk-in-use", PI::EVT_READY_DRIVE_IN_USE},
    {"failed-disk-ready", PI::EVT_FAILED_DRIVE_READY},
    // Not "in use again", which the number was meant for: md holds a failed member until it is released.
    {"failed-disk-held", PI::EVT_FAILED_DRIVE_IN_USE},
    {"used-disk-ready", PI::EVT_USED_DRIVE_READY},
    {"used-disk-offline", PI::EVT_USED_DRIVE_OFFLINE},
    {"disk-life-ending", PI::EVT_SMART_LIFETIME_LOW},
    {"disk-worn", PI::EVT_SMART_WEAR_HIGH},
    {"disk-reserve-low", PI::EVT_SMART_RESERVE_LOW},
};

constexpr SKey OPERATIONS[] = {
    {"create-array", PI::OP_CREATE_LOGICAL_DRIVE},
    {"fetch-events", PI::OP_GET_EVENTS},
    {"get-levels", PI::OP_GET_RAID_LEVEL_INFORMATION},
    {"get-adapter-information", PI::OP_GET_ADAPTER_INFORMATION},
    {"get-configuration", PI::OP_GET_CONFIGURATION},
    {"rescan", PI::OP_RESCAN_ADAPTER},
    {"add-spare", PI::OP_CREATE_DEDICATED_HOTSPARE},
    {"release-disk", PI::OP_DELETE_DEDICATED_HOTSPARE},
    {"delete-array", PI::OP_DELETE_LOGICAL_DRIVE},
    {"delete-last-array", PI::OP_DELETE_LAST_LOGICAL_DRIVE},
    {"delete-all-arrays", PI::OP_DELETE_ALL_LOGICAL_DRIVES},
    {"start-rebuild", PI::OP_START_REBUILD},
    {"cancel-rebuild", PI::OP_CANCEL_REBUILD},
    {"replace-missing-disk", PI::OP_REPLACE_MISSING_DRIVE},
    {"list-missing-disks", PI::OP_GET_MISSING_DRIVES},
};

constexpr SKey SEVERITIES[] = {
    {"information", PI::SEV_INFORMATION}, {"warning", PI::SEV_WARNING}, {"error", PI::SEV_ERROR}};

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

}  // namespace Host::Keys
