/// @file
/// Names and device nodes, validation, the members' superblocks and md's ioctls.

#include "Src/piRVXAdapterCreate.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "Src/md/Array.h"
#include "Src/piRVXAdapterSuperBlock.h"
#include "Src/piRVXLevels.h"
#include "Src/piRVXTrace.h"
#include "system/Descriptor.h"

namespace NAMESPACE_piRVX {

namespace {

constexpr char TRACE_SOURCE[] = "Src/piRVXAdapter";

constexpr std::uint32_t MAX_ARRAY_NUMBER = 255;
constexpr std::uint32_t MINORS_PER_ARRAY = 64;
constexpr std::size_t NAME_BUFFER = 30;
constexpr std::string_view DEVICE_FOLDER = "/dev/";

/// Moves the bare name to the front of the buffer.
void DropDeviceFolder(char* buffer) {
  std::memmove(buffer, buffer + DEVICE_FOLDER.size(), std::strlen(buffer + DEVICE_FOLDER.size()) + 1);
}

/// The lowest number that no array has; above MAX_ARRAY_NUMBER when all are taken.
std::uint32_t LowestFreeNumber(const std::vector<CRVXLogicalDrive>& arrays) {
  std::uint32_t number = 0;
  while (number <= MAX_ARRAY_NUMBER &&
         std::ranges::count(arrays, number, &CRVXLogicalDrive::m_ArrayNumber) != 0)
    ++number;
  return number;
}

/// Who reads the node of a half-built array reads its disks. It stays, for the array to be stopped by it.
/// What else may stand in its place is left alone.
void CloseToOthers(OS::COperatingSystem& os, const std::string& path) {
  struct stat status {};
  if (os.Status(path, status) == 0 && S_ISBLK(status.st_mode) && (status.st_mode & S_IRWXO) != 0)
    os.ChangeMode(path, status.st_mode & (S_IRWXU | S_IRWXG));
}

/// The minor number in a device key; -1 when it names none.
long MinorOfKey(const std::string& key) {
  constexpr std::string_view MINOR = "Minor=";
  long minor = -1;
  if (const std::size_t place = key.find(MINOR); place != std::string::npos)
    (void)std::sscanf(key.c_str() + place + MINOR.size(), "%ld", &minor);
  return minor;
}

/// What md is told of an array that is to be made of these members. Not for no members.
mdu_array_info_s NewArrayInfo(const SRaidLevel& level, int chunk,
                              const std::vector<CRVXPhysicalDrive*>& members) {
  mdu_array_info_s info{};
  info.major_version = 1;
  info.level = level.m_MdLevel;
  if (level.m_SameSize) {
    // Of the usable size: md refuses an array that reaches into its superblocks.
    const CRVXPhysicalDrive* const smallest = *std::ranges::min_element(
        members, {}, [](const CRVXPhysicalDrive* member) { return member->m_UsableSize; });
    const std::uint64_t size =
        smallest->m_UsableSize - smallest->m_UsableSize % static_cast<std::uint64_t>(chunk);
    info.size = static_cast<int>(static_cast<std::uint32_t>(size));
  }
  info.nr_disks = info.raid_disks = info.active_disks = info.working_disks = static_cast<int>(members.size());
  info.chunk_size = chunk * 1024;
  return info;
}

/// Why a request makes no array, before its drives are looked at; null when it may.
const char* Refusal(const PI::CLogicalDrive& request, const SRaidLevel* level) {
  if (request.m_Containers.empty()) return "to create at least 1 container necessary";
  if (request.m_Containers.size() > 1) return "wrong number of containers specified";
  const std::size_t drives = request.m_Containers.front().m_Drives.size();
  const bool creatable = level != nullptr && level->m_MostDisks != 0;
  if (creatable && level->m_MostDisks == MIN_DISKS && drives != MIN_DISKS)
    return "excactly 2 drives have to be specified";
  if (!creatable) return "unsupported RAID level";
  return drives < MIN_DISKS ? "at least 2 drive has to be specified" : nullptr;
}

/// Finds the drives of a request; only free ones may join.
unsigned int CollectMembers(std::vector<CRVXPhysicalDrive>& drives, const std::vector<PI::CDrive>& wanted,
                            std::vector<CRVXPhysicalDrive*>& members) {
  for (const PI::CDrive& entry : wanted) {
    const auto drive = std::ranges::find(drives, entry.m_ObjectID, &CRVXPhysicalDrive::m_ID);
    if (drive == drives.end()) {
      RVX_TRACE(TRACE_LIFECYCLE, "LEAVE CreateLogicalDrive() -> %d", PI::INVALID_OBJECT_ID);
      return PI::INVALID_OBJECT_ID;
    }
    if (drive->m_Status != PI::STATUS_READY) {
      RVX_TRACE(TRACE_LIFECYCLE, "LEAVE CreateLogicalDrive() -> disk ID (%d/%d) is not free",
                drive->m_MajorNumber, drive->m_MinorNumber);
      return PI::ERR_INVALID_CONFIGURATION;
    }
    // Only repeats of the first drive are caught here; the kernel refuses the others.
    if (!members.empty() && &*drive == members.front()) {
      RVX_TRACE(TRACE_LIFECYCLE, "LEAVE CreateLogicalDrive () -> disk ID (%d/%d) must be unique",
                drive->m_MajorNumber, drive->m_MinorNumber);
      return PI::ERR_INVALID_CONFIGURATION;
    }
    members.push_back(&*drive);
  }
  return PI::OK;
}

/// Hands an array to md.
unsigned int AssembleArray(OS::COperatingSystem& os, Md::CArray& device, const char* name,
                           mdu_array_info_s info, const std::vector<CRVXPhysicalDrive*>& members) {
  const std::unique_ptr<Md::md_superblock1> superBlock(new (std::nothrow) Md::md_superblock1{});
  if (!superBlock) {
    RVX_TRACE(TRACE_INFORMATION, "CreateLogicalDrive() can't get memory for superblock");
    return PI::ERR_OUT_OF_MEMORY;
  }
  CreateSuperBlock1(os, &info, nullptr, name, superBlock.get());
  // With no disks and version 1 md only notes the version, and takes the geometry from the members'
  // superblocks.
  info.raid_disks = 0;
  if (!device.SetInfo(info)) return PI::ERR_DEVICE_IO;
  RVX_TRACE(TRACE_INFORMATION, "CreateLogicalDrive() array created -> %d", 0);

  for (int number = 0; number < static_cast<int>(members.size()); ++number) {
    CRVXPhysicalDrive& member = *members[static_cast<std::size_t>(number)];
    superBlock->dev_number = static_cast<std::uint32_t>(number);
    RVX_TRACE(TRACE_INFORMATION, "CreateLogicalDrive() WriteSuperBlock1 %d", number);
    if (const unsigned int status = WriteSuperBlock1(os, member, superBlock.get()); status != PI::OK) {
      RVX_TRACE(TRACE_INFORMATION, "CreateLogicalDrive() WriteSuperBlock1 failed");
      return status;
    }
    mdu_disk_info_s disk{};
    disk.number = disk.raid_disk = number;
    disk.major = static_cast<int>(member.m_MajorNumber);
    disk.minor = static_cast<int>(member.m_MinorNumber);
    // The record has no disks by now, so every member goes in active but not in sync; md decides by the
    // superblock.
    disk.state = number < info.raid_disks ? Md::DISK_ACTIVE | Md::DISK_SYNC : Md::DISK_ACTIVE;
    RVX_TRACE(TRACE_INFORMATION, "CreateLogicalDrive()  major=%d minor=%d", disk.major, disk.minor);
    if (!device.Add(disk)) {
      RVX_TRACE(TRACE_INFORMATION, "CreateLogicalDrive() can't add disk %d, %s", number, SystemError());
      return PI::ERR_DEVICE_IO;
    }
  }
  if (!device.Run()) {
    RVX_TRACE(TRACE_INFORMATION, "CreateLogicalDrive() can't start array, %s", SystemError());
    return PI::ERR_DEVICE_IO;
  }
  return PI::OK;
}

}  // namespace

int NameNewArray(CModel& model, char* buffer) {
  const std::uint32_t number = LowestFreeNumber(model.m_LogicalDrives);
  if (number > MAX_ARRAY_NUMBER) return -1;
  if (std::snprintf(buffer, NAME_BUFFER, "/dev/md_d%u", number) < 1) return -1;
  if (OS::CBlockDevice(model.m_OS, buffer, O_RDONLY).IsOpen()) {
    DropDeviceFolder(buffer);
    RVX_TRACE(TRACE_LIFECYCLE, "GetUnusedArrayName() reuse already existing device %s", buffer);
    return 0;
  }

  const std::uint32_t minorNumber = number * MINORS_PER_ARRAY;
  for (const CRVXLogicalDrive& array : model.m_LogicalDrives) {
    if (MinorOfKey(array.m_DeviceKey) != minorNumber) continue;
    RVX_TRACE(TRACE_LIFECYCLE, "GetUnusedArrayName() minor %d already used by %s", minorNumber,
              array.m_KernelName);
    return -1;
  }
  RVX_TRACE(TRACE_LIFECYCLE, "GetUnusedArrayName() create device %s with minor %d", buffer, minorNumber);
  const dev_t device = makedev(static_cast<unsigned int>(model.m_MdMajor), minorNumber);
  if (model.m_MdMajor >= 0 &&
      (std::cmp_not_equal(major(device), model.m_MdMajor) || minor(device) != minorNumber))
    RVX_TRACE(TRACE_LIFECYCLE, "GetUnusedArrayName() C libraray too old for more than 4 mdp devices");
  else if (errno = ENODEV; model.m_MdMajor < 0 || model.m_OS.MakeNode(buffer, S_IFBLK | 0666, device) != 0)
    // Of a kernel without partitionable md devices too. No failure yet: whoever opens the node finds out.
    RVX_TRACE(TRACE_LIFECYCLE, "GetUnusedArrayName() can't create %s, %s", buffer, SystemError());
  DropDeviceFolder(buffer);
  return 0;
}

unsigned int CreateArray(CModel& model, const PI::CLogicalDrive& request) {
  RVX_TRACE(TRACE_LIFECYCLE, "ENTER CreateLogicalDrive");
  const SRaidLevel* const level = FindRaidLevel(request.m_RaidLevel);
  if (const char* const reason = Refusal(request, level); reason != nullptr) {
    RVX_TRACE(TRACE_LIFECYCLE, "LEAVE CreateLogicalDrive() -> %s", reason);
    return PI::ERR_INVALID_CONFIGURATION;
  }
  char name[NAME_BUFFER] = "";
  // Before the members are looked at: a request with a wrong drive may leave a fresh node behind.
  if (NameNewArray(model, name) != 0) {
    RVX_TRACE(TRACE_LIFECYCLE, "LEAVE CreateLogicalDrive() can't get/create device node for md");
    return PI::ERR_NOT_AVAILABLE;
  }
  std::vector<CRVXPhysicalDrive*> members;
  const std::string path = std::string(DEVICE_FOLDER) + name;
  unsigned int status =
      CollectMembers(model.m_PhysicalDrives, request.m_Containers.front().m_Drives, members);
  if (status != PI::OK) {
    CloseToOthers(model.m_OS, path);
    return status;
  }
  const int chunk = ChunkOf(request.m_RaidLevel, request.m_StripeSize);
  const mdu_array_info_s info = NewArrayInfo(*level, chunk, members);
  RVX_TRACE(TRACE_INFORMATION,
            "CreateLogicalDrive() name=%s level=%d num=%d stripe=%d size=%d d1=%d/%d d2=%d/%d", name,
            info.level, members.size(), chunk, info.size, members[0]->m_MajorNumber,
            members[0]->m_MinorNumber, members[1]->m_MajorNumber, members[1]->m_MinorNumber);

  status = PI::ERR_OPEN_FAILED;
  if (Md::CArray device(model.m_OS, path); device.IsOpen())
    status = AssembleArray(model.m_OS, device, name, info, members);
  if (status != PI::OK) CloseToOthers(model.m_OS, path);
  RVX_TRACE(TRACE_LIFECYCLE, "LEAVE CreateLogicalDrive() -> %d", status);
  return status;
}

}  // namespace NAMESPACE_piRVX
