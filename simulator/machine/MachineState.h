#pragma once
/// @file
/// What a simulated machine consists of: plain values that can be copied. Sizes are KiB unless a name says
/// sectors.

#include <linux/raid/md_p.h>
#include <sys/types.h>

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Simulation {

inline constexpr std::uint64_t SECTOR = 512;
inline constexpr std::uint64_t EVERYTHING = ~std::uint64_t{0};  ///< resync_offset of an array that is in sync
inline constexpr std::uint64_t MOST_SIZE = std::uint64_t{1} << 40;  ///< KiB; far beyond what a disk holds
inline constexpr unsigned int MD_MAJOR_NUMBER = 9;
inline constexpr unsigned int MINORS_PER_PARTITIONABLE = 64;
inline constexpr unsigned int NO_HOST = ~0U;  ///< a disk that has no SCSI address yet

/// A medium of which only the parts that are not zero take memory.
class CSparseBytes {
 public:
  static constexpr std::size_t BLOCK = 4096;
  using TBlock = std::array<char, BLOCK>;

  std::string Read(std::uint64_t offset, std::size_t size) const;
  void Write(std::uint64_t offset, const void* bytes, std::size_t size);
  /// Blocks that hold anything but zeros, by block number.
  const std::map<std::uint64_t, TBlock>& Blocks() const { return m_Blocks; }

 private:
  std::map<std::uint64_t, TBlock> m_Blocks;
};

/// What the driver of a controller makes of its disks.
struct SDriver {
  const char* m_Name;
  bool m_IsAta;             ///< they take ATA commands
  std::size_t m_PerHost;    ///< so many share a SCSI host
  const char* m_AboveHost;  ///< in sysfs, between controller and host; %4% is the number of an ATA port
  const char* m_BelowHost;  ///< between host and target
  const char* m_PathID;     ///< what udev puts behind the controller: %1% is the ATA port, %2% the target
};
/// One that is not known gets what most do.
const SDriver& FindDriver(const std::string& name);

struct SController {
  std::string m_Name;
  std::string m_Address;           ///< PCI, such as "0000:00:1f.2"
  std::string m_Vendor{"0x8086"};  ///< as sysfs shows it
  std::string m_Driver;
};

struct SPartition {
  unsigned int m_Number{};
  std::uint64_t m_Start{};
  std::uint64_t m_Size{};
  std::string m_Mount;  ///< empty: not mounted
};

struct SSmartAttribute {
  unsigned char m_ID{};
  unsigned short m_Flags{0x32};
  unsigned char m_Value{100};
  unsigned char m_Worst{100};
  std::uint64_t m_Raw{};
};

struct SDisk {
  std::string m_Name;
  dev_t m_Device{};
  std::uint64_t m_Size{};
  std::size_t m_Controller{};  ///< index into the machine's controllers
  std::string m_Vendor;
  std::string m_Model;
  std::string m_Serial;
  std::string m_Wwn;  ///< "0x" and 16 or 32 digits; empty: none
  bool m_SolidState{false};
  std::string m_State{"running"};
  bool m_Asleep{false};  ///< answers "not ready" until a start command
  bool m_Held{false};    ///< something outside md and the file systems has it open exclusively
  std::string m_Mount;
  unsigned int m_Host{NO_HOST};
  unsigned int m_Target{};
  std::uint64_t m_Instance{};  ///< tells a disk from a later one of the same name; Linux's DISKSEQ
  std::optional<std::vector<SSmartAttribute>> m_Smart;
  std::vector<SPartition> m_Partitions;
  CSparseBytes m_Bytes;
};

/// A member device of an array, as md keeps it while it is bound.
struct SMember {
  std::string m_Name;
  dev_t m_Device{};
  std::uint64_t m_Instance{};  ///< of the disk; 0: it is gone
  int m_Number{};
  int m_Slot{-1};
  int m_SavedSlot{-1};  ///< where it was before it was taken out
  bool m_InSync{false};
  bool m_Faulty{false};
  std::uint64_t m_Sectors{};           ///< data sectors that the superblock grants
  std::uint64_t m_RecoveredSectors{};  ///< how far an interrupted recovery came
};

struct SSync {
  bool m_Recovery{};        ///< else a resync
  bool m_Delayed{false};    ///< waits for another array on the same disk
  std::uint64_t m_From{};   ///< sectors done at m_Since
  std::uint64_t m_Since{};  ///< machine time, ms
};

struct SArray {
  std::string m_Name;
  dev_t m_Device{};
  std::uint64_t m_Instance{};
  bool m_Running{false};
  bool m_Clean{true};
  bool m_Broken{false};   ///< lost more than its level bears
  bool m_Closing{false};  ///< was stopped, and is gone when its last user goes
  int m_MajorVersion{0};  ///< of the metadata; 0 and 90 for the old format
  int m_MinorVersion{90};
  int m_Level{};
  int m_Layout{};
  int m_RaidDisks{};
  std::uint64_t m_ChunkSectors{};
  std::uint64_t m_DeviceSectors{};  ///< of each member that is used, for levels with redundancy
  std::uint64_t m_ArraySectors{};
  bool m_Kept{true};          ///< an empty device stays until something tried to configure it
  std::uint64_t m_Created{};  ///< seconds since 1970; 0: nothing was configured
  std::uint64_t m_Updated{};
  std::uint64_t m_Events{};
  std::uint64_t m_SyncedSectors{EVERYTHING};  ///< resync_offset
  std::array<unsigned char, 16> m_Uuid{};
  std::string m_SetName;
  std::uint64_t m_Speed{};  ///< of a resync or recovery, KiB/s; 0: it stands still
  std::optional<SSync> m_Sync;
  std::vector<SMember> m_Members;  ///< the one that came last stands first, as in the kernel's list
  std::vector<SPartition> m_Partitions;
  std::string m_Mount;
};

struct SNode {
  std::string m_Path;
  mode_t m_Mode{};
  dev_t m_Device{};
};

struct SMachine;

struct SScriptEntry {
  std::uint64_t m_At{};                   ///< machine time, ms
  std::string m_Text;                     ///< as a description has it
  std::function<void(SMachine&)> m_Make;  ///< throws CMachineError when it cannot be made
};

enum class EFile { Text, Link, Directory, Random, Block };

struct SOpenFile {
  EFile m_Kind{};
  std::string m_Path;
  int m_Flags{};
  std::uint64_t m_Position{};
  std::optional<std::string> m_Text;  ///< as it was when it was first read
  dev_t m_Device{};
  std::uint64_t m_Instance{};
  std::uint64_t m_MdEvents{};  ///< md's event count that this open /proc/mdstat has seen
};

struct SMachine {
  std::uint64_t m_ClockStart{
      1704067200000};         ///< ms since 1970 at machine time 0, for a clock that is moved by hand
  std::uint64_t m_Time{0};    ///< machine time, ms
  std::uint64_t m_Random{1};  ///< state of /dev/urandom
  unsigned int m_MdpMajor{253};
  std::uint64_t m_Speed{34048};                  ///< default speed of a resync or recovery
  std::string m_Process{"/opt/storage/server"};  ///< the running program
  bool m_HasSdparm{false};
  std::vector<SController> m_Controllers;
  std::vector<SDisk> m_Disks;
  std::vector<SArray> m_Arrays;        ///< in order of creation
  std::vector<SNode> m_Nodes;          ///< made with mknod
  bool m_Rehearsed{true};              ///< a script whose changes cannot all be made is refused
  std::vector<SScriptEntry> m_Script;  ///< what is still to come, in order of time
  std::map<int, SOpenFile> m_Files;
  std::uint64_t m_MdEvents{0};
  std::uint64_t m_LastInstance{0};
};

/// A disk, a partition or an array, looked up in a machine. Valid until the machine's lists change.
struct SBlock {
  std::string m_Name;
  dev_t m_Device{};
  SDisk* m_Disk{nullptr};    ///< the whole disk, or
  SArray* m_Array{nullptr};  ///< the array
  SPartition* m_Partition{nullptr};
  std::uint64_t m_Start{};
  std::uint64_t m_Size{};

  std::uint64_t Instance() const;
  std::vector<SPartition>& Partitions() const;
  std::string& Mount() const;
};

/// In the order in which the kernel registered them, partitions behind their disk.
std::vector<SBlock> AllBlocks(SMachine& machine);
std::optional<SBlock> FindBlock(SMachine& machine, dev_t device);
std::optional<SBlock> FindBlock(SMachine& machine, const std::string& name);
SDisk* FindDisk(SMachine& machine, const std::string& name);
SArray* FindArray(SMachine& machine, const std::string& name);
/// The member on a device; null when there is none.
SMember* FindMember(SArray& array, dev_t device);
/// The device of a member, unless it has gone since.
std::optional<SBlock> BlockOf(SMachine& machine, const SMember& member);
bool IsThere(const SMachine& machine, const SMember& member);
/// True when nobody has claimed the device, its whole disk or one of its partitions: md, a mount or O_EXCL.
bool CanClaim(SMachine& machine, const SBlock& block);
/// How many hold the array open: descriptors and mounts, those of its partitions included.
std::size_t Openers(SMachine& machine, const SArray& array);

/// 0, or the error that the medium answers with. `offset` and `size` in bytes, inside the device.
int ReadBlock(const SBlock& block, std::uint64_t offset, std::size_t size, std::string& bytes);
int WriteBlock(const SBlock& block, std::uint64_t offset, const void* bytes, std::size_t size);

/// Next value of the machine's pseudo-random sequence.
std::uint64_t NextRandom(SMachine& machine);
/// Gives a new device the next instance, unless it has one.
void TakeInstance(SMachine& machine, std::uint64_t& instance);
/// Takes in a new disk; it gets an instance and a SCSI address unless it has them.
void Attach(SMachine& machine, SDisk disk);

}  // namespace Simulation
