#include <chrono>
#include <ctime>

#include "KVTX/System.h"

namespace KVTX {

std::uint64_t CSystemTime_Lx::Now() {
  const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch).count());
}

CDate CSystemTime_Lx::GetDate(std::uint64_t milliseconds) {
  const auto seconds = static_cast<time_t>(milliseconds / 1000);
  std::tm date{};
  if (localtime_r(&seconds, &date) == nullptr) return {};
  return {date.tm_year + 1900, date.tm_mon + 1, date.tm_mday, date.tm_wday,
          date.tm_yday + 1,    date.tm_hour,    date.tm_min,  date.tm_sec};
}

}  // namespace KVTX
