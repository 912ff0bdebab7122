#pragma once

#include <cstdint>
#include <vector>

namespace PI {

/// Estimates how long a rebuild or resync still needs from the percentages reported over time. All times are
/// milliseconds of one clock; arithmetic is unsigned 64-bit and wraps. Not synchronised.
class CETR {
 public:
  static constexpr std::uint64_t UNKNOWN = ~std::uint64_t{0};

  /// Feeds the estimator of object `id`, which is made when there is none; `pause` moves its start by the
  /// time since the last reading instead. Returns the estimator's place in the list.
  static long Add(std::vector<CETR>& list, std::uint64_t id, std::int32_t progress, std::uint64_t now,
                  bool pause);
  /// Folds one reading, percent at a time, into the estimate.
  void Compute(std::int32_t progress, std::uint64_t now);

  std::uint64_t m_ID{0};
  std::uint64_t m_Start{UNKNOWN};
  std::uint64_t m_LastUpdate{UNKNOWN};
  std::uint64_t m_Remaining{UNKNOWN};
  std::vector<std::int32_t> m_Progress;  ///< each new percentage, in the order of arrival
  std::vector<std::uint64_t> m_Times;    ///< when each of them came

 private:
  std::uint64_t Project(std::int32_t progress, std::uint64_t elapsed) const;
};

}  // namespace PI
