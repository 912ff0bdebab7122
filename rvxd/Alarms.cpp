#include "rvxd/Alarms.h"

#include <fnmatch.h>

#include <algorithm>
#include <array>

#include "host/Values.h"
#include "rvxd/Conditions.h"

namespace Rvxd {

namespace {

constexpr Milliseconds HOUR = 3'600'000;  ///< in which a condition is told once
constexpr std::array<Milliseconds, 3> RETRIES{10'000, 60'000, 300'000};

/// Whether it was less than the span ago. What lies in the future was never.
bool IsWithin(Milliseconds then, Milliseconds now, Milliseconds span) {
  return then <= now && now - then < span;
}

bool Matches(const std::vector<std::string>& patterns, const std::string& text) {
  return patterns.empty() || std::ranges::any_of(patterns, [&](const std::string& pattern) {
           return ::fnmatch(pattern.c_str(), text.c_str(), 0) == 0;
         });
}

Host::EHealth LevelOf(const Json& condition) {
  return condition["level"] == Host::WordOf(Host::EHealth::CRITICAL) ? Host::EHealth::CRITICAL
                                                                     : Host::EHealth::WARNING;
}

Milliseconds SinceOf(const Json& conditions) {
  Milliseconds since = ~Milliseconds{0};
  for (const Json& condition : conditions) since = std::min(since, Host::MillisecondsOf(condition["since"]));
  return since;
}

}  // namespace

const char* WordOf(EPhase phase) {
  constexpr const char* WORDS[] = {"began", "worse", "reminder", "cleared", "test"};
  return WORDS[static_cast<std::size_t>(phase)];
}

CTold::CTold(const Json& kept) {
  try {
    for (const auto& [subject, one] : kept.items()) {
      SMatter& matter = m_Matters[subject];
      one.at("told").get_to(matter.m_Told);
      one.at("times").get_to(matter.m_Times);
      one.at("last").get_to(matter.m_Last);
      one.at("over").get_to(matter.m_Over);
      one.at("next").get_to(matter.m_Next);
      one.at("tries").get_to(matter.m_Tries);
      std::erase_if(matter.m_Told, [](const auto& told) { return !IsCondition(told.second); });
    }
  } catch (const Json::exception&) {  // somebody has written into it: told again is better than not at all
    m_Matters.clear();
  }
}

Json CTold::ToJson() const {
  Json all = Json::object();
  for (const auto& [subject, matter] : m_Matters)
    all[subject] = {{"told", matter.m_Told}, {"times", matter.m_Times}, {"last", matter.m_Last},
                    {"over", matter.m_Over}, {"next", matter.m_Next},   {"tries", matter.m_Tries}};
  return all;
}

std::vector<SDue> CTold::Due(const Json& conditions, const SPolicy& policy, Milliseconds now) {
  std::map<std::string, Json> subjects;
  for (const auto& [subject, matter] : m_Matters) subjects[subject] = Json::array();
  for (const Json& condition : conditions) {
    Json& all = subjects[condition["subject"]];
    if (all.is_null()) all = Json::array();
    all.push_back(condition);
  }
  std::vector<SDue> due;
  for (const auto& [subject, all] : subjects) {
    SMatter& matter = m_Matters[subject];
    if (auto one = DueOf(subject, matter, all, policy, now)) due.push_back(std::move(*one));
    std::erase_if(matter.m_Times, [&](const auto& one) {
      return !matter.m_Told.contains(one.first) && !IsWithin(one.second, now, HOUR);
    });
    if (matter.m_Told.empty() && matter.m_Times.empty() && matter.m_Tries == 0 && now >= matter.m_Next)
      m_Matters.erase(subject);
  }
  return due;
}

std::optional<SDue> CTold::DueOf(const std::string& subject, SMatter& matter, const Json& all,
                                 const SPolicy& policy, Milliseconds now) const {
  if (matter.m_Next > now + HOUR) matter.m_Next = now;
  if (matter.m_Last > now) matter.m_Last = now;
  if (all.empty()) {
    if (matter.m_Told.empty()) {
      matter.m_Tries = 0;
      matter.m_Next = 0;
      return std::nullopt;
    }
    if (matter.m_Over == 0 || matter.m_Over > now) matter.m_Over = now;
    if (!policy.m_Cleared) matter.m_Told.clear();
    if (matter.m_Told.empty() || now < matter.m_Next || IsWithin(matter.m_Over, now, *policy.m_Cleared))
      return std::nullopt;
    Json were = Json::array();
    for (const auto& [id, condition] : matter.m_Told) were.push_back(condition);
    return SDue{EPhase::CLEARED, subject, were, SinceOf(were)};
  }
  matter.m_Over = 0;
  // What a matter consists of is told whole; what is wanted decides whether it is.
  Json fresh = Json::array();
  bool isWanted = false, isNoted = true, isNew = matter.m_Told.empty();
  for (const Json& condition : all) {
    if (LevelOf(condition) < policy.m_Severity || !Matches(policy.m_Conditions, condition["kind"]) ||
        !Matches(policy.m_Objects, condition["object"]))
      continue;
    isWanted = true;
    // The repair of what was told is no news, and needs nobody's hand.
    const bool isRepair = condition["kind"] == "array-rebuilding";
    isNoted = isNoted && (isRepair || !condition["acknowledged"].is_null());
    const auto told = matter.m_Told.find(condition["id"]);
    if (told != matter.m_Told.end() && LevelOf(told->second) >= LevelOf(condition)) continue;
    fresh.push_back(condition);
    isNew = isNew || !isRepair;
  }
  if (!isWanted || now < matter.m_Next) return std::nullopt;
  if (isNew && !fresh.empty()) {
    const auto isYoung = [&](const Json& condition) {
      return IsWithin(Host::MillisecondsOf(condition["since"]), now, policy.m_Delay);
    };
    const auto wasToldNow = [&](const Json& condition) {
      const auto time = matter.m_Times.find(condition["id"]);
      // One that was told and has grown worse since is told at once.
      return !matter.m_Told.contains(condition["id"]) && time != matter.m_Times.end() &&
             IsWithin(time->second, now, HOUR);
    };
    if (std::ranges::any_of(fresh, isYoung) || std::ranges::all_of(fresh, wasToldNow)) return std::nullopt;
    return SDue{matter.m_Told.empty() ? EPhase::BEGAN : EPhase::WORSE, subject, all, SinceOf(all)};
  }
  if (matter.m_Told.empty() || !policy.m_Reminder || isNoted ||
      IsWithin(matter.m_Last, now, *policy.m_Reminder))
    return std::nullopt;
  return SDue{EPhase::REMINDER, subject, all, SinceOf(all)};
}

void CTold::Delivered(const SDue& due, Milliseconds now) {
  SMatter& matter = m_Matters[due.m_Subject];
  if (due.m_Phase == EPhase::CLEARED)
    matter.m_Told.clear();
  else
    for (const Json& condition : due.m_Conditions) {
      matter.m_Told[condition["id"]] = condition;
      matter.m_Times[condition["id"]] = now;
    }
  matter.m_Last = now;
  matter.m_Next = 0;
  matter.m_Tries = 0;
}

bool CTold::Failed(const SDue& due, Milliseconds now) {
  SMatter& matter = m_Matters[due.m_Subject];
  const bool isLast = matter.m_Tries >= RETRIES.size();
  matter.m_Next = now + (isLast ? HOUR : RETRIES.at(matter.m_Tries));
  matter.m_Tries = isLast ? 0 : matter.m_Tries + 1;
  return isLast;
}

}  // namespace Rvxd
