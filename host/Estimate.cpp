#include "host/Estimate.h"

#include <algorithm>
#include <cmath>

namespace Host {

namespace {

/// Stretches that count: what was long ago says little about now.
constexpr std::size_t MOST_SAMPLES = 12;

std::string Duration(std::chrono::seconds time) {
  const long seconds = static_cast<long>(time.count());
  if (seconds < 90) return std::to_string(seconds) + " s";
  const long minutes = (seconds + 30) / 60;
  if (minutes < 90) return std::to_string(minutes) + " min";
  return std::to_string(minutes / 60) + " h " + std::to_string(minutes % 60) + " min";
}

}  // namespace

void CEstimate::Add(double percent, Clock::time_point now) {
  // A run that begins anew tells nothing of the one before.
  if (!m_Samples.empty() && percent < m_Samples.back().m_Percent) m_Samples.clear();
  if (!m_Samples.empty() && percent <= m_Samples.back().m_Percent) return;
  m_Samples.push_back({percent, now});
  if (m_Samples.size() > MOST_SAMPLES) m_Samples.pop_front();
}

std::optional<STimeLeft> CEstimate::Left() const {
  if (m_Samples.size() < 3) return std::nullopt;
  const double missing = 100 - m_Samples.back().m_Percent;
  const auto at = [&](const SSample& from, const SSample& to) {
    const double seconds = std::chrono::duration<double>(to.m_Time - from.m_Time).count();
    return seconds * missing / (to.m_Percent - from.m_Percent);
  };
  double least = at(m_Samples[0], m_Samples[1]);
  double most = least;
  for (std::size_t i = 2; i < m_Samples.size(); ++i) {
    const double one = at(m_Samples[i - 1], m_Samples[i]);
    least = std::min(least, one);
    most = std::max(most, one);
  }
  const auto whole = [](double seconds) { return std::chrono::seconds(std::lround(seconds)); };
  return STimeLeft{whole(at(m_Samples.front(), m_Samples.back())), whole(least), whole(most)};
}

std::string TextOf(const std::optional<STimeLeft>& left) {
  if (!left) return "time left not known yet";
  return "about " + Duration(left->m_Likely) + " left (" + Duration(left->m_Least) + " to " +
         Duration(left->m_Most) + ")";
}

}  // namespace Host
