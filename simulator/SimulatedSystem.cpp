#include "simulator/SimulatedSystem.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <set>
#include <thread>

#include "simulator/description/Changes.h"
#include "simulator/description/DemoMachine.h"
#include "simulator/description/MachineDescription.h"
#include "simulator/machine/Clock.h"
#include "simulator/machine/DiskDriver.h"
#include "simulator/machine/MdDriver.h"
#include "simulator/machine/Monitor.h"
#include "simulator/machine/SimulatedFiles.h"

namespace Simulation {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr int FIRST_DESCRIPTOR = 1000;  // never one that the process itself has open
constexpr std::uint64_t KIB = 1024;
constexpr mode_t NODE_MASK = 022;  // the umask of a server
constexpr const char* MDSTAT = "/proc/mdstat";

int Failed(int error) {
  if (error == 0) return 0;
  errno = error;
  return -1;
}

int SizeOf(const SBlock& block, void* argument) {
  if (argument == nullptr) return EFAULT;
  const std::uint64_t bytes = block.m_Size * KIB;
  std::memcpy(argument, &bytes, sizeof bytes);
  return 0;
}

void FillStatus(struct stat& status, const SEntry& entry) {
  status = {};
  switch (entry.m_Kind) {
    case SEntry::EKind::Block:
      status.st_mode = S_IFBLK | entry.m_Mode;
      status.st_rdev = entry.m_Device;
      break;
    case SEntry::EKind::Random:
      status.st_mode = S_IFCHR | entry.m_Mode;
      status.st_rdev = makedev(1, 9);
      break;
    case SEntry::EKind::Directory:
      status.st_mode = S_IFDIR | entry.m_Mode;
      break;
    default:
      status.st_mode = S_IFREG | entry.m_Mode;
  }
}

}  // namespace

class CSimulatedSystem::CInside {
 public:
  CInside(const std::string& description, EClock clock)
      : m_Machine(ReadMachine(description)), m_Clock(clock) {
    if (clock == EClock::Real) m_Machine.m_ClockStart = WallClock();
  }

  static std::uint64_t WallClock() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(std::chrono::duration_cast<milliseconds>(now).count());
  }
  /// Machine time that a real clock has reached.
  std::uint64_t Elapsed() const ZQ_REQUIRES(m_Lock) {
    const auto passed = std::chrono::duration_cast<milliseconds>(steady_clock::now() - m_Start).count();
    return static_cast<std::uint64_t>(passed) + m_Skipped;
  }
  void CatchUp() ZQ_REQUIRES(m_Lock) {
    if (m_Clock == EClock::Real) AdvanceTo(m_Machine, Elapsed());
  }
  /// When the machine changes by itself next.
  steady_clock::time_point NextChange() ZQ_REQUIRES(m_Lock) {
    const std::uint64_t next = NextHappening(m_Machine);
    if (m_Clock == EClock::Manual || next == EVERYTHING) return steady_clock::time_point::max();
    return m_Start + milliseconds(next - std::min(next, m_Skipped)) + milliseconds(1);
  }

  /// What is at a path; what a test put there comes first.
  std::optional<SEntry> Entry(const std::string& path) ZQ_REQUIRES(m_Lock) {
    const auto replaced = m_Replaced.find(path);
    if (replaced == m_Replaced.end()) return ResolveEntry(m_Machine, path);
    m_Unused.erase(path);
    if (!replaced->second) return std::nullopt;
    return SEntry{SEntry::EKind::Text, *replaced->second, 0, 0644};
  }
  SOpenFile* File(int descriptor) ZQ_REQUIRES(m_Lock) {
    const auto found = m_Machine.m_Files.find(descriptor);
    return found == m_Machine.m_Files.end() ? nullptr : &found->second;
  }
  /// The device that was opened, unless it has gone.
  std::optional<SBlock> Device(const SOpenFile& file) ZQ_REQUIRES(m_Lock) {
    const auto block = FindBlock(m_Machine, file.m_Device);
    return block && block->Instance() == file.m_Instance ? block : std::nullopt;
  }
  int Register(SOpenFile file) ZQ_REQUIRES(m_Lock) {
    int descriptor = FIRST_DESCRIPTOR;
    while (m_Machine.m_Files.count(descriptor) != 0) ++descriptor;
    m_Machine.m_Files.emplace(descriptor, std::move(file));
    return descriptor;
  }
  int OpenBlock(SOpenFile file) ZQ_REQUIRES(m_Lock) {
    if (!FindBlock(m_Machine, file.m_Device)) OpenMdDevice(m_Machine, file.m_Device);
    const auto block = FindBlock(m_Machine, file.m_Device);
    const bool offline =
        block && block->m_Disk != nullptr &&
        (block->m_Disk->m_State == "offline" || block->m_Disk->m_State == "transport-offline" ||
         block->m_Disk->m_State == "deleted");
    if (!block || offline) return Failed(ENXIO);
    if ((file.m_Flags & O_EXCL) != 0 && !CanClaim(m_Machine, *block)) return Failed(EBUSY);
    file.m_Instance = block->Instance();
    return Register(std::move(file));
  }
  ssize_t ReadText(SOpenFile& file, void* buffer, std::size_t size) ZQ_REQUIRES(m_Lock) {
    if (!file.m_Text) {
      const auto entry = Entry(file.m_Path);
      file.m_Text = entry ? entry->m_Text : "";
      file.m_MdEvents = m_Machine.m_MdEvents;
    }
    const std::size_t count = file.m_Position >= file.m_Text->size()
                                  ? 0
                                  : std::min<std::size_t>(size, file.m_Text->size() - file.m_Position);
    if (count != 0) std::memcpy(buffer, file.m_Text->data() + file.m_Position, count);
    file.m_Position += count;
    return static_cast<ssize_t>(count);
  }
  ssize_t ReadDevice(SOpenFile& file, void* buffer, std::size_t size) ZQ_REQUIRES(m_Lock) {
    const auto block = Device(file);
    if (!block) return Failed(EIO);
    const std::uint64_t left = block->m_Size * KIB - std::min(block->m_Size * KIB, file.m_Position);
    std::string bytes;
    const std::size_t count = std::min<std::uint64_t>(size, left);
    if (const int error = ReadBlock(*block, file.m_Position, count, bytes)) return Failed(error);
    std::memcpy(buffer, bytes.data(), count);
    file.m_Position += count;
    return static_cast<ssize_t>(count);
  }
  ssize_t WriteDevice(SOpenFile& file, const void* buffer, std::size_t size) ZQ_REQUIRES(m_Lock) {
    const auto block = Device(file);
    if (!block) return Failed(EIO);
    const std::uint64_t left = block->m_Size * KIB - std::min(block->m_Size * KIB, file.m_Position);
    if (left == 0 && size != 0) return Failed(ENOSPC);
    const std::size_t count = std::min<std::uint64_t>(size, left);
    if (const int error = WriteBlock(*block, file.m_Position, buffer, count)) return Failed(error);
    file.m_Position += count;
    return static_cast<ssize_t>(count);
  }

  CMonitor m_Lock;
  SMachine m_Machine ZQ_GUARDED_BY(m_Lock);
  const EClock m_Clock;
  const steady_clock::time_point m_Start{steady_clock::now()};
  std::uint64_t m_Skipped ZQ_GUARDED_BY(m_Lock){0};  ///< ms that Advance() added to a real clock
  std::map<std::string, std::optional<std::string>> m_Replaced ZQ_GUARDED_BY(m_Lock);
  std::set<std::string> m_Unused ZQ_GUARDED_BY(m_Lock);  ///< of m_Replaced
  std::map<unsigned long, std::uint64_t> m_Ioctls ZQ_GUARDED_BY(m_Lock);
  std::map<std::string, std::uint64_t> m_Commands ZQ_GUARDED_BY(m_Lock);
};

namespace {

/// Holds the machine for one call. The clock has caught up when it is built; who waits for md learns of
/// changes when it goes.
template <typename TInside>
class ZQ_SCOPED_CAPABILITY CTurn {
 public:
  explicit CTurn(TInside& inside) ZQ_ACQUIRE(inside.m_Lock) : m_Inside(inside) {
    m_Inside.m_Lock.Lock();
    m_Events = m_Inside.m_Machine.m_MdEvents;
    m_Inside.CatchUp();
  }
  ~CTurn() ZQ_RELEASE() {
    if (m_Inside.m_Machine.m_MdEvents != m_Events) m_Inside.m_Lock.NotifyAll();
    m_Inside.m_Lock.Unlock();
  }
  CTurn(const CTurn&) = delete;
  CTurn& operator=(const CTurn&) = delete;

 private:
  TInside& m_Inside;
  std::uint64_t m_Events{};
};

}  // namespace

CSimulatedSystem::CSimulatedSystem(const std::string& description, EClock clock)
    : m_Inside(std::make_unique<CInside>(description, clock)) {}

CSimulatedSystem::~CSimulatedSystem() = default;

std::string CSimulatedSystem::DemoDescription() { return DEMO_MACHINE; }

std::string CSimulatedSystem::Describe() const {
  const CTurn turn(*m_Inside);
  return WriteMachine(m_Inside->m_Machine);
}

void CSimulatedSystem::Advance(std::uint64_t time) {
  const CTurn turn(*m_Inside);
  m_Inside->m_Skipped += time;
  AdvanceTo(m_Inside->m_Machine, m_Inside->m_Machine.m_Time + time);
}

void CSimulatedSystem::Apply(const std::string& change) {
  const CTurn turn(*m_Inside);
  SMachine changed = m_Inside->m_Machine;
  ApplyChange(changed, change);
  m_Inside->m_Machine = std::move(changed);
}

void CSimulatedSystem::SetFile(const std::string& path, std::optional<std::string> text) {
  const CTurn turn(*m_Inside);
  m_Inside->m_Replaced[path] = std::move(text);
  m_Inside->m_Unused.insert(path);
}

std::vector<std::string> CSimulatedSystem::UnusedFiles() const {
  const CTurn turn(*m_Inside);
  return {m_Inside->m_Unused.begin(), m_Inside->m_Unused.end()};
}

std::string CSimulatedSystem::DiskBytes(const std::string& disk, std::uint64_t offset,
                                        std::size_t size) const {
  const CTurn turn(*m_Inside);
  const auto block = FindBlock(m_Inside->m_Machine, disk);
  if (!block || block->m_Disk == nullptr)
    throw CMachineError("there is no disk or partition \"" + disk + "\"");
  return block->m_Disk->m_Bytes.Read(block->m_Start * KIB + offset, size);
}

std::size_t CSimulatedSystem::OpenDescriptors() const {
  const CTurn turn(*m_Inside);
  return m_Inside->m_Machine.m_Files.size();
}

std::uint64_t CSimulatedSystem::IoctlCount(unsigned long request) const {
  const CTurn turn(*m_Inside);
  const auto found = m_Inside->m_Ioctls.find(request);
  return found == m_Inside->m_Ioctls.end() ? 0 : found->second;
}

std::uint64_t CSimulatedSystem::CommandCount(const std::string& program) const {
  const CTurn turn(*m_Inside);
  const auto found = m_Inside->m_Commands.find(program);
  return found == m_Inside->m_Commands.end() ? 0 : found->second;
}

int CSimulatedSystem::Open(const std::string& path, int flags) {
  const CTurn turn(*m_Inside);
  const auto entry = m_Inside->Entry(path);
  if (!entry) return Failed(ENOENT);
  const bool writes = (flags & O_ACCMODE) != O_RDONLY;
  SOpenFile file;
  file.m_Path = path;
  file.m_Flags = flags;
  file.m_Device = entry->m_Device;
  file.m_MdEvents = m_Inside->m_Machine.m_MdEvents;
  switch (entry->m_Kind) {
    case SEntry::EKind::Block:
      file.m_Kind = EFile::Block;
      return m_Inside->OpenBlock(std::move(file));
    case SEntry::EKind::Directory:
      if (writes) return Failed(EISDIR);
      file.m_Kind = EFile::Directory;
      break;
    case SEntry::EKind::Random:
      file.m_Kind = EFile::Random;
      break;
    default:
      if (writes) return Failed(EACCES);
      file.m_Kind = EFile::Text;
  }
  return m_Inside->Register(std::move(file));
}

int CSimulatedSystem::Close(int descriptor) {
  const CTurn turn(*m_Inside);
  if (m_Inside->m_Machine.m_Files.erase(descriptor) == 0) return Failed(EBADF);
  DropEmptyArrays(m_Inside->m_Machine);
  return 0;
}

ssize_t CSimulatedSystem::Read(int descriptor, void* buffer, std::size_t size) {
  const CTurn turn(*m_Inside);
  SOpenFile* file = m_Inside->File(descriptor);
  if (file == nullptr || (file->m_Flags & O_ACCMODE) == O_WRONLY) return Failed(EBADF);
  if (file->m_Kind == EFile::Directory) return Failed(EISDIR);
  if (file->m_Kind == EFile::Text) return m_Inside->ReadText(*file, buffer, size);
  if (file->m_Kind == EFile::Block) return m_Inside->ReadDevice(*file, buffer, size);
  auto* bytes = static_cast<unsigned char*>(buffer);
  for (std::size_t i = 0; i < size; ++i)
    bytes[i] = static_cast<unsigned char>(NextRandom(m_Inside->m_Machine));
  return static_cast<ssize_t>(size);
}

ssize_t CSimulatedSystem::Write(int descriptor, const void* buffer, std::size_t size) {
  const CTurn turn(*m_Inside);
  SOpenFile* file = m_Inside->File(descriptor);
  if (file == nullptr || (file->m_Flags & O_ACCMODE) == O_RDONLY) return Failed(EBADF);
  if (file->m_Kind == EFile::Block) return m_Inside->WriteDevice(*file, buffer, size);
  return static_cast<ssize_t>(size);
}

std::int64_t CSimulatedSystem::Seek(int descriptor, std::int64_t position) {
  const CTurn turn(*m_Inside);
  SOpenFile* file = m_Inside->File(descriptor);
  if (file == nullptr) return Failed(EBADF);
  const auto block = file->m_Kind == EFile::Block ? m_Inside->Device(*file) : std::nullopt;
  const bool behind = block && static_cast<std::uint64_t>(position) > block->m_Size * KIB;
  if (position < 0 || behind) return Failed(EINVAL);
  file->m_Position = static_cast<std::uint64_t>(position);
  file->m_Text.reset();
  return position;
}

int CSimulatedSystem::Sync(int descriptor) {
  const CTurn turn(*m_Inside);
  const SOpenFile* file = m_Inside->File(descriptor);
  if (file == nullptr) return Failed(EBADF);
  if (file->m_Kind != EFile::Block) return Failed(EINVAL);
  return Failed(m_Inside->Device(*file) ? 0 : EIO);
}

int CSimulatedSystem::Ioctl(int descriptor, unsigned long request, void* argument) {
  const CTurn turn(*m_Inside);
  ++m_Inside->m_Ioctls[request];
  const SOpenFile* file = m_Inside->File(descriptor);
  if (file == nullptr) return Failed(EBADF);
  if (file->m_Kind != EFile::Block) return Failed(ENOTTY);
  const auto block = m_Inside->Device(*file);
  if (!block) return Failed(ENODEV);
  if (request == BLKGETSIZE64) return Failed(SizeOf(*block, argument));
  SMachine& machine = m_Inside->m_Machine;
  const int error = block->m_Array != nullptr ? MdIoctl(machine, *block->m_Array, request, argument)
                                              : DiskIoctl(machine, *block->m_Disk, request, argument);
  return error < 0 ? -error : Failed(error);
}

int CSimulatedSystem::WaitExceptional(int descriptor, std::uint64_t time) {
  const auto end = steady_clock::now() + milliseconds(time);
  const CTurn turn(*m_Inside);
  for (;;) {
    m_Inside->CatchUp();
    const SOpenFile* file = m_Inside->File(descriptor);
    if (file == nullptr) return Failed(EBADF);
    if (file->m_Path == MDSTAT && file->m_MdEvents != m_Inside->m_Machine.m_MdEvents) return 1;
    if (steady_clock::now() >= end) return 0;
    m_Inside->m_Lock.WaitUntil(std::min(end, m_Inside->NextChange()));
  }
}

int CSimulatedSystem::MakeNode(const std::string& path, mode_t mode, dev_t device) {
  const CTurn turn(*m_Inside);
  if (m_Inside->Entry(path)) return Failed(EEXIST);
  if (!path.starts_with("/dev/") || path.find('/', 5) != std::string::npos) return Failed(ENOENT);
  // The call hands a device number on in 32 bits.
  if (!S_ISBLK(mode) || major(device) > 0xfff || minor(device) > 0xfffff) return Failed(EINVAL);
  m_Inside->m_Machine.m_Nodes.push_back({path, mode & ~NODE_MASK, device});
  return 0;
}

int CSimulatedSystem::ChangeMode(const std::string& path, mode_t mode) {
  const CTurn turn(*m_Inside);
  for (auto& node : m_Inside->m_Machine.m_Nodes) {
    if (node.m_Path != path) continue;
    node.m_Mode = S_IFBLK | mode;
    return 0;
  }
  return Failed(ENOENT);
}

int CSimulatedSystem::Status(const std::string& path, struct stat& status) {
  const CTurn turn(*m_Inside);
  const auto entry = m_Inside->Entry(path);
  if (!entry) return Failed(ENOENT);
  FillStatus(status, *entry);
  return 0;
}

int CSimulatedSystem::Status(int descriptor, struct stat& status) {
  const CTurn turn(*m_Inside);
  const SOpenFile* file = m_Inside->File(descriptor);
  if (file == nullptr) return Failed(EBADF);
  // A file that is open keeps what it is when its name goes.
  const auto entry = m_Inside->Entry(file->m_Path);
  SEntry open{SEntry::EKind::Text, "", file->m_Device, entry ? entry->m_Mode : 0};
  if (file->m_Kind == EFile::Directory) open.m_Kind = SEntry::EKind::Directory;
  if (file->m_Kind == EFile::Random) open.m_Kind = SEntry::EKind::Random;
  if (file->m_Kind == EFile::Block) open.m_Kind = SEntry::EKind::Block;
  FillStatus(status, open);
  return 0;
}

std::optional<std::string> CSimulatedSystem::ReadLink(const std::string& path) {
  const CTurn turn(*m_Inside);
  const bool replaced = m_Inside->m_Replaced.count(path) != 0;
  const auto entry = replaced ? m_Inside->Entry(path) : FindEntry(m_Inside->m_Machine, path);
  if (entry && entry->m_Kind == SEntry::EKind::Link) return entry->m_Text;
  errno = entry ? EINVAL : ENOENT;
  return std::nullopt;
}

int CSimulatedSystem::GetCommandPath(const std::string& name, boost::filesystem::path& path) {
  const CTurn turn(*m_Inside);
  for (const char* folder : {"/usr/sbin/", "/usr/bin/", "/sbin/", "/bin/"}) {
    if (!m_Inside->Entry(folder + name)) continue;
    path = folder + name;
    return 1;
  }
  return 0;
}

int CSimulatedSystem::ExecuteCommand(const boost::filesystem::path& program, const std::string& arguments,
                                     std::vector<std::string>& lines) {
  const CTurn turn(*m_Inside);
  lines.clear();
  const std::string name = program.filename().string();
  if (!m_Inside->Entry(program.string())) return 0;
  ++m_Inside->m_Commands[name];
  SProgramResult result = RunProgram(m_Inside->m_Machine, program.string(), arguments);
  lines = std::move(result.m_Lines);
  return result.m_Result;
}

std::vector<KVTX::CPartition> CSimulatedSystem::GetPartitions(const std::string& device) {
  const CTurn turn(*m_Inside);
  const auto entry = m_Inside->Entry(device);
  const auto whole = entry ? FindBlock(m_Inside->m_Machine, entry->m_Device) : std::nullopt;
  std::vector<KVTX::CPartition> partitions;
  if (!whole) return partitions;
  for (const SBlock& block : AllBlocks(m_Inside->m_Machine)) {
    const bool inside = block.Instance() == whole->Instance() && block.m_Partition != nullptr &&
                        whole->m_Partition == nullptr;
    const bool itself = block.m_Device == whole->m_Device && !block.Mount().empty();
    if (inside || itself) partitions.push_back({"/dev/" + block.m_Name, "", block.Mount()});
  }
  return partitions;
}

std::uint64_t CSimulatedSystem::Now() {
  const CTurn turn(*m_Inside);
  return m_Inside->m_Machine.m_ClockStart + m_Inside->m_Machine.m_Time;
}

void CSimulatedSystem::Sleep(std::uint64_t time) {
  if (m_Inside->m_Clock == EClock::Real) {
    std::this_thread::sleep_for(milliseconds(time));
  } else {
    Advance(time);
  }
}

}  // namespace Simulation
