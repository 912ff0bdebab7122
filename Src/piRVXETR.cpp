#include "Src/piRVXETR.h"

#include <algorithm>

namespace PI {

namespace {

constexpr std::uint64_t MINUTE = 60000;

/// Percent still missing as an unsigned factor.
std::uint64_t Missing(std::int32_t progress) {
  return static_cast<std::uint64_t>(100 - std::int64_t{progress});
}
std::uint64_t Unsigned(std::int32_t number) { return static_cast<std::uint64_t>(std::int64_t{number}); }

}  // namespace

long CETR::Add(std::vector<CETR>& list, std::uint64_t id, std::int32_t progress, std::uint64_t now,
               bool pause) {
  const auto found = std::find_if(list.begin(), list.end(), [id](const CETR& etr) { return etr.m_ID == id; });
  const long index = found - list.begin();
  if (found == list.end()) {
    CETR etr;
    etr.m_ID = id;
    etr.m_Start = now;
    etr.Compute(progress, now);
    list.push_back(etr);
  } else if (pause) {
    found->m_Start += now - found->m_LastUpdate;  // time at rest is no work time
    found->m_LastUpdate = now;
  } else {
    found->Compute(progress, now);
  }
  return index;
}

void CETR::Compute(std::int32_t progress, std::uint64_t now) {
  if (m_Start == UNKNOWN) m_Start = now - MINUTE;
  if (progress < 0) return;
  if (progress >= 100 && m_Remaining > MINUTE) {
    m_Remaining = MINUTE;
    return;
  }
  const std::size_t samples = m_Progress.size();
  const std::uint64_t firstGuess = Missing(progress) * std::max(now - m_Start, MINUTE);
  if (samples != 0 && progress == m_Progress.back()) {
    if (samples <= 2)
      m_Remaining = firstGuess;
    else if (m_Remaining >= 2 * MINUTE && m_Remaining > now - m_LastUpdate)
      m_Remaining -= now - m_LastUpdate;
    else
      m_Remaining /= 2;
    m_LastUpdate = now;
    return;
  }

  m_Progress.push_back(progress);
  m_Times.push_back(now);
  if (samples == 0) {
    m_Remaining = firstGuess;
  } else {
    if (samples == 2) {
      // The first sample may have come in the middle of a percent: the next two tell when the work began.
      const std::uint64_t start = m_Times[1] - (m_Times[2] - m_Times[1]) * Unsigned(m_Progress[1]);
      m_Start = std::min(m_Start, start);
    }
    if (progress > 0)
      m_Remaining = samples == 1 ? Missing(progress) * std::max(now - m_Start, MINUTE)
                                 : Project(progress, now - m_Start);
  }
  m_LastUpdate = now;
}

/// The projection from three samples on.
std::uint64_t CETR::Project(std::int32_t progress, std::uint64_t elapsed) const {
  const std::uint64_t p = Unsigned(progress);
  const std::uint64_t overall = 100 * (elapsed / p + 1) - elapsed;
  const std::size_t last = m_Progress.size() - 1;
  if (m_Progress.size() <= 9 || progress <= 32) return overall;
  const std::uint64_t gained = Unsigned(m_Progress[last]) - Unsigned(m_Progress[last - 5]);
  if (gained == 0) return overall;  // the percentage fell and rose again: there is no rate
  const std::uint64_t rate = (m_Times[last] - m_Times[last - 5]) / gained + 1;
  // The recent rate and the overall projection are mixed on purpose: the figure stays calm.
  return (rate * p + overall) * Missing(progress) / 100;
}

}  // namespace PI
