#pragma once
/// @file
/// Rebuilds that do not get on.

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "host/Health.h"

namespace Rvxd {

/// For one thread.
class CProgress {
 public:
  using Time = std::chrono::steady_clock::time_point;

  CProgress() = default;
  /// Goes on from the conditions of the run before.
  explicit CProgress(const Host::Json& conditions);

  /// Those of the run before.
  std::vector<Host::SProblem> Kept() const { return m_Kept; }
  /// The arrays of /v1/state whose rebuild or resync has been as far as it is for two hours. One that waits,
  /// which tells no progress, is not stuck.
  std::vector<Host::SProblem> Stuck(const Host::Json& arrays, Time now);

 private:
  struct SAt {
    Host::Json m_Progress;
    Time m_Since;
  };
  std::map<std::string, SAt> m_At;     ///< by the array's name
  std::vector<Host::SProblem> m_Kept;  ///< until the first look
};

}  // namespace Rvxd
