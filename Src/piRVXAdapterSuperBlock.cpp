/// @file
/// What is written to members, and the look before it.

#include "Src/piRVXAdapterSuperBlock.h"

#include <linux/fs.h>

#include <algorithm>
#include <array>

#include "Src/md/ProcTexts.h"
#include "Src/piRVXTrace.h"
#include "system/Descriptor.h"

namespace NAMESPACE_piRVX {

namespace {

constexpr char TRACE_SOURCE[] = "Src/piRVXAdapter";

/// Whether an open device is the disk that the scan saw: another one may have come under its name since.
bool IsScannedDisk(OS::COperatingSystem& os, int descriptor, const CRVXPhysicalDrive& drive) {
  struct stat status {};
  std::uint64_t bytes = 0;
  if (os.Status(descriptor, status) != 0 || os.Ioctl(descriptor, BLKGETSIZE64, &bytes) < 0) return false;
  if (status.st_rdev == makedev(drive.m_MajorNumber, drive.m_MinorNumber) && bytes / 1024 == drive.m_Size)
    return true;
  errno = ENXIO;
  return false;
}

std::string UuidText(const unsigned char* uuid) {
  std::string text;
  for (int byte = 0; byte < 16; ++byte) {
    if (byte % 4 == 0 && byte != 0) text += ':';
    text += Text("%02x", static_cast<unsigned int>(uuid[byte]));
  }
  return text;
}

/// Starts a disk that says it is asleep, where the server ships the tool for it. No failure counts.
void WakeDrive(OS::COperatingSystem& os, const std::string& devicePath) {
  const auto process = os.ReadLink("/proc/self/exe");
  if (!process) return;
  const boost::filesystem::path tool = boost::filesystem::path(*process).parent_path() / "bin" / "sdparm";
  struct stat status {};
  if (os.Status(tool.string(), status) != 0) return;
  std::vector<std::string> lines;
  os.ExecuteCommand(tool, Text("--all %s 2>&1", devicePath), lines);
  if (std::none_of(lines.begin(), lines.end(),
                   [](const std::string& line) { return Md::ContainsText(line, "device not ready"); }))
    return;
  RVX_TRACE(TRACE_INFORMATION, "WriteSuperBlock1() device not ready, trying to start %s", devicePath);
  lines.clear();
  // A spin-up may take longer than a program is given; the disk goes on with it, and the write waits for it.
  os.ExecuteCommand(tool, Text("--command=start %s 2>&1", devicePath), lines);
  os.Sleep(3000);
}

}  // namespace

unsigned int GetUUID(OS::COperatingSystem& os, unsigned char* uuid) {
  const OS::CDescriptor source(os, "/dev/urandom", O_RDONLY);
  if (!source.IsOpen()) {
    RVX_TRACE(TRACE_LIFECYCLE, "GetUUID() can't open /dev/urandom, %s", SystemError());
    return PI::ERR_OPEN_FAILED;
  }
  // Used raw: md sets no version or variant bits.
  if (os.Read(source.Get(), uuid, 16) == 16) return PI::OK;
  RVX_TRACE(TRACE_LIFECYCLE, "GetUUID() can't read UUID, %s", SystemError());
  return PI::ERR_DEVICE_IO;
}

void UUID2String(const unsigned char* uuid, std::string& text) { text += UuidText(uuid); }

unsigned int CreateSuperBlock1(OS::COperatingSystem& os, const mdu_array_info_s* info, unsigned int*,
                               const char* name, Md::md_superblock1* superBlock) {
  std::array<unsigned char, 16> uuid{};
  const unsigned int status = GetUUID(os, uuid.data());
  if (status == PI::OK) {
    *superBlock = Md::NewSuperBlock(*info, name, uuid, os.Now() / 1000);
    RVX_TRACE(TRACE_INFORMATION, "CreateSuperBlock1 UUID= %s", UuidText(superBlock->set_uuid));
  }
  // The record stays as it was without a UUID, and the kernel refuses it later: nothing is reported here on
  // purpose.
  RVX_TRACE(status == PI::OK ? TRACE_INFORMATION : TRACE_LIFECYCLE, "CreateSuperBlock1 ret = %d", status);
  return PI::OK;
}

unsigned int WriteSuperBlock1(OS::COperatingSystem& os, const CRVXPhysicalDrive& drive,
                              Md::md_superblock1* superBlock) {
  const std::string path = drive.DevicePath();
  superBlock->super_offset = Md::SuperOffset(drive.m_Size);
  superBlock->data_size = Md::DataSize(superBlock->super_offset, superBlock->chunksize);
  GetUUID(os, superBlock->device_uuid);  // a member without a fresh UUID still works
  RVX_TRACE(TRACE_INFORMATION, "WriteSuperBlock1() %s superblock at %d", path,
            superBlock->super_offset.value() / 2);
  RVX_TRACE(TRACE_INFORMATION, "array size = %d, data size = %d, chunksize = %d", superBlock->size.value(),
            superBlock->data_size.value(), superBlock->chunksize.value());
  RVX_TRACE(TRACE_INFORMATION, "WriteSuperBlock1 UUID= %s", UuidText(superBlock->device_uuid));
  superBlock->sb_csum = Md::SuperBlockChecksum(*superBlock);
  WakeDrive(os, path);

  const auto write = [&]() -> unsigned int {
    // Exclusive: a disk that somebody holds is not written to.
    const OS::CBlockDevice device(os, path, O_RDWR | O_EXCL);
    if (!device.IsOpen() || !IsScannedDisk(os, device.Get(), drive)) {
      RVX_TRACE(TRACE_LIFECYCLE, "WriteSuperBlock1() can't open %s, %s", path, SystemError());
      return PI::ERR_DEVICE_IO;
    }
    if (os.Seek(device.Get(), static_cast<std::int64_t>(superBlock->super_offset * 512)) < 0) {
      RVX_TRACE(TRACE_LIFECYCLE, "WriteSuperBlock1() can't seek to superblock position, %s", SystemError());
      return PI::ERR_DEVICE_IO;
    }
    if (os.Write(device.Get(), superBlock, Md::md_superblock1::SIZE) <
            static_cast<ssize_t>(Md::md_superblock1::SIZE) ||
        os.Sync(device.Get()) != 0) {
      RVX_TRACE(TRACE_LIFECYCLE, "WriteSuperBlock1() can't write superblock, %s", SystemError());
      return PI::ERR_WRITE_FAILED;
    }
    return PI::OK;
  };
  const unsigned int status = write();
  RVX_TRACE(TRACE_INFORMATION, "LEAVE WriteSuperBlock1() %d", status);
  return status;
}

unsigned int GetSuperBlock1(CModel& model, int major, int minor, Md::md_superblock1* superBlock) {
  const CRVXPhysicalDrive* const drive =
      model.FindPhysicalDrive(static_cast<std::uint32_t>(major), static_cast<std::uint32_t>(minor));
  if (drive == nullptr) return PI::ERR_DRIVE_NOT_FOUND;
  const std::string path = drive->DevicePath();
  RVX_TRACE(TRACE_INFORMATION, "GetSuperBlock1() superblock at %d", (drive->m_Size - 8) & ~std::uint64_t{3});
  const OS::CBlockDevice device(model.m_OS, path, O_RDONLY);
  if (!device.IsOpen()) {
    RVX_TRACE(TRACE_LIFECYCLE, "GetSuperBlock1() can't open %s, %s", path, SystemError());
    return PI::ERR_DEVICE_IO;
  }
  // From here on the status says nothing about the record: callers look at its magic.
  if (model.m_OS.Seek(device.Get(), static_cast<std::int64_t>(Md::SuperPosition(drive->m_Size))) < 0)
    RVX_TRACE(TRACE_LIFECYCLE, "GetSuperBlock1() can't seek to superblock position, %s", SystemError());
  else if (model.m_OS.Read(device.Get(), superBlock, Md::md_superblock1::SIZE) <
           static_cast<ssize_t>(Md::md_superblock1::SIZE))
    RVX_TRACE(TRACE_LIFECYCLE, "GetSuperBlock1() can't read superblock, %s", SystemError());
  else if (superBlock->magic != Md::md_superblock1::MAGIC)
    RVX_TRACE(TRACE_LIFECYCLE, "GetSuperBlock1() no superblock found on %s", path);
  RVX_TRACE(TRACE_INFORMATION, "GetSuperBlock1 UUID= %s", UuidText(superBlock->device_uuid));
  return PI::OK;
}

}  // namespace NAMESPACE_piRVX
