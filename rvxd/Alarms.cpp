#include "rvxd/Alarms.h"

#include <fnmatch.h>

#include <algorithm>
#include <array>

#include "host/Values.h"
#include "rvxd/Conditions.h"

namespace Rvxd {

namespace {

constexpr Milliseconds HOUR = 3'600'000;  ///< in which a condition is told once
/// What is not there may come at a start later than rvxd does.
constexpr Milliseconds GONE_DELAY = 300'000;
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

/// Throws Json::exception where it is another thing, one with a fraction or a sign too.
Milliseconds NumberIn(const Json& json) { return json.get_ref<const Json::number_unsigned_t&>(); }

/// The least in the place of one that there is not: then it is told again.
Host::EHealth LevelIn(const Json& json) {
  const Milliseconds number = NumberIn(json);
  return number > static_cast<Milliseconds>(Host::EHealth::CRITICAL) ? Host::EHealth::OK
                                                                     : static_cast<Host::EHealth>(number);
}

std::string DisksOf(const Json& condition) {
  std::vector<std::string> names;
  for (const Json& disk : condition["disks"]) names.push_back(disk[disk["id"].is_string() ? "id" : "name"]);
  std::ranges::sort(names);
  return Host::Joined(names);
}

bool Wants(const SPolicy& policy, const Json& condition) {
  return LevelOf(condition) >= policy.m_Severity && Matches(policy.m_Conditions, condition["kind"]) &&
         Matches(policy.m_Objects, condition["object"]);
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
      for (const auto& [id, time] : one.at("times").items())
        matter.m_Times[id] = {NumberIn(time.at(0)), LevelIn(time.at(1)), time.at(2)};
      matter.m_Last = NumberIn(one.at("last"));
      matter.m_Over = NumberIn(one.at("over"));
      matter.m_Next = NumberIn(one.at("next"));
      matter.m_Tries = static_cast<unsigned int>(NumberIn(one.at("tries")));
      std::erase_if(matter.m_Told, [](const auto& told) { return !IsCondition(told.second); });
    }
  } catch (const Json::exception&) {  // somebody has written into it: told again is better than not at all
    m_Matters.clear();
  }
}

Json CTold::ToJson() const {
  Json all = Json::object();
  for (const auto& [key, matter] : m_Matters) {
    Json times = Json::object();
    for (const auto& [id, time] : matter.m_Times)
      times[id] = {time.m_At, static_cast<int>(time.m_Level), time.m_Disks};
    all[key] = {{"told", matter.m_Told}, {"times", times},        {"last", matter.m_Last},
                {"over", matter.m_Over}, {"next", matter.m_Next}, {"tries", matter.m_Tries}};
  }
  return all;
}

std::vector<SDue> CTold::Due(const SPicture& picture, const SPolicy& policy, Milliseconds now) {
  std::map<std::string, Json> matters;
  if (picture.m_IsSeen)
    for (const auto& [key, matter] : m_Matters) matters[key] = Json::array();
  std::map<std::string, std::string> keys;  // by name: of one subject, some conditions may lack the UUID
  for (const Json& condition : picture.m_Conditions)
    if (const std::string name = condition["subject"]; condition["uuid"].is_string() || !keys.contains(name))
      keys[name] = SubjectOf(condition);
  for (const Json& condition : picture.m_Conditions) {
    const std::string key = condition["uuid"].is_string() ? SubjectOf(condition) : keys[condition["subject"]];
    Gather(condition, key);
    Json& all = matters[key];
    if (all.is_null()) all = Json::array();
    all.push_back(condition);
  }
  std::vector<SDue> due;
  for (const auto& [key, all] : matters) {
    SMatter& matter = m_Matters[key];
    if (auto one = DueOf(matter, all, picture.m_Arrays, policy, now)) {
      one->m_Matter = key;
      due.push_back(std::move(*one));
    }
    std::erase_if(matter.m_Times, [&](const auto& one) {
      return !matter.m_Told.contains(one.first) && !IsWithin(one.second.m_At, now, HOUR);
    });
    if (matter.m_Told.empty() && matter.m_Times.empty() && matter.m_Tries == 0 && now >= matter.m_Next)
      m_Matters.erase(key);
  }
  return due;
}

void CTold::Gather(const Json& condition, const std::string& key) {
  SMatter& matter = m_Matters[key];
  for (auto& [other, from] : m_Matters) {
    if (other == key) continue;
    for (auto told = from.m_Told.begin(); told != from.m_Told.end();) {
      if (other != condition["subject"] && !IsSame(told->second, condition)) {
        ++told;
        continue;
      }
      Json& known = told->second;
      for (const char* const field : {"subject", "uuid"}) known[field] = condition[field];
      if (auto time = from.m_Times.extract(told->first)) {
        time.key() = IdentityOf(known);
        matter.m_Times.insert(std::move(time));
      }
      matter.m_Told.try_emplace(IdentityOf(known), known);
      matter.m_Last = std::max(matter.m_Last, from.m_Last);
      told = from.m_Told.erase(told);
    }
  }
}

const Json* CTold::Told(const SMatter& matter, const Json& condition) {
  for (const auto& [id, told] : matter.m_Told)
    if (IsSame(told, condition)) return &told;
  return nullptr;
}

std::optional<SDue> CTold::DueOfEnd(SMatter& matter, const Json& all, const std::set<std::string>& arrays,
                                    const SPolicy& policy, Milliseconds now) {
  if (matter.m_Told.empty()) {
    matter.m_Tries = 0;
    matter.m_Next = 0;
    return std::nullopt;
  }
  Json were = Json::array();
  bool isGone = false, goesOn = false;
  for (const auto& [id, condition] : matter.m_Told) {
    const auto isIt = [&condition = condition](const Json& one) { return IsSame(one, condition); };
    if (std::ranges::any_of(all, isIt)) {
      // What the channel was told for, if less bad than it wants to know, is no end.
      goesOn = goesOn || Wants(policy, condition);
      continue;
    }
    were.push_back(condition);
    isGone = isGone || (condition["kind"].get_ref<const std::string&>().starts_with("array-") &&
                        !arrays.contains(SubjectOf(condition)));
  }
  if (goesOn || were.empty()) {
    matter.m_Over = 0;
    return std::nullopt;
  }
  if (matter.m_Over == 0 || matter.m_Over > now) matter.m_Over = now;
  const Milliseconds delay = policy.m_Cleared.value_or(GONE_DELAY);
  if (now < matter.m_Next || IsWithin(matter.m_Over, now, isGone ? std::max(delay, GONE_DELAY) : delay))
    return std::nullopt;
  if (!policy.m_Cleared) {
    matter.m_Told.clear();
    return std::nullopt;
  }
  return SDue{EPhase::CLEARED, were.front()["subject"], were, SinceOf(were), isGone};
}

std::optional<SDue> CTold::DueOf(SMatter& matter, const Json& all, const std::set<std::string>& arrays,
                                 const SPolicy& policy, Milliseconds now) {
  if (matter.m_Next > now + HOUR) matter.m_Next = now;
  if (matter.m_Last > now) matter.m_Last = now;
  // What a matter consists of is told whole; what is wanted decides whether it is.
  Json fresh = Json::array();
  bool isWanted = false, isNoted = true, isNew = matter.m_Told.empty(), isRepaired = false;
  for (const Json& condition : all) {
    // The repair of what was told is no news, needs nobody's hand, and is not the end either.
    const bool isRepair = condition["kind"] == "array-rebuilding";
    isRepaired = isRepaired || isRepair;
    if (!Wants(policy, condition)) continue;
    isWanted = true;
    isNoted = isNoted && (isRepair || !condition["acknowledged"].is_null());
    const Json* const told = Told(matter, condition);
    // One that was over in between is another one.
    if (told != nullptr && (*told)["since"] == condition["since"] && !IsWorse(condition, *told)) continue;
    fresh.push_back(condition);
    isNew = isNew || !isRepair;
  }
  if (!isWanted && !isRepaired) return DueOfEnd(matter, all, arrays, policy, now);
  matter.m_Over = 0;
  if (!isWanted || now < matter.m_Next) return std::nullopt;
  if (isNew && !fresh.empty()) {
    const auto isYoung = [&](const Json& condition) {
      return IsWithin(Host::MillisecondsOf(condition["since"]), now, policy.m_Delay);
    };
    const auto wasToldNow = [&](const Json& condition) {
      const Json* const told = Told(matter, condition);
      const auto time = matter.m_Times.find(IdentityOf(condition));
      // One that was told and has grown worse since is told at once.
      return time != matter.m_Times.end() && IsWithin(time->second.m_At, now, HOUR) &&
             LevelOf(condition) <= time->second.m_Level && DisksOf(condition) == time->second.m_Disks &&
             (told == nullptr || !IsWorse(condition, *told));
    };
    if (std::ranges::any_of(fresh, isYoung) || std::ranges::all_of(fresh, wasToldNow)) return std::nullopt;
    return SDue{matter.m_Told.empty() ? EPhase::BEGAN : EPhase::WORSE, all.front()["subject"], all,
                SinceOf(all)};
  }
  if (matter.m_Told.empty() || !policy.m_Reminder || isNoted ||
      IsWithin(matter.m_Last, now, *policy.m_Reminder))
    return std::nullopt;
  return SDue{EPhase::REMINDER, all.front()["subject"], all, SinceOf(all)};
}

void CTold::Delivered(const SDue& due, Milliseconds now) {
  SMatter& matter = m_Matters[due.m_Matter];
  if (due.m_Phase == EPhase::CLEARED)
    matter.m_Told.clear();
  else
    for (const Json& condition : due.m_Conditions) {
      std::erase_if(matter.m_Told, [&](const auto& told) { return IsSame(told.second, condition); });
      matter.m_Told[IdentityOf(condition)] = condition;
      matter.m_Times[IdentityOf(condition)] = {now, LevelOf(condition), DisksOf(condition)};
    }
  matter.m_Last = now;
  matter.m_Next = 0;
  matter.m_Tries = 0;
}

bool CTold::Failed(const SDue& due, Milliseconds now) {
  SMatter& matter = m_Matters[due.m_Matter];
  const bool isLast = matter.m_Tries >= RETRIES.size();
  matter.m_Next = now + (isLast ? HOUR : RETRIES.at(matter.m_Tries));
  matter.m_Tries = isLast ? 0 : matter.m_Tries + 1;
  return isLast;
}

}  // namespace Rvxd
