#pragma once
/// @file
/// What is wrong, as long as it is wrong: each condition with the time since when, and who has taken note of
/// it.

#include <chrono>
#include <map>
#include <mutex>
#include <string>

#include "host/Health.h"
#include "rvxd/Feed.h"
#include "rvxd/Members.h"
#include "rvxd/Operations.h"

namespace Rvxd {

/// A problem as it is told: "array-degraded:md_d0", of no array or disk.
/// @param since in milliseconds since 1970
Json ConditionOf(const Host::SProblem& problem, std::uint64_t since);

/// Whether a document from a file is one.
bool IsCondition(const Json& json);
/// By what it is known again though names of arrays and disks were given anew, at a start for one.
std::string IdentityOf(const Json& condition);
/// The same of what it is a part of.
std::string SubjectOf(const Json& condition);
/// "critical" or "warning".
Host::EHealth LevelOf(const Json& condition);
/// Whether more is lost than there was, or another disk: who knew of that does not know of this.
bool IsWorse(const Json& now, const Json& before);
/// Whether two are of the same thing: also where one was told before udev knew more than the kernel's name.
bool IsSame(const Json& one, const Json& other);

/// Kept over restarts, so that nobody is told twice. All functions may be called by any thread.
class CConditions {
 public:
  CConditions(const std::string& folder, CFeed& feed);

  /// Takes over what is wrong now; tells the streams what came and what went. `arrays` and
  /// `disks` are those of /v1/state.
  void Update(const Host::SHealth& health, const Json& arrays, const Json& disks);
  Json All() const;
  /// Takes note of it, and of all others with its subject. Throws CProblem when there is none of that
  /// identifier.
  Json Acknowledge(const std::string& id, const SPeer& peer);

 private:
  /// Without m_Mutex: who reads does not wait for the disk.
  void Keep() const;
  /// The array or disk that this is a part of what is wrong with, and the disks that it is about.
  void Place(Json& condition, const Json& arrays, const Json& disks) const;

  const std::string m_File;
  CFeed& m_Feed;
  CMembers m_Members;
  std::mutex m_Writing;  ///< of who changes them, to the end of telling and keeping; taken before m_Mutex
  mutable std::mutex m_Mutex;
  struct SGone {
    Json m_Condition;
    std::chrono::steady_clock::time_point m_At;
  };
  /// The condition as it was until now, or a moment ago; null when it is new.
  const Json* Before(const Json& condition) const;

  std::map<std::string, Json> m_Conditions;  ///< by identifier: "array-degraded:md_d0"
  std::map<std::string, SGone> m_Gone;       ///< by identifier: those that may come back, with their array
};

}  // namespace Rvxd
