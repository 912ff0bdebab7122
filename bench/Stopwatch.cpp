/// @file
/// Looks at programs from outside. Linked statically, so that it is smaller than what it starts: the kernel
/// counts a program's peak from that of the one that started it.
///
///   rvx_stopwatch compare ROUNDS NAME=COMMAND...   runs them in turns; medians "NAME_ms" and "NAME_mib"
///   rvx_stopwatch stamp                            each line of the input behind the moment of its arrival
///   rvx_stopwatch mdstat                           the same, a line "change" for each change of /proc/mdstat
///   rvx_stopwatch fail ARRAY MEMBER                has md take the member for faulty; the moment before
///
/// Moments are microseconds since 1970.

#include <linux/major.h>
#include <linux/raid/md_u.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>

#include "bench/Measure.h"

namespace {

long Moment() {
  return std::chrono::duration_cast<std::chrono::microseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

[[noreturn]] void Fail(const std::string& what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

/// Without that of the program that started this one, which getrusage includes.
double OwnPeakMib() {
  std::FILE* const status = std::fopen("/proc/self/status", "re");
  if (status == nullptr) Fail("/proc/self/status");
  long peak = -1;
  for (char line[256]; peak < 0 && std::fgets(line, sizeof(line), status) != nullptr;)
    if (std::strncmp(line, "VmHWM:", 6) == 0) peak = std::atol(line + 6);
  std::fclose(status);
  if (peak <= 0) throw std::runtime_error("/proc/self/status tells no peak");
  return static_cast<double>(peak) / 1024.0;
}

/// One round more than asked for: the first finds nothing in the caches and does not count.
void Compare(int rounds, const std::vector<std::string>& contestants) {
  struct SContestant {
    std::string m_Name, m_Command;
    std::vector<double> m_Milliseconds{}, m_PeakMib{};
  };
  std::vector<SContestant> all;
  for (const std::string& words : contestants) {
    const std::size_t equals = words.find('=');
    if (equals == std::string::npos) throw std::runtime_error("not NAME=COMMAND: " + words);
    all.push_back({words.substr(0, equals), words.substr(equals + 1)});
  }
  for (int round = 0; round <= rounds; ++round)
    for (SContestant& one : all) {
      const Bench::SRun run = Bench::Run(one.m_Command);
      if (round == 0) continue;
      one.m_Milliseconds.push_back(run.m_Milliseconds);
      one.m_PeakMib.push_back(run.m_PeakMib);
    }
  const double own = OwnPeakMib();
  for (const SContestant& one : all) {
    const double peak = Bench::Median(one.m_PeakMib);
    if (peak <= own) throw std::runtime_error(one.m_Name + " needs less memory than what measures it");
    Bench::Tell(one.m_Name + "_ms", Bench::Median(one.m_Milliseconds));
    Bench::Tell(one.m_Name + "_mib", peak);
  }
}

void Stamp() {
  for (char line[65536]; std::fgets(line, sizeof(line), stdin) != nullptr;)
    std::printf("%ld %s", Moment(), line);
}

/// The kernel reports what changed since the opening: the next file is open before this one is closed.
void WatchMdstat() {
  for (int previous = -1;;) {
    pollfd mdstat{::open("/proc/mdstat", O_RDONLY | O_CLOEXEC), POLLPRI, 0};
    if (mdstat.fd < 0) Fail("/proc/mdstat");
    if (previous >= 0) ::close(previous);
    if (::poll(&mdstat, 1, -1) < 0) Fail("poll");
    std::printf("%ld change\n", Moment());
    previous = mdstat.fd;
  }
}

void FailMember(const std::string& array, const std::string& member) {
  struct stat status {};
  if (::stat(member.c_str(), &status) != 0) Fail(member);
  const int descriptor = ::open(array.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) Fail(array);
  const long moment = Moment();
  if (::ioctl(descriptor, SET_DISK_FAULTY, status.st_rdev) != 0) Fail(array);
  std::printf("%ld\n", moment);
}

}  // namespace

int main(int count, char** arguments) {
  const std::vector<std::string> words(arguments + 1, arguments + count);
  const std::string mode = words.empty() ? "" : words.front();
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  try {
    if (mode == "compare" && words.size() > 2)
      Compare(std::max(std::atoi(words[1].c_str()), 1), {words.begin() + 2, words.end()});
    else if (mode == "stamp")
      Stamp();
    else if (mode == "mdstat")
      WatchMdstat();
    else if (mode == "fail" && words.size() == 3)
      FailMember(words[1], words[2]);
    else
      throw std::runtime_error("unknown arguments");
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "rvx_stopwatch: %s\n", exception.what());
    return 1;
  }
  return 0;
}
