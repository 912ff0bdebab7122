#pragma once
/// @file
/// What the benchmarks share: medians, requests to md, and programs that are run and looked at.

#include <fcntl.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace Bench {

using Clock = std::chrono::steady_clock;

inline double Milliseconds(Clock::duration time) {
  return std::chrono::duration<double, std::milli>(time).count();
}

/// Of a list that is not empty; the upper one of two in the middle.
inline double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

/// What was measured, by the names by which bench/run knows it.
using TSamples = std::map<std::string, std::vector<double>>;

inline void TellMedians(const TSamples& samples) {
  for (const auto& [name, values] : samples) std::printf("%s %.9g\n", name.c_str(), Median(values));
}

/// The body of a program: what is thrown is told, and the exit status 1.
inline int Main(const char* program, const std::function<void()>& body) {
  try {
    body();
    return 0;
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "%s: %s\n", program, exception.what());
    return 1;
  }
}

/// Asks a device; throws when it refuses.
inline void Ask(const std::string& path, unsigned long request, const void* argument) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  const int result = descriptor < 0 ? -1 : ::ioctl(descriptor, request, argument);
  const std::string why = std::strerror(errno);
  if (descriptor >= 0) ::close(descriptor);
  if (result < 0) throw std::runtime_error(path + ": " + why);
}

/// A block device's number.
inline dev_t Number(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) throw std::runtime_error(path + ": " + std::strerror(errno));
  return status.st_rdev;
}

/// As md's requests take it in the place of a pointer.
inline const void* AsArgument(dev_t number) { return reinterpret_cast<const void*>(number); }

struct SRun {
  double m_Milliseconds;  ///< from before the start to the end
  double m_PeakMib;       ///< resident; at least that of the program that started it
};

/// Runs a command, words separated by single blanks, without its output. Throws when it fails.
inline SRun Run(const std::string& command) {
  std::string words = command;
  std::vector<char*> arguments;
  for (char* next = words.data(); char* word = ::strsep(&next, " ");) arguments.push_back(word);
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);

  const auto begin = Clock::now();
  pid_t child = 0;
  const int error = ::posix_spawnp(&child, arguments.front(), &actions, nullptr, arguments.data(), environ);
  int status = 0;
  rusage usage{};
  if (error == 0) ::wait4(child, &status, 0, &usage);
  const double time = Milliseconds(Clock::now() - begin);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::runtime_error(command + ": " + std::strerror(error));
  if (status != 0) throw std::runtime_error(command + " failed");
  return {time, static_cast<double>(usage.ru_maxrss) / 1024.0};
}

}  // namespace Bench
