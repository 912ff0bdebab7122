#include "system/Linux.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <chrono>

#include "KVT/Misc.h"
#include "KVTX/System.h"

namespace OS {
namespace {

/// Repeats a call for as long as a signal interrupts it.
template <typename TCall>
auto Retry(TCall call) {
  auto result = call();
  while (result == -1 && errno == EINTR) result = call();
  return result;
}

}  // namespace

int CLinux::Open(const std::string& path, int flags) {
  return Retry([&] { return ::open(path.c_str(), flags | O_CLOEXEC | O_LARGEFILE); });
}

int CLinux::Close(int descriptor) {
  // Destructors close, and a thread that is cancelled inside a destructor takes the process down.
  int previous = 0;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous);
  const int result = ::close(descriptor);
  const int error = errno;
  pthread_setcancelstate(previous, nullptr);
  errno = error;
  return result;
}

ssize_t CLinux::Read(int descriptor, void* buffer, std::size_t size) {
  return Retry([&] { return ::read(descriptor, buffer, size); });
}

ssize_t CLinux::Write(int descriptor, const void* buffer, std::size_t size) {
  return Retry([&] { return ::write(descriptor, buffer, size); });
}

std::int64_t CLinux::Seek(int descriptor, std::int64_t position) {
  return ::lseek64(descriptor, position, SEEK_SET);
}

int CLinux::Sync(int descriptor) {
  return Retry([&] { return ::fsync(descriptor); });
}

int CLinux::Ioctl(int descriptor, unsigned long request, void* argument) {
  return Retry([&] { return ::ioctl(descriptor, request, argument); });
}

int CLinux::WaitExceptional(int descriptor, std::uint64_t milliseconds) {
  if (descriptor < 0) {
    errno = EBADF;
    return -1;
  }
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
  // The server may have more files open than an fd_set holds: the set is as large as this descriptor needs.
  const auto word = static_cast<std::size_t>(descriptor) / NFDBITS;
  std::vector<fd_mask> set(std::max<std::size_t>(word + 1, sizeof(fd_set) / sizeof(fd_mask)));
  for (;;) {
    std::fill(set.begin(), set.end(), 0);
    set[word] = static_cast<fd_mask>(1UL << (static_cast<std::size_t>(descriptor) % NFDBITS));
    const auto left = std::max<std::int64_t>(
        0, std::chrono::duration_cast<std::chrono::microseconds>(end - std::chrono::steady_clock::now())
               .count());
    timeval timeout{left / 1000000, left % 1000000};
    const int result =
        ::select(descriptor + 1, nullptr, nullptr, reinterpret_cast<fd_set*>(set.data()), &timeout);
    if (result != -1 || errno != EINTR) return result;
  }
}

int CLinux::MakeNode(const std::string& path, mode_t mode, dev_t device) {
  return ::mknod(path.c_str(), mode, device);
}

int CLinux::ChangeMode(const std::string& path, mode_t mode) { return ::chmod(path.c_str(), mode); }

int CLinux::Status(const std::string& path, struct stat& status) { return ::stat(path.c_str(), &status); }

int CLinux::Status(int descriptor, struct stat& status) { return ::fstat(descriptor, &status); }

std::optional<std::string> CLinux::ReadLink(const std::string& path) {
  boost::system::error_code error;
  const auto target = boost::filesystem::read_symlink(path, error);
  if (error) {
    errno = error.value();
    return std::nullopt;
  }
  return target.string();
}

int CLinux::GetCommandPath(const std::string& name, boost::filesystem::path& path) {
  return KVT::Misc::CKvtApplication::GetCommandPath(name, path);
}

int CLinux::ExecuteCommand(const boost::filesystem::path& program, const std::string& arguments,
                           std::vector<std::string>& lines) {
  return KVTX::CSystem::ExecuteCommand(program, arguments, lines);
}

std::vector<KVTX::CPartition> CLinux::GetPartitions(const std::string& device) {
  return KVTX::CSystemPartitionTable::GetPartitions(device);
}

std::uint64_t CLinux::Now() { return KVTX::CSystemTime_Lx::Now(); }

void CLinux::Sleep(std::uint64_t milliseconds) { KVT::Misc::msleep(milliseconds); }

}  // namespace OS
