#pragma once
/// @file
/// Running rvxctl, and what came of it.

#include <sys/types.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/TemporaryFolder.h"

using Words = std::vector<std::string>;

/// A running program. Its destructor ends it, and an alarm after a minute.
class CProgram {
 public:
  /// All three standard descriptors are one terminal, or there is no input and the errors are kept apart.
  explicit CProgram(Words words, bool terminal = false);
  ~CProgram();
  CProgram(const CProgram&) = delete;
  CProgram& operator=(const CProgram&) = delete;

  /// Reads until the text was written; false when the program ends before.
  bool ReadUntil(const std::string& text);
  void Type(const std::string& text) const;
  void Resize(unsigned short rows, unsigned short columns) const;
  /// Reads to the end. The exit status, -n when signal n ended it.
  int Wait();

  pid_t Process() const { return m_Process; }
  const std::string& Out() const { return m_Out; }
  std::string Err() const { return m_Folder.Read("errors"); }

 private:
  bool ReadSome();

  const CTemporaryFolder m_Folder;
  pid_t m_Process{-1};
  int m_Output{-1};  ///< the terminal or a pipe
  std::string m_Out;
};

struct SResult {
  int m_Status;
  std::string m_Out;
  std::string m_Err;
  /// The document on standard output; discarded (is_discarded()) when it is not exactly one.
  nlohmann::json Json() const { return nlohmann::json::parse(m_Out, nullptr, false); }
};

/// What runs rvxctl; `surroundings` are arguments of env.
Words RvxctlWords(const Words& words, const Words& surroundings = {});
/// From begin to end, without a terminal.
SResult ResultOf(const Words& words);
SResult Rvxctl(const Words& words, const Words& surroundings = {});
/// "--simulate=..." of a machine that belongs to the tests.
std::string Simulate(const std::string& machine);
