#pragma once
/// @file
/// What the benchmarks share: medians, and programs that are run and looked at.

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
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

/// A measured value for bench/run, which knows by their names what they are put in proportion to.
inline void Tell(const std::string& name, double value) { std::printf("%s %.9g\n", name.c_str(), value); }

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
