#include "host/MdStat.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <sstream>

namespace Host {

namespace {

/// "active (auto-read-only) raid1 sdb[1](F) sda[0]"
void ParseHead(const std::string& text, SMdArray& array) {
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    const std::size_t bracket = word.find('[');
    if (word == "active" || word == "broken") {
      array.m_Active = true;
      array.m_Broken = word == "broken";
    } else if (word.starts_with("(")) {
      array.m_ReadOnly = word.substr(1, word.size() - 2);
    } else if (bracket != std::string::npos) {
      SMdMember member{word.substr(0, bracket), std::atoi(word.c_str() + bracket + 1)};
      // A faulty one may have been something else before; "(W)" tells how it is read alone.
      for (const char mark : {'F', 'S', 'J', 'R'})
        if (member.m_Mark == 0 && word.find({'(', mark, ')'}, bracket) != std::string::npos)
          member.m_Mark = mark;
      array.m_Members.push_back(member);
    } else if (array.m_Active) {
      array.m_Level = word;
    }
  }
}

/// "8380416 blocks super 1.0 [2/1] [U_]"
void ParseDetails(const std::string& line, SMdArray& array) {
  if (const std::size_t super = line.find(" super "); super != std::string::npos)
    std::istringstream(line.substr(super + 7)) >> array.m_Metadata;
  unsigned int slots = 0;
  unsigned int working = 0;
  for (std::size_t bracket = line.find('['); bracket != std::string::npos;
       bracket = line.find('[', bracket + 1))
    if (std::sscanf(line.c_str() + bracket, "[%u/%u]", &slots, &working) == 2) {
      array.m_Slots = slots;
      array.m_Working = working;
    }
}

/// "[=>...]  resync = 12.6% (...) finish=1.2min speed=34048K/sec" or "resync=DELAYED"
std::optional<SMdRun> ParseRun(const std::string& line) {
  for (const char* const action : {"resync", "recovery", "check", "reshape"}) {
    const std::size_t begin = line.find(action);
    if (begin == std::string::npos) continue;
    const std::size_t equals = line.find('=', begin);
    if (equals == std::string::npos) continue;
    const std::string value = line.substr(equals + 1);
    if (!value.empty() && std::isupper(static_cast<unsigned char>(value[0])) != 0)
      return SMdRun{action, value.substr(0, value.find_first_of(" \t"))};
    SMdRun run{action, {}, std::strtod(value.c_str(), nullptr)};
    if (const std::size_t finish = line.find("finish="); finish != std::string::npos)
      run.m_Minutes = std::strtod(line.c_str() + finish + 7, nullptr);
    if (const std::size_t speed = line.find("speed="); speed != std::string::npos)
      run.m_KiBPerSecond = std::strtoul(line.c_str() + speed + 6, nullptr, 10);
    return run;
  }
  return std::nullopt;
}

}  // namespace

std::vector<SMdArray> ParseMdStat(const std::string& mdstat) {
  std::vector<SMdArray> arrays;
  std::istringstream lines(mdstat);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t colon = line.find(" : ");
    if (line.starts_with("md") && colon != std::string::npos) {
      arrays.emplace_back().m_Name = line.substr(0, colon);
      ParseHead(line.substr(colon + 3), arrays.back());
    } else if (arrays.empty() || (!line.starts_with(" ") && !line.starts_with("\t"))) {
      continue;
    } else if (line.find(" blocks") != std::string::npos) {
      ParseDetails(line, arrays.back());
    } else if (const auto run = ParseRun(line)) {
      arrays.back().m_Run = run;
    }
  }
  return arrays;
}

const SMdArray* FindArray(const std::vector<SMdArray>& arrays, const std::string& name) {
  const auto found = std::ranges::find(arrays, name, &SMdArray::m_Name);
  return found == arrays.end() ? nullptr : &*found;
}

}  // namespace Host
