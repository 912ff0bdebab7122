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
  Bench::TSamples samples;
  const double own = OwnPeakMib();
  for (int round = 0; round <= rounds; ++round) {
    if (round == 1) samples.clear();
    for (const std::string& words : contestants) {
      const std::string name = words.substr(0, words.find('='));
      const Bench::SRun run = Bench::Run(words.substr(std::min(name.size() + 1, words.size())));
      if (run.m_PeakMib <= own) throw std::runtime_error(name + " needs less memory than what measures it");
      samples[name + "_ms"].push_back(run.m_Milliseconds);
      samples[name + "_mib"].push_back(run.m_PeakMib);
    }
  }
  Bench::TellMedians(samples);
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
  const dev_t number = Bench::Number(member);
  const long moment = Moment();
  Bench::Ask(array, SET_DISK_FAULTY, Bench::AsArgument(number));
  std::printf("%ld\n", moment);
}

}  // namespace

int main(int count, char** arguments) {
  const std::vector<std::string> words(arguments + 1, arguments + count);
  const std::string mode = words.empty() ? "" : words.front();
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  return Bench::Main("rvx_stopwatch", [&] {
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
  });
}
