#pragma once
/// @file
/// Every number of the framework's enumerations that this system uses, in one place. The texts behind them
/// stand in the catalogue piRVX.nls under the same numbers.

#include <cstdint>

namespace PI {

/// Commands of IPLUGINAPI::Execute.
enum _COMMAND : std::uint32_t {
  CMD_INITIALIZE = 1,         ///< first of all; data: std::vector<CAdapterID>, output: one for each adapter
  CMD_SET_ADAPTER_IDS = 2,    ///< starts the plug-in's threads; data: const std::vector<CAdapterID>, numbered
  CMD_DEINITIALIZE = 3,       ///< ends the plug-in's threads; data: unused
  CMD_GET_TOPOLOGY = 4,       ///< data: std::vector<CObject>, output: the plug-in, its adapter, disks, arrays
  CMD_GET_PROPERTIES = 5,     ///< of one object; data: std::vector<CProperty>, output
  CMD_GET_PROPERTY = 6,       ///< of one object; data: CProperty, in: the wanted id, out: the property
  CMD_SET_PROPERTY = 7,       ///< of one object; data: CProperty, with its new value
  CMD_GET_OPERATIONS = 8,     ///< what one object offers; data: std::vector<COperation>, output
  CMD_CHECK_OPERATION = 9,    ///< whether one object allows it now; data: COperation, in and out
  CMD_EXECUTE_OPERATION = 10  ///< carries it out; data: COperation, in and out
};

/// Status codes; every request answers with one of them.
enum _STATUS : std::uint32_t {
  OK = 0,  ///< done
  ERR_GENERAL = 20000,
  ERR_SCAN_FAILED = 20001,
  COMMAND_ERROR = 20002,
  ERR_DEVICE_IO = 20003,
  ERR_PROPERTY_NOT_SETTABLE = 20004,
  ERR_OPERATION_NOT_SUPPORTED = 20005,
  ERR_INVALID_CONFIGURATION = 20006,
  ERR_OUT_OF_MEMORY = 20007,
  INVALID_OBJECT_ID = 20008,
  ERR_WRONG_PARAMETER_TYPE = 20010,
  ERR_LOCK_INITIALIZATION_FAILED = 20011,
  ERR_WRITE_FAILED = 20018,
  ERR_BUSY = 20020,
  ERR_NO_REDUNDANCY = 20023,
  ERR_STATE_FORBIDS_REBUILD = 20024,
  ERR_NO_REBUILD_RUNNING = 20025,
  ERR_OPEN_FAILED = 20029,
  ERR_DRIVE_NOT_FOUND = 20032,
  ERR_NOT_AVAILABLE = 20049,
  ERR_NO_FREE_SLOT = 20072,
  ERR_MISSING_DRIVE_PENDING = 20117,
  ERR_DRIVE_NOT_MISSING = 20118
};

/// Kinds of objects.
enum _OBJECT_KIND : std::uint32_t {
  OBJ_NONE = 0,        ///< no object
  OBJ_PLUGIN = 19006,  ///< the first object of each topology
  OBJ_LOGICAL_DRIVE = 19017,
  OBJ_PHYSICAL_DRIVE = 19018,
  OBJ_ADAPTER = 19037  ///< the second object of each topology
};

/// Properties: which kind of value each has, and its unit.
enum _PROPERTY_ID : std::uint32_t {
  PROP_NONE = 0,               ///< no property
  PROP_ALL = 1,                ///< asks a builder for all its properties; never a real one
  PROP_VENDOR = 30003,         ///< text; of a plug-in or adapter: the operating system
  PROP_POLL_INTERVAL = 30005,  ///< range, seconds: between two looks at the machine; can be set
  PROP_NAME = 30007,           ///< text, for people
  PROP_STATUS = 30017,  ///< choice: STATUS_..., of an adapter ADAPTER_OK, ADAPTER_DEGRADED or STATUS_FAILED
  PROP_ADAPTER_EXTRA_TEXT = 30018,    ///< text; only where there is one
  PROP_LOCATION_1 = 30037,            ///< unsigned: PCI bus
  PROP_LOCATION_2 = 30038,            ///< unsigned: PCI device
  PROP_LOCATION_3 = 30039,            ///< unsigned: PCI function
  PROP_RAID_LEVEL = 30045,            ///< choice: LEVEL_...
  PROP_STRIPE_SIZE = 30046,           ///< choice: STRIPE_...; of RAID 0 and 10 alone
  PROP_ACTIVITY = 30054,              ///< choice: ACTIVITY_...
  PROP_ATTACHMENT = 30056,            ///< choice: ATTACHMENT_...; of an adapter its name, as text
  PROP_CAPACITY = 30059,              ///< unsigned, MiB; of an array: its members' space
  PROP_USABLE_CAPACITY = 30060,       ///< unsigned, MiB: what of a disk an array can use
  PROP_MODEL = 30063,                 ///< text; of an adapter: its name
  PROP_MAX_PHYSICAL_DRIVES = 30075,   ///< unsigned: how many disks an adapter can have
  PROP_MAX_LOGICAL_DRIVES = 30076,    ///< unsigned: how many arrays an adapter can have
  PROP_ARRAY_CAPACITY = 30090,        ///< unsigned, MiB: what an array offers
  PROP_VERSION = 30099,               ///< text
  PROP_TARGET_LOGICAL_DRIVE = 30117,  ///< unsigned; parameter of the spare operations: an array number
  PROP_ADAPTER_NUMBER = 30120,        ///< unsigned
  PROP_CHANNEL = 30122,               ///< unsigned: always 0
  PROP_DRIVE_NUMBER = 30125,          ///< unsigned: place in the order of the last look
  PROP_ARRAY_NUMBER = 30126,          ///< unsigned: the number in the kernel's name of the array
  PROP_RESYNC_PROGRESS = 30132,       ///< range, percent; hidden while none runs
  PROP_REBUILD_PROGRESS = 30136,      ///< range, percent; hidden while none runs
  PROP_DEVICE_KEY = 30137,            ///< text, for programs: what an object is
  PROP_ADAPTER_TYPE = 30158,          ///< choice: ADAPTER_TYPE_SOFTWARE
  PROP_ADAPTER_ATTRIBUTES = 30165,    ///< number lists
  PROP_TIME_REMAINING = 30240,  ///< text, hh:mm:ss, by the progress as it was read; hidden while nothing runs
  PROP_SPARE_STATE = 30244,     ///< choice: SPARE_STATE_...
  PROP_DEVICE_PATH = 30247,     ///< text, such as "/dev/sda"
  PROP_DRIVER = 30266,          ///< text: the kernel driver
  PROP_PHYSICAL_DRIVES = 30273,         ///< unsigned: how many disks an adapter has
  PROP_LOGICAL_DRIVES = 30274,          ///< unsigned: how many arrays an adapter has
  PROP_PHYSICAL_DRIVES_OF_MAX = 30277,  ///< text, such as "8/1024"
  PROP_LOGICAL_DRIVES_OF_MAX = 30278,   ///< text, such as "2/256"
  PROP_MEDIUM = 30320,                  ///< choice: MEDIUM_...
  PROP_LOCATION_0 = 30479,              ///< unsigned: PCI segment
  PROP_END_OF_LIFE = 30483,    ///< text, YYYY-MM-DD: when it is worn out at its pace; hidden where not known
  PROP_SMART_RESERVE = 30486,  ///< range, percent left; hidden where the disk does not tell
  PROP_SMART_BYTES_WRITTEN = 30490,  ///< float, in the unit it names; hidden where the disk does not tell
  PROP_SMART_WEAR = 30494,           ///< range, percent used; hidden where the disk does not tell
  PROP_CONFIGURATION = 30496,        ///< XML: the description of an array, see CLogicalDrive
  PROP_SMART_POWER_ON_HOURS = 30498  ///< unsigned, hours; hidden where the disk does not tell
};

/// Operation codes: which object offers each, what it is given and what it answers.
enum _OPERATION_CODE : std::uint32_t {
  OP_CREATE_LOGICAL_DRIVE = 50000,  ///< of the adapter; m_pRequest: what to create
  OP_GET_EVENTS = 50002,            ///< of the plug-in; answer in m_Events: what happened since the last time
  OP_GET_RAID_LEVEL_INFORMATION = 50003,  ///< of the adapter; answer in m_Levels, also in each topology
  OP_GET_ADAPTER_INFORMATION = 50004,     ///< executed for each topology where it is offered: not here
  OP_GET_CONFIGURATION = 50005,           ///< of an array; answer in m_LogicalDrives
  OP_RESCAN_ADAPTER = 50007,              ///< of the adapter: the next look at the machine comes now
  OP_CREATE_DEDICATED_HOTSPARE = 50036,   ///< of a disk; one parameter, PROP_TARGET_LOGICAL_DRIVE
  OP_DELETE_DEDICATED_HOTSPARE = 50038,   ///< of a disk: a spare, or a member that has failed
  OP_DELETE_LOGICAL_DRIVE = 50050,        ///< of an array
  OP_DELETE_LAST_LOGICAL_DRIVE = 50051,   ///< of the adapter
  OP_DELETE_ALL_LOGICAL_DRIVES = 50052,   ///< of the adapter; the status is that of the last one
  OP_START_REBUILD = 50054,               ///< of an array
  OP_CANCEL_REBUILD = 50057,              ///< of an array
  OP_REPLACE_MISSING_DRIVE = 50073,       ///< of a disk; never allowed: md has no missing disks
  OP_GET_MISSING_DRIVES = 50089           ///< of a disk; refused: md has no missing disks
};

/// Event codes.
enum _EVENT_CODE : std::uint32_t {
  EVT_PHYSICALDRIVE_ADDED = 10032,
  EVT_PHYSICALDRIVE_REMOVED = 10033,
  EVT_REBUILD_STARTED = 10055,
  EVT_REBUILD_COMPLETED = 10056,
  EVT_REBUILD_ABORTED = 10058,
  EVT_LOGICALDRIVE_DEGRADED = 10078,
  EVT_LOGICALDRIVE_FAILED = 10079,
  EVT_LOGICALDRIVE_ADDED = 10080,
  EVT_LOGICALDRIVE_DELETED = 10081,
  EVT_LOGICALDRIVE_OK = 10082,
  EVT_RESYNC_STARTED = 10085,
  EVT_RESYNC_COMPLETED = 10086,
  EVT_RESYNC_ABORTED = 10090,
  EVT_RESCAN_REQUESTED = 10132,
  EVT_READY_DRIVE_OFFLINE = 10451,
  EVT_READY_DRIVE_IN_USE = 10454,
  EVT_FAILED_DRIVE_READY = 10455,
  EVT_FAILED_DRIVE_IN_USE = 10459,
  EVT_USED_DRIVE_READY = 10470,
  EVT_USED_DRIVE_OFFLINE = 10471,
  EVT_SMART_LIFETIME_LOW = 11089,
  EVT_SMART_WEAR_HIGH = 11090,
  EVT_SMART_RESERVE_LOW = 11091
};

/// Event severities. Events whose source names none carry the framework's default.
enum _SEVERITY : std::uint32_t {
  SEV_INFORMATION = 2,           ///< worth knowing
  SEV_WARNING = 3,               ///< somebody should look
  SEV_ERROR = 4,                 ///< redundancy or data are lost, or a disk is
  SEV_DEFAULT = SEV_INFORMATION  ///< the framework's default, of events that name none
};

/// Choice values: states, levels, stripe sizes, kinds of attachment and medium.
enum _CHOICE : std::uint32_t {
  ATTACHMENT_ATA = 40002,
  LEVEL_RAID0 = 40007,
  LEVEL_RAID1 = 40009,
  LEVEL_RAID4 = 40013,
  LEVEL_RAID5 = 40014,
  LEVEL_RAID6 = 40017,
  LEVEL_RAID10 = 40018,
  LEVEL_CONCATENATION = 40021,  ///< also every md level that has no value of its own
  STATUS_MISSING = 40023,
  ADAPTER_OK = 40024,  ///< of an adapter
  ACTIVITY_VERIFYING = 40025,
  STRIPE_4K = 40049,
  STRIPE_8K = 40050,
  STRIPE_16K = 40051,
  STRIPE_32K = 40052,
  STRIPE_64K = 40053,
  STRIPE_128K = 40054,
  STATUS_OK = 40093,  ///< of a disk: in use; of an array: in order
  STATUS_DEGRADED = 40094,
  STATUS_FAILED = 40095,  ///< of a disk, an array or an adapter
  STATUS_REBUILDING = 40096,
  ACTIVITY_REBUILDING = STATUS_REBUILDING,  ///< the same number as the status
  STATUS_SPARE = 40098,
  STATUS_READY = 40099,
  ACTIVITY_NONE = 40102,
  ACTIVITY_RESYNCING = 40103,
  ADAPTER_DEGRADED = 40150,  ///< of an adapter
  ATTACHMENT_OTHER = 40174,
  SPARE_STATE_FREE = 40262,
  SPARE_STATE_IN_USE = 40263,
  SPARE_STATE_PENDING = 40264,
  ADAPTER_TYPE_SOFTWARE = 40278,
  MEDIUM_ROTATING = 40292,
  MEDIUM_SOLID_STATE = 40293
};

/// Confirmation codes: what a person is asked before an operation.
enum _CONFIRMATION : std::uint32_t {
  CONFIRM_CREATE = 22001,
  CONFIRM_DELETE = 22003,
  CONFIRM_DELETE_ALL = 22005,
  CONFIRM_DELETE_WARNING_FIRST = 22006,  ///< no question: below it, codes are no warnings
  REASON_DRIVE_LETTER = 22074,
  REASON_MOUNTED = 22075,
  CONFIRM_DELETE_DRIVE_LETTER = 22076,
  CONFIRM_DELETE_MOUNTED = 22077
};

/// Units of values, by the number of their text.
enum _UNITS : std::uint32_t {
  UNIT_NONE = 0,  ///< no unit
  UNIT_BYTES = 21000,
  UNIT_KIB = 21001,
  UNIT_MIB = 21002,
  UNIT_GIB = 21003,
  UNIT_TIB = 21004,
  UNIT_HOURS = 21005,
  UNIT_DRIVES = 21006,
  UNIT_SECONDS = 21007,
  UNIT_PERCENT = 21010,
  UNIT_TIME = 21016  ///< hours:minutes:seconds that are left
};

}  // namespace PI
