#pragma once
/// @file
/// What a channel is to be told, and when: conditions that belong together are one matter, which is told
/// once, again when it gets worse or lasts, and once when it is over.

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/Health.h"

namespace Rvxd {

using Host::Json;
using Milliseconds = std::uint64_t;

enum class EPhase { BEGAN, WORSE, REMINDER, CLEARED, TEST };
/// "began", "worse", "reminder", "cleared", "test".
const char* WordOf(EPhase phase);

/// What a channel wants to be told.
struct SPolicy {
  Host::EHealth m_Severity{Host::EHealth::WARNING};  ///< the least
  std::vector<std::string> m_Conditions{};           ///< patterns of their kinds; none: all
  std::vector<std::string> m_Objects{};              ///< patterns of names; none: all
  Milliseconds m_Delay{2000};                        ///< how long it must last before it is told
  std::optional<Milliseconds> m_Reminder{86'400'000};
  std::optional<Milliseconds> m_Cleared{60'000};  ///< how long it must be over before that is told
};

/// What is to be told now.
struct SDue {
  EPhase m_Phase;
  std::string m_Subject;  ///< the array or disk, or rvxd itself
  Json m_Conditions;      ///< those that are so now; of CLEARED those that were
  Milliseconds m_Since;
  bool m_IsGone{false};    ///< of CLEARED: the array itself is not there any more
  std::string m_Matter{};  ///< for CTold
};

/// What is wrong now, as /v1/conditions lists it, and the UUIDs and names of the arrays that there are.
struct SPicture {
  Json m_Conditions;
  std::set<std::string> m_Arrays{};
  bool m_IsSeen{true};  ///< else nobody has looked yet: what is not among the conditions is not over for that
};

/// What one channel was told. Times are milliseconds since 1970; a clock that is set back makes nothing come
/// later than an hour and nothing twice within one.
class CTold {
 public:
  CTold() = default;
  /// What ToJson gave; anything else is nothing.
  explicit CTold(const Json& kept);
  Json ToJson() const;

  std::vector<SDue> Due(const SPicture& picture, const SPolicy& policy, Milliseconds now);
  void Delivered(const SDue& due, Milliseconds now);
  /// It will be tried again: three times soon, then after an hour. True: it was the last one of the soon.
  bool Failed(const SDue& due, Milliseconds now);

 private:
  struct STime {
    Milliseconds m_At;
    Host::EHealth m_Level;
    std::string m_Disks;  ///< that it was about: with others it is another failure
  };
  struct SMatter {
    std::map<std::string, Json> m_Told{};    ///< conditions by identity, as they were told
    std::map<std::string, STime> m_Times{};  ///< when each was told last, also behind its end
    Milliseconds m_Last{0};                  ///< message of it
    Milliseconds m_Over{0};                  ///< since when it is; 0: it is not
    Milliseconds m_Next{0};                  ///< no try before
    unsigned int m_Tries{0};                 ///< that failed
  };
  /// Takes over what was told as another matter: before udev knew the UUID, while the array was inactive, or
  /// while the disk was, or was not, one of its array's.
  void Gather(const Json& condition, const std::string& key);
  /// As it was told; null when it was not.
  static const Json* Told(const SMatter& matter, const Json& condition);
  static std::optional<SDue> DueOf(SMatter& matter, const Json& all, const std::set<std::string>& arrays,
                                   const SPolicy& policy, Milliseconds now);
  static std::optional<SDue> DueOfEnd(SMatter& matter, const Json& all, const std::set<std::string>& arrays,
                                      const SPolicy& policy, Milliseconds now);

  std::map<std::string, SMatter> m_Matters;  ///< by UUID, else subject
};

}  // namespace Rvxd
