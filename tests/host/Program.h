#pragma once
/// @file
/// Running rvxctl, and what came of it.

#include <sys/types.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/unit/libraries/TemporaryFolder.h"

namespace rvxctl_test {

using Words = std::vector<std::string>;
using Environment = std::vector<std::pair<std::string, std::string>>;

struct SHow {
  Environment m_Environment{};
  bool m_Terminal{false};  ///< all three standard descriptors are one terminal
  std::string m_Output{};  ///< a file in place of standard output
  std::string m_Folder{};  ///< where it is started; empty: where the test was
};

/// A running program. Its destructor ends it.
class CProgram {
 public:
  explicit CProgram(const Words& words, const SHow& how = {});
  ~CProgram();
  CProgram(const CProgram&) = delete;
  CProgram& operator=(const CProgram&) = delete;

  /// Reads until the text was written; false when a generous time runs out or the program ends.
  bool ReadUntil(const std::string& text);
  void Type(const std::string& text);
  void Signal(int signal) const;
  void CloseOutput();
  /// Reads to the end. The exit status, 128 + n when signal n ended it, -1 when the time ran out.
  int Wait(std::chrono::seconds limit = std::chrono::seconds(60));

  pid_t Process() const { return m_Process; }
  const std::string& Out() const { return m_Out; }
  const std::string& Err() const { return m_Err; }

 private:
  bool ReadSome(std::chrono::steady_clock::time_point end);

  pid_t m_Process{-1};
  int m_OutPipe{-1};
  int m_ErrPipe{-1};
  int m_Terminal{-1};
  std::string m_Out;
  std::string m_Err;
};

struct SResult {
  int m_Status;
  std::string m_Out;
  std::string m_Err;
  /// The document on standard output; discarded (is_discarded()) when it is not exactly one.
  nlohmann::json Json() const { return nlohmann::json::parse(m_Out, nullptr, false); }
};

/// rvxctl from begin to end, without a terminal.
SResult Rvxctl(const Words& words, const SHow& how = {});
Words RvxctlWords(Words words);
/// "--simulate=..." of a machine that belongs to the tests.
std::string Simulate(const std::string& machine);
std::string ReadFile(const std::string& path);

}  // namespace rvxctl_test
