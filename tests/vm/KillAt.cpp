/// @file
/// Preloaded into a process, sends it a signal right before the n-th of its calls that change md or a
/// disk: md's ioctls that make, extend, start and stop an array, and writes to block devices.
///
/// RVX_KILL_AT is n, counted from 1; without it nothing is sent. RVX_KILL_SIGNAL is the signal, SIGKILL when
/// not given. RVX_KILL_LOG is a file that gets the name
/// of each such call, a line each, the deadly one included.

#include <dlfcn.h>
#include <linux/major.h>
#include <linux/raid/md_u.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdlib>
#include <fstream>
#include <string>

namespace {

constexpr struct SChange {
  unsigned long m_Request;
  const char* m_Name;
} CHANGES[] = {{SET_ARRAY_INFO, "SET_ARRAY_INFO"},
               {ADD_NEW_DISK, "ADD_NEW_DISK"},
               {RUN_ARRAY, "RUN_ARRAY"},
               {STOP_ARRAY, "STOP_ARRAY"}};

using Write = ssize_t(int, const void*, size_t);
using Ioctl = int(int, unsigned long, ...);

/// The function that the process would have called without this library.
template <class TFunction>
TFunction* Next(const char* name) {
  return reinterpret_cast<TFunction*>(::dlsym(RTLD_NEXT, name));
}

void Count(const std::string& name) {
  static std::atomic<int> count{0};
  if (const char* const log = std::getenv("RVX_KILL_LOG")) std::ofstream(log, std::ios::app) << name << '\n';
  const char* const at = std::getenv("RVX_KILL_AT");
  const char* const signal = std::getenv("RVX_KILL_SIGNAL");
  if (++count == (at == nullptr ? 0 : std::atoi(at)))
    ::kill(::getpid(), signal == nullptr ? SIGKILL : std::atoi(signal));
}

}  // namespace

extern "C" [[gnu::visibility("default")]] ssize_t write(int descriptor, const void* data, size_t size) {
  static Write* const next = Next<Write>("write");
  struct stat status {};
  if (::fstat(descriptor, &status) == 0 && S_ISBLK(status.st_mode)) Count("write");
  return next(descriptor, data, size);
}

extern "C" [[gnu::visibility("default")]] int ioctl(int descriptor, unsigned long request, ...) noexcept {
  static Ioctl* const next = Next<Ioctl>("ioctl");
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  for (const SChange& change : CHANGES)
    if (change.m_Request == request) Count(change.m_Name);
  return next(descriptor, request, argument);
}
