#include "simulator/machine/MachineState.h"

#include <fcntl.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <random>

namespace Simulation {
namespace {

constexpr std::uint64_t KIB = 1024;
constexpr const char* SAS_PORT = "port-%1%:%2%/end_device-%1%:%2%/";
// An AHCI port is a host of its own, a PIIX channel takes two disks, on other controllers all share one host.
// The port is counted over all controllers, as the hosts are: a disk keeps it when another one is pulled.
constexpr const char* ATA_PATH = "-ata-%1%.%2%";
constexpr const char* SAS_PATH = "-sas-phy%2%-lun-0";
constexpr const char* SCSI_PATH = "-scsi-0:0:%2%:0";
constexpr std::array DRIVERS = {
    SDriver{"ahci", true, 1, "/ata%4%", "", ATA_PATH},
    SDriver{"ata_piix", true, 2, "/ata%4%", "", ATA_PATH},
    SDriver{"mptsas", false, EVERYTHING, "", SAS_PORT, SAS_PATH},
    SDriver{"mpt2sas", false, EVERYTHING, "", SAS_PORT, SAS_PATH},
    SDriver{"mpt3sas", false, EVERYTHING, "", SAS_PORT, SAS_PATH},
    SDriver{"virtio-pci", false, EVERYTHING, "/virtio%1%", "", SCSI_PATH},
    SDriver{"xhci_hcd", false, EVERYTHING, "/usb1/1-1/1-1:1.0", "", "-usb-0:1:1.0-scsi-0:0:%2%:0"},
    SDriver{"", false, EVERYTHING, "", "", SCSI_PATH}};

/// Calls `visit(block, offset in block, offset in range, count)` for every block that a range touches.
template <typename TVisit>
void ForEachPiece(std::uint64_t offset, std::size_t size, TVisit visit) {
  for (std::size_t done = 0; done < size;) {
    const std::size_t inside = (offset + done) % CSparseBytes::BLOCK;
    const std::size_t count = std::min(CSparseBytes::BLOCK - inside, size - done);
    visit((offset + done) / CSparseBytes::BLOCK, inside, done, count);
    done += count;
  }
}

/// The kernel puts a "p" between a name that ends with a digit and the partition's number.
std::string PartitionName(const std::string& whole, unsigned int number) {
  const bool digit = std::isdigit(static_cast<unsigned char>(whole.back())) != 0;
  return whole + (digit ? "p" : "") + std::to_string(number);
}

SBlock WholeBlock(SDisk& disk) {
  return {disk.m_Name, disk.m_Device, &disk, nullptr, nullptr, 0, disk.m_Size};
}

SBlock WholeBlock(SArray& array) {
  return {array.m_Name, array.m_Device, nullptr, &array, nullptr, 0, array.m_ArraySectors / 2};
}

SBlock PartitionBlock(SBlock whole, SPartition& partition) {
  whole.m_Name = PartitionName(whole.m_Name, partition.m_Number);
  whole.m_Device = makedev(major(whole.m_Device), minor(whole.m_Device) + partition.m_Number);
  whole.m_Partition = &partition;
  whole.m_Start = partition.m_Start;
  whole.m_Size = partition.m_Size;
  return whole;
}

/// Calls `visit(block)` for every device until it answers true, partitions behind their disk; for those alone
/// whose whole device is `wanted`.
template <typename TWanted, typename TVisit>
void ForEachBlock(SMachine& machine, TWanted wanted, TVisit visit) {
  const auto visitAll = [&](const SBlock& whole) {
    if (!wanted(whole)) return false;
    const auto isIt = [&](SPartition& partition) { return visit(PartitionBlock(whole, partition)); };
    return visit(whole) || std::any_of(whole.Partitions().begin(), whole.Partitions().end(), isIt);
  };
  for (SDisk& disk : machine.m_Disks)
    if (visitAll(WholeBlock(disk))) return;
  for (SArray& array : machine.m_Arrays)
    if (visitAll(WholeBlock(array))) return;
}

/// The device that `matches`. `mayHold` tells of a whole one whether it or a partition of it may.
template <typename TMayHold, typename TMatch>
std::optional<SBlock> FindBlockThat(SMachine& machine, TMayHold mayHold, TMatch matches) {
  std::optional<SBlock> found;
  ForEachBlock(machine, mayHold, [&](const SBlock& block) {
    if (matches(block)) found = block;
    return found.has_value();
  });
  return found;
}

template <typename TItem>
TItem* FindNamed(std::vector<TItem>& list, const std::string& name) {
  const auto found =
      std::find_if(list.begin(), list.end(), [&](const auto& one) { return one.m_Name == name; });
  return found == list.end() ? nullptr : &*found;
}

bool IsMember(const SMachine& machine, const SBlock& block) {
  return std::any_of(machine.m_Arrays.begin(), machine.m_Arrays.end(), [&](const SArray& array) {
    return std::any_of(array.m_Members.begin(), array.m_Members.end(), [&](const SMember& member) {
      return member.m_Device == block.m_Device && member.m_Instance == block.Instance();
    });
  });
}

bool IsClaimed(const SMachine& machine, const SBlock& block) {
  const bool held = block.m_Disk != nullptr && block.m_Partition == nullptr && block.m_Disk->m_Held;
  return held || !block.Mount().empty() || IsMember(machine, block) ||
         std::any_of(machine.m_Files.begin(), machine.m_Files.end(), [&](const auto& entry) {
           const SOpenFile& file = entry.second;
           return file.m_Kind == EFile::Block && (file.m_Flags & O_EXCL) != 0 &&
                  file.m_Device == block.m_Device && file.m_Instance == block.Instance();
         });
}

/// What a medium that does not answer gives.
int MediumError(const SBlock& block) {
  return block.m_Disk->m_State != "running" || block.m_Disk->m_Asleep ? EIO : 0;
}

}  // namespace

const SDriver& FindDriver(const std::string& name) {
  const auto* const other = DRIVERS.end() - 1;
  return *std::find_if(DRIVERS.begin(), other, [&](const SDriver& driver) { return name == driver.m_Name; });
}

std::string CSparseBytes::Read(std::uint64_t offset, std::size_t size) const {
  std::string bytes(size, '\0');
  ForEachPiece(offset, size,
               [&](std::uint64_t number, std::size_t inside, std::size_t done, std::size_t count) {
                 if (const auto block = m_Blocks.find(number); block != m_Blocks.end()) {
                   std::memcpy(bytes.data() + done, block->second.data() + inside, count);
                 }
               });
  return bytes;
}

void CSparseBytes::Write(std::uint64_t offset, const void* bytes, std::size_t size) {
  ForEachPiece(offset, size,
               [&](std::uint64_t number, std::size_t inside, std::size_t done, std::size_t count) {
                 TBlock& block = m_Blocks[number];
                 std::memcpy(block.data() + inside, static_cast<const char*>(bytes) + done, count);
                 if (std::all_of(block.begin(), block.end(), [](char byte) { return byte == '\0'; }))
                   m_Blocks.erase(number);
               });
}

std::uint64_t SBlock::Instance() const {
  return m_Disk != nullptr ? m_Disk->m_Instance : m_Array->m_Instance;
}

std::vector<SPartition>& SBlock::Partitions() const {
  return m_Disk != nullptr ? m_Disk->m_Partitions : m_Array->m_Partitions;
}

std::string& SBlock::Mount() const {
  if (m_Partition != nullptr) return m_Partition->m_Mount;
  return m_Disk != nullptr ? m_Disk->m_Mount : m_Array->m_Mount;
}

std::vector<SBlock> AllBlocks(SMachine& machine) {
  std::vector<SBlock> blocks;
  const auto all = [](const SBlock&) { return true; };
  ForEachBlock(machine, all, [&](const SBlock& block) {
    blocks.push_back(block);
    return false;
  });
  return blocks;
}

std::optional<SBlock> FindBlock(SMachine& machine, dev_t device) {
  constexpr unsigned int MOST_MINORS = 64;  // of a partitionable array; a disk has 16
  return FindBlockThat(
      machine,
      [device](const SBlock& whole) {
        return major(whole.m_Device) == major(device) && minor(device) - minor(whole.m_Device) < MOST_MINORS;
      },
      [device](const SBlock& block) { return block.m_Device == device; });
}

std::optional<SBlock> FindBlock(SMachine& machine, const std::string& name) {
  return FindBlockThat(
      machine, [&](const SBlock& whole) { return name.starts_with(whole.m_Name); },
      [&](const SBlock& block) { return block.m_Name == name; });
}

SDisk* FindDisk(SMachine& machine, const std::string& name) { return FindNamed(machine.m_Disks, name); }

SArray* FindArray(SMachine& machine, const std::string& name) { return FindNamed(machine.m_Arrays, name); }

SMember* FindMember(SArray& array, dev_t device) {
  const auto found = std::find_if(array.m_Members.begin(), array.m_Members.end(),
                                  [device](const SMember& member) { return member.m_Device == device; });
  return found == array.m_Members.end() ? nullptr : &*found;
}

std::optional<SBlock> BlockOf(SMachine& machine, const SMember& member) {
  const auto block = FindBlock(machine, member.m_Device);
  return block && block->Instance() == member.m_Instance ? block : std::nullopt;
}

bool IsThere(const SMachine& machine, const SMember& member) {
  return std::any_of(machine.m_Disks.begin(), machine.m_Disks.end(),
                     [&](const SDisk& disk) { return disk.m_Instance == member.m_Instance; });
}

bool CanClaim(SMachine& machine, const SBlock& block) {
  if (IsClaimed(machine, block)) return false;
  const SBlock whole = block.m_Disk != nullptr ? WholeBlock(*block.m_Disk) : WholeBlock(*block.m_Array);
  if (block.m_Partition != nullptr) return !IsClaimed(machine, whole);
  return std::none_of(whole.Partitions().begin(), whole.Partitions().end(), [&](SPartition& partition) {
    return IsClaimed(machine, PartitionBlock(whole, partition));
  });
}

std::size_t Openers(SMachine& machine, const SArray& array) {
  std::size_t openers = array.m_Mount.empty() ? 0U : 1U;
  for (const SPartition& partition : array.m_Partitions) openers += partition.m_Mount.empty() ? 0U : 1U;
  for (const auto& [number, file] : machine.m_Files) {
    if (file.m_Kind == EFile::Block && file.m_Instance == array.m_Instance) ++openers;
  }
  return openers;
}

int ReadBlock(const SBlock& block, std::uint64_t offset, std::size_t size, std::string& bytes) {
  if (block.m_Disk == nullptr) {
    bytes.assign(size, '\0');
    return 0;
  }
  if (const int error = MediumError(block)) return error;
  bytes = block.m_Disk->m_Bytes.Read(block.m_Start * KIB + offset, size);
  return 0;
}

int WriteBlock(const SBlock& block, std::uint64_t offset, const void* bytes, std::size_t size) {
  if (block.m_Disk == nullptr) return EIO;
  if (const int error = MediumError(block)) return error;
  block.m_Disk->m_Bytes.Write(block.m_Start * KIB + offset, bytes, size);
  return 0;
}

std::uint64_t NextRandom(SMachine& machine) {
  // What such a generator gives is its whole state: one number is all that has to be kept.
  return machine.m_Random = std::minstd_rand(static_cast<std::uint_fast32_t>(machine.m_Random))();
}

void TakeInstance(SMachine& machine, std::uint64_t& instance) {
  if (instance == 0) instance = machine.m_LastInstance + 1;
  machine.m_LastInstance = std::max(machine.m_LastInstance, instance);
}

void Attach(SMachine& machine, SDisk disk) {
  TakeInstance(machine, disk.m_Instance);
  if (disk.m_Host == NO_HOST) {
    const std::size_t perHost = FindDriver(machine.m_Controllers[disk.m_Controller].m_Driver).m_PerHost;
    unsigned int next = 0;
    for (const SDisk& other : machine.m_Disks) next = std::max(next, other.m_Host + 1);
    std::map<unsigned int, std::size_t> used;
    for (const SDisk& other : machine.m_Disks) {
      if (other.m_Controller == disk.m_Controller) ++used[other.m_Host];
    }
    const auto room = std::find_if(used.begin(), used.end(),
                                   [perHost](const auto& entry) { return entry.second < perHost; });
    disk.m_Host = room == used.end() ? next : room->first;
    disk.m_Target = 0;
    for (const SDisk& other : machine.m_Disks) {
      if (other.m_Host == disk.m_Host) disk.m_Target = std::max(disk.m_Target, other.m_Target + 1);
    }
  }
  machine.m_Disks.push_back(std::move(disk));
}

}  // namespace Simulation
