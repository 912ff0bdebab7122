#pragma once
/// @file
/// What is wrong, as long as it is wrong: each condition with the time since when, and who has taken note of
/// it.

#include <map>
#include <mutex>
#include <string>

#include "host/Health.h"
#include "rvxd/Feed.h"
#include "rvxd/Operations.h"

namespace Rvxd {

/// A problem as it is told: "array-degraded:md_d0".
/// @param since in milliseconds since 1970
Json ConditionOf(const Host::SProblem& problem, std::uint64_t since);

/// Kept over restarts, so that nobody is told twice. All functions may be called by any thread.
class CConditions {
 public:
  CConditions(const std::string& folder, CFeed& feed);

  /// Takes over what is wrong now; tells the streams what came and what went. `own` are those of rvxd itself,
  /// as problems too.
  void Update(const Host::SHealth& health, const std::vector<Host::SProblem>& own);
  Json All() const;
  /// Throws CProblem when there is none of that identifier.
  Json Acknowledge(const std::string& id, const SPeer& peer);

 private:
  void Keep() const;

  const std::string m_File;
  CFeed& m_Feed;
  mutable std::mutex m_Mutex;
  std::map<std::string, Json> m_Conditions;  ///< by identifier: "array-degraded:md_d0"
};

}  // namespace Rvxd
