#include "host/Levels.h"

#include <algorithm>
#include <cctype>

#include "host/Error.h"
#include "host/Keys.h"

namespace Host {

namespace {

unsigned int ChoiceOf(const char* option, const std::vector<unsigned int>& offered, const std::string& word) {
  std::string known, hint;
  for (const unsigned int choice : offered) {
    if (WordOf(choice) == word) return choice;
    known += (known.empty() ? "" : ", ") + WordOf(choice);
    if (const std::string number = WordOf(choice);  // "64k", "64KiB"
        word.starts_with(number) && std::isalpha(static_cast<unsigned char>(word[number.size()])) != 0)
      hint = "; write " + std::string(option) + " " + number + ", the number of KiB alone";
  }
  throw CError(EXIT_USAGE, std::string(option) + ": " + word + " is none of " +
                               (known.empty() ? "nothing" : known) + hint +
                               "; 'rvxctl levels' tells what can be made");
}

}  // namespace

std::vector<PI::CLevel> OfferedLevels(const CTopology& topology) {
  for (const PI::COperation& operation : topology.Adapter().m_Operations)
    if (operation.m_Code == PI::OP_GET_RAID_LEVEL_INFORMATION) return operation.m_Levels;
  return {};
}

std::string WordOf(unsigned int choice) { return Keys::OfChoice(choice, PI::OBJ_LOGICAL_DRIVE); }

unsigned int LevelOf(const std::vector<PI::CLevel>& offered, const std::string& word) {
  std::vector<unsigned int> levels;
  for (const PI::CLevel& level : offered) levels.push_back(level.m_Level);
  return ChoiceOf("--level", levels, word);
}

unsigned int StripeOf(const std::vector<PI::CLevel>& offered, const std::string& word) {
  std::vector<unsigned int> stripes;
  for (const PI::CLevel& level : offered)
    for (const unsigned int stripe : level.m_StripeSizes)
      if (std::ranges::find(stripes, stripe) == stripes.end()) stripes.push_back(stripe);
  return ChoiceOf("--stripe", stripes, word);
}

}  // namespace Host
