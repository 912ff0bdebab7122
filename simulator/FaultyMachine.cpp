#include "simulator/FaultyMachine.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

namespace NAMESPACE_piRVX {
namespace {

std::size_t Index(CFaultyMachine::ECall kind) { return static_cast<std::size_t>(kind); }

}  // namespace

CFaultyMachine::CFaultyMachine(COperatingSystem& machine) : m_Machine(machine) {}

void CFaultyMachine::FailAt(ECall kind, std::uint64_t n, int error, std::uint64_t more) {
  const std::lock_guard lock(m_Lock);
  SPlan& plan = m_Plans[Index(kind)];
  plan.m_First = plan.m_Count + n;
  plan.m_Last = plan.m_First + more;
  plan.m_Error = error;
}

void CFaultyMachine::ShortenAt(ECall kind, std::uint64_t n, std::size_t size) {
  const std::lock_guard lock(m_Lock);
  SPlan& plan = m_Plans[Index(kind)];
  plan.m_ShortAt = plan.m_Count + n;
  plan.m_ShortSize = size;
}

void CFaultyMachine::Clear() {
  const std::lock_guard lock(m_Lock);
  for (SPlan& plan : m_Plans) plan = SPlan{.m_Count = plan.m_Count};
}

std::uint64_t CFaultyMachine::Count(ECall kind) const {
  const std::lock_guard lock(m_Lock);
  return m_Plans[Index(kind)].m_Count;
}

std::uint64_t CFaultyMachine::Struck() const {
  const std::lock_guard lock(m_Lock);
  return m_Struck;
}

std::vector<std::string> CFaultyMachine::OpenedForWriting() const {
  const std::lock_guard lock(m_Lock);
  return m_OpenedForWriting;
}

int CFaultyMachine::Strike(ECall kind, std::size_t* size) {
  const std::lock_guard lock(m_Lock);
  int error = 0;
  const auto count = [&](ECall counted) {
    SPlan& plan = m_Plans[Index(counted)];
    ++plan.m_Count;
    if (plan.m_First != 0 && plan.m_Count >= plan.m_First && plan.m_Count <= plan.m_Last)
      error = plan.m_Error;
    if (size != nullptr && plan.m_ShortAt == plan.m_Count) {
      *size = std::min(*size, plan.m_ShortSize);
      ++m_Struck;
    }
  };
  count(kind);
  // Closing fails only when it is asked for by name: nobody can do anything about it.
  if (kind != ECall::Close) count(ECall::Any);
  if (error != 0) ++m_Struck;
  return error;
}

bool CFaultyMachine::Fails(ECall kind) {
  const int error = Strike(kind);
  if (error != 0) errno = error;
  return error != 0;
}

int CFaultyMachine::Open(const std::string& path, int flags) {
  if ((flags & O_ACCMODE) != O_RDONLY) {
    const std::lock_guard lock(m_Lock);
    m_OpenedForWriting.push_back(path);
  }
  return Fails(ECall::Open) ? -1 : m_Machine.Open(path, flags);
}

int CFaultyMachine::Close(int descriptor) {
  const int error = Strike(ECall::Close);
  const int result = m_Machine.Close(descriptor);
  if (error == 0) return result;
  errno = error;
  return -1;
}

ssize_t CFaultyMachine::Read(int descriptor, void* buffer, std::size_t size) {
  const int error = Strike(ECall::Read, &size);
  if (error == 0) return m_Machine.Read(descriptor, buffer, size);
  errno = error;
  return -1;
}

ssize_t CFaultyMachine::Write(int descriptor, const void* buffer, std::size_t size) {
  const int error = Strike(ECall::Write, &size);
  if (error == 0) return m_Machine.Write(descriptor, buffer, size);
  errno = error;
  return -1;
}

std::int64_t CFaultyMachine::Seek(int descriptor, std::int64_t position) {
  return Fails(ECall::Seek) ? -1 : m_Machine.Seek(descriptor, position);
}

int CFaultyMachine::Sync(int descriptor) { return Fails(ECall::Sync) ? -1 : m_Machine.Sync(descriptor); }

int CFaultyMachine::Ioctl(int descriptor, unsigned long request, void* argument) {
  return Fails(ECall::Ioctl) ? -1 : m_Machine.Ioctl(descriptor, request, argument);
}

int CFaultyMachine::WaitExceptional(int descriptor, std::uint64_t milliseconds) {
  return Fails(ECall::WaitExceptional) ? -1 : m_Machine.WaitExceptional(descriptor, milliseconds);
}

int CFaultyMachine::MakeNode(const std::string& path, mode_t mode, dev_t device) {
  return Fails(ECall::MakeNode) ? -1 : m_Machine.MakeNode(path, mode, device);
}

int CFaultyMachine::ChangeMode(const std::string& path, mode_t mode) {
  return Fails(ECall::ChangeMode) ? -1 : m_Machine.ChangeMode(path, mode);
}

int CFaultyMachine::Status(const std::string& path, struct stat& status) {
  return Fails(ECall::Status) ? -1 : m_Machine.Status(path, status);
}

int CFaultyMachine::Status(int descriptor, struct stat& status) {
  return Fails(ECall::Status) ? -1 : m_Machine.Status(descriptor, status);
}

std::optional<std::string> CFaultyMachine::ReadLink(const std::string& path) {
  return Fails(ECall::ReadLink) ? std::nullopt : m_Machine.ReadLink(path);
}

int CFaultyMachine::GetCommandPath(const std::string& name, boost::filesystem::path& path) {
  return Fails(ECall::GetCommandPath) ? 0 : m_Machine.GetCommandPath(name, path);
}

int CFaultyMachine::ExecuteCommand(const boost::filesystem::path& program, const std::string& arguments,
                                   std::vector<std::string>& lines) {
  return Fails(ECall::ExecuteCommand) ? 0 : m_Machine.ExecuteCommand(program, arguments, lines);
}

std::vector<KVTX::CPartition> CFaultyMachine::GetPartitions(const std::string& device) {
  return Fails(ECall::GetPartitions) ? std::vector<KVTX::CPartition>{} : m_Machine.GetPartitions(device);
}

std::uint64_t CFaultyMachine::Now() { return m_Machine.Now(); }

void CFaultyMachine::Sleep(std::uint64_t milliseconds) { m_Machine.Sleep(milliseconds); }

}  // namespace NAMESPACE_piRVX
