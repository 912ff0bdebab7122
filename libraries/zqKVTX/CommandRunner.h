#pragma once

#include <boost/filesystem/path.hpp>
#include <chrono>
#include <string>
#include <vector>

#include "KVT/Api.h"

namespace KVTX::Internal {

/// How much of a program is borne before it is killed, and of programs that do not die of it.
struct SCommandLimits {
  std::chrono::milliseconds m_Time{3000};
  std::size_t m_OutputBytes{1 << 20};
  std::chrono::milliseconds m_KillTime{1000};  ///< wait for the end of a killed program
  /// Programs of earlier calls that were killed and still have not ended, each with a descriptor of the
  /// server's. With so many no further one is started, and one that is left never a second time.
  std::size_t m_LeftChildren{8};
};

struct SCommandResult {
  int m_Result{0};  ///< as CSystem::ExecuteCommand returns it
  std::vector<std::string> m_Lines;
};

/// Runs a program as CSystem::ExecuteCommand does, always, with limits of choice. A cancellation point: the
/// program is killed when the calling thread is cancelled.
ZQ_API SCommandResult RunCommand(const boost::filesystem::path& program, const std::string& arguments,
                                 const SCommandLimits& limits);

}  // namespace KVTX::Internal
