/// @file
/// Every number that crosses the boundary has a word.

#include <gmock/gmock.h>

#include <fstream>
#include <functional>
#include <map>
#include <regex>
#include <set>

#include "PI/Numbers.h"
#include "host/Keys.h"
#include "tests/support/TemporaryFolder.h"

namespace {

using namespace Host;

/// The numbers of each enumeration, as the header declares them.
std::map<std::string, std::set<unsigned int>> DeclaredNumbers() {
  std::ifstream header(RVX_SOURCE_DIR "/framework/PI/Numbers.h");
  std::map<std::string, std::set<unsigned int>> all;
  std::string enumeration;
  for (std::string line; std::getline(header, line);) {
    std::smatch found;
    if (std::regex_search(line, found, std::regex("^enum (\\w+)")))
      enumeration = found[1];
    else if (std::regex_search(line, found, std::regex("\\b(\\d+)(,|$| +///)")))  // also on a line of its own
      all[enumeration].insert(static_cast<unsigned int>(std::stoul(found[1])));
  }
  return all;
}

TEST(Keys, EveryDeclaredNumberHasAWordAndNoneOfAKindHasTwoNumbers) {
  using Key = std::function<std::string(unsigned int, unsigned int)>;
  const auto ofAll = [](auto key) {
    return [key](unsigned int number, unsigned int) { return key(number); };
  };
  const std::tuple<const char*, Key, std::size_t> cases[] = {
      {"_OBJECT_KIND", ofAll(Keys::OfKind), 4},
      {"_PROPERTY_ID", Keys::OfProperty, 45},
      {"_CHOICE", Keys::OfChoice, 30},
      {"_EVENT_CODE", ofAll(Keys::OfEvent), 23},
      {"_OPERATION_CODE", ofAll(Keys::OfOperation), 15},
      {"_SEVERITY", ofAll(Keys::OfSeverity), 3}};
  auto declared = DeclaredNumbers();
  const std::string manual = ReadFile(RVX_SOURCE_DIR "/docs/json.md");
  for (const auto& [enumeration, key, atLeast] : cases) {
    std::set<unsigned int>& numbers = declared[enumeration];
    numbers.erase(PI::OBJ_NONE);
    numbers.erase(PI::PROP_ALL);
    EXPECT_GE(numbers.size(), atLeast) << enumeration << ": the header was not understood";
    std::set<unsigned int> wordless = numbers;
    for (const unsigned int kind :
         {PI::OBJ_PLUGIN, PI::OBJ_ADAPTER, PI::OBJ_LOGICAL_DRIVE, PI::OBJ_PHYSICAL_DRIVE}) {
      std::map<std::string, unsigned int> known;
      for (const unsigned int number : numbers) {
        const std::string word = key(number, kind);
        if (word == std::to_string(number)) continue;
        EXPECT_THAT(manual, testing::ContainsRegex("`" + word + "`[ |]*" + std::to_string(number)));
        EXPECT_TRUE(known.emplace(word, number).second) << word << ": " << number << ", " << known[word];
        wordless.erase(number);
      }
    }
    EXPECT_THAT(wordless, testing::IsEmpty()) << enumeration;
  }
  EXPECT_EQ(Keys::OfChoice(PI::STATUS_OK, PI::OBJ_LOGICAL_DRIVE), "in-order");
  EXPECT_EQ(Keys::OfChoice(PI::STATUS_OK, PI::OBJ_PHYSICAL_DRIVE), "in-use");
  EXPECT_EQ(Keys::OfProperty(PI::PROP_CAPACITY, PI::OBJ_LOGICAL_DRIVE), "spaceTaken");
  EXPECT_EQ(Keys::OfProperty(PI::PROP_CAPACITY, PI::OBJ_PHYSICAL_DRIVE), "capacity");
}

}  // namespace
