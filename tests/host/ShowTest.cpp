/// @file
/// What rvxctl shows, to people and to scripts.

#include <gmock/gmock.h>

#include <regex>
#include <set>

#include "Program.h"

namespace rvxctl_test {

namespace {

using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

TEST(Show, EveryCommandGivesOneDocumentAndATable) {
  const struct {
    Words m_Words;
    const char* m_Schema;
    const char* m_InTable;
  } cases[] = {
      {{"topology"}, "rvxctl.topology", "Array md_d1"},
      {{"status"}, "rvxctl.status", "Degraded"},
      {{"adapter", "show"}, "rvxctl.object", "Multiple Devices"},
      {{"disk", "list"}, "rvxctl.disks", "Ready (SSD)"},
      {{"disk", "show", "sda"}, "rvxctl.object", "64 MiB"},
      {{"array", "list"}, "rvxctl.arrays", "RAID 0 (striping)"},
      {{"operations", "md_d2"}, "rvxctl.operations", "Delete the array"},
      {{"prop", "get", "sda"}, "rvxctl.properties", "Capacity"},
      {{"prop", "get", "plugin", "30005"}, "rvxctl.properties", "10 s"},
      {{"levels"}, "rvxctl.levels", "RAID 1 (mirror)"},
  };
  const CTemporaryFolder folder;
  const SHow how{.m_Environment = {{"ZQ_CONFIG_DIR", folder.Path()}}};
  for (const auto& [words, schema, inTable] : cases) {
    SCOPED_TRACE(words.front());
    Words all{Simulate("arrays")};
    all.insert(all.end(), words.begin(), words.end());
    const SResult table = Rvxctl(all, how);
    EXPECT_EQ(table.m_Status, 0) << table.m_Err;
    EXPECT_THAT(table.m_Out, HasSubstr(inTable));
    EXPECT_THAT(table.m_Out, Not(HasSubstr("Initialize:"))) << "the plug-in's own line";
    all.push_back("--json");
    const json document = Rvxctl(all, how).Json();
    ASSERT_TRUE(document.is_object());
    EXPECT_EQ(document["schema"]["name"], schema);
    EXPECT_FALSE(document["data"].is_null());
    EXPECT_EQ(document["errors"], json::array());
  }
}

const json& ObjectOf(const json& topology, const std::string& name) {
  for (const json& object : topology["data"]["objects"])
    if (object["name"] == name) return object;
  throw std::runtime_error("no object " + name);
}

const json& PropertyOf(const json& object, int id) {
  for (const json& property : object["properties"])
    if (property["id"] == id) return property;
  throw std::runtime_error("no property " + std::to_string(id));
}

TEST(Show, TopologyTellsWhatScriptsNeed) {
  const json topology = Rvxctl({Simulate("arrays"), "--json", "topology"}).Json();
  const json& array = ObjectOf(topology, "md_d0");
  EXPECT_EQ(array["children"],
            json::array({ObjectOf(topology, "sda")["id"], ObjectOf(topology, "sdb")["id"]}));
  EXPECT_EQ(array["operations"][0]["code"], 50054);
  EXPECT_EQ(PropertyOf(array, 30046)["text"], "64 KiB");
  EXPECT_EQ(PropertyOf(array, 30046)["choices"].size(), 6U);
  EXPECT_EQ(PropertyOf(ObjectOf(topology, "sda"), 30059)["bytes"], 64 << 20);
  const json& wear = PropertyOf(ObjectOf(topology, "sdf"), 30494);
  EXPECT_TRUE(wear["value"].is_null() && wear["text"].is_null()) << wear;
  EXPECT_EQ(PropertyOf(ObjectOf(topology, "sdg"), 30490)["bytes"], 3UL << 30);
  const json& written = PropertyOf(ObjectOf(topology, "sdf"), 30490);
  EXPECT_TRUE(written["bytes"].is_null() && written["value"] == 8388608.0) << "2^63 bytes: " << written;
  EXPECT_EQ(PropertyOf(ObjectOf(topology, "plugin"), 30005)["maximum"], 255);
}

std::set<std::string> Matches(const std::string& text, const std::regex& form) {
  std::set<std::string> found;
  for (std::sregex_iterator match(text.begin(), text.end(), form), end; match != end; ++match)
    found.insert((*match)[1]);
  return found;
}

TEST(Catalogue, HasATextForEveryNumber) {
  const std::string root = RVX_SOURCE_DIR;
  const auto texts = Matches(ReadFile(root + "/catalog/piRVX.nls"), std::regex(R"((?:^|\n)(\d+) = \S)"));
  auto numbers =
      Matches(ReadFile(root + "/framework/PI/Numbers.h"), std::regex(R"(\b[A-Z_0-9]+ = ([1-5]\d{4})\b)"));
  // Labels, confirmations and texts of states stand in the tables of the plug-in.
  for (const auto& entry : std::filesystem::directory_iterator(root + "/Src")) {
    if (entry.path().extension() != ".cpp") continue;
    const std::regex comment("//[^\n]*");
    numbers.merge(
        Matches(std::regex_replace(ReadFile(entry.path()), comment, ""), std::regex(R"(\b(2[0-4]\d{3})\b)")));
  }
  EXPECT_GT(numbers.size(), 190U);
  numbers.erase("22006");  // where the confirmations that are warnings begin
  numbers.erase("24999");  // a time in ms
  for (const std::string& number : numbers) EXPECT_TRUE(texts.contains(number)) << number;
}

TEST(Show, ObjectsAreFoundByAllTheirNames) {
  const json topology = Rvxctl({Simulate("plain"), "--json", "topology"}).Json();
  const json& disk = ObjectOf(topology, "sdc");
  for (const std::string& name : {std::string("sdc"), std::string("/dev/sdc"), disk["id"].get<std::string>(),
                                  PropertyOf(disk, 30137)["value"].get<std::string>()})
    EXPECT_EQ(Rvxctl({Simulate("plain"), "--json", "disk", "show", name}).Json()["data"]["id"], disk["id"])
        << name;
  EXPECT_THAT(Rvxctl({Simulate("empty"), "topology"}).m_Out, HasSubstr("ahci")) << "why there is no disk";
}

TEST(Show, TraceGoesToStandardError) {
  const SResult result = Rvxctl({Simulate("plain"), "--trace", "30", "--json", "status"});
  EXPECT_TRUE(result.Json().is_object()) << result.m_Out;
  EXPECT_THAT(result.m_Err, AllOf(HasSubstr("ENTER Initialize()"), HasSubstr("adapter count is 1")));
}

TEST(Show, ColoursAreForTerminalsThatWantThem) {
  const std::tuple<const char*, const char*, bool, bool> cases[] = {{"--trace=0", "", true, true},
                                                                    {"--trace=0", "1", true, false},
                                                                    {"--no-color", "", true, false},
                                                                    {"--json", "", true, false},
                                                                    {"--trace=0", "", false, false}};
  for (const auto& [option, noColor, terminal, colored] : cases) {
    CProgram program(RvxctlWords({Simulate("arrays"), option, "status"}),
                     {.m_Environment = {{"NO_COLOR", noColor}}, .m_Terminal = terminal});
    EXPECT_EQ(program.Wait(), 0);
    EXPECT_EQ(program.Out().find('\033') != std::string::npos, colored) << option << " " << program.Out();
  }
}

TEST(Show, OutputThatCannotBeWrittenIsAnError) {
  EXPECT_EQ(Rvxctl({Simulate("plain"), "topology"}, {.m_Output = "/dev/full"}).m_Status, 1);
  CProgram program(RvxctlWords({Simulate("plain"), "status", "--watch"}));
  ASSERT_TRUE(program.ReadUntil("sda"));
  program.CloseOutput();
  EXPECT_EQ(program.Wait(), 128 + 13);
  CProgram closed({"sh", "-c", "exec \"$0\" --simulate disk list <&- >&-", RVXCTL});
  EXPECT_EQ(closed.Wait(), 0) << closed.Err();
}

}  // namespace

}  // namespace rvxctl_test
