#pragma once
/// @file
/// How long a run still takes, from how it went on so far.

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>
#include <string>

namespace Host {

/// The time that is left, and between which it may lie: by the slowest and the quickest stretch seen.
struct STimeLeft {
  std::chrono::seconds m_Likely;
  std::chrono::seconds m_Least;
  std::chrono::seconds m_Most;
};

class CEstimate {
 public:
  using Clock = std::chrono::steady_clock;

  /// Takes a look at the run; one that shows no progress since the look before tells nothing.
  void Add(double percent, Clock::time_point now);
  /// None as long as there are not two stretches of progress: the first look met the run in its middle.
  std::optional<STimeLeft> Left() const;

 private:
  struct SSample {
    double m_Percent;
    Clock::time_point m_Time;
  };
  std::deque<SSample> m_Samples;
};

/// "about 2 min left (1 min to 4 min)"; "time left not known yet".
std::string TextOf(const std::optional<STimeLeft>& left);

}  // namespace Host
