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
      {{"plugin", "show"}, "rvxctl.object", "RVX-Plugin"},
      {{"adapter", "show"}, "rvxctl.object", "Multiple Devices"},
      {{"disk", "list"}, "rvxctl.disks", "Ready (SSD)"},
      {{"disk", "show", "sda"}, "rvxctl.object", "64 MiB"},
      {{"array", "list"}, "rvxctl.arrays", "RAID 0 (striping)"},
      {{"array", "show", "md_d0"}, "rvxctl.object", "64 KiB"},
      {{"operations", "md_d2"}, "rvxctl.operations", "Delete the array"},
      {{"prop", "get", "sda"}, "rvxctl.properties", "Capacity"},
      {{"prop", "get", "plugin", "30005"}, "rvxctl.properties", "10 s"},
      {{"levels"}, "rvxctl.levels", "RAID 1 (mirror)"},
  };
  const CFolder folder;
  const SHow how{.m_Environment = {{"ZQ_CONFIG_DIR", folder.File("")}}};
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
    EXPECT_TRUE(document["schema"]["version"].is_number());
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
  const json& adapter = ObjectOf(topology, "adapter");
  EXPECT_EQ(adapter["id"], "0x0127000000000001");
  EXPECT_EQ(adapter["kind"], 19037);
  EXPECT_EQ(adapter["children"].size(), 10U);
  EXPECT_EQ(ObjectOf(topology, "plugin")["children"], json::array({adapter["id"]}));

  const json& array = ObjectOf(topology, "md_d0");
  EXPECT_EQ(array["children"],
            json::array({ObjectOf(topology, "sda")["id"], ObjectOf(topology, "sdb")["id"]}));
  EXPECT_EQ(array["busy"], false);
  EXPECT_TRUE(array["updateCounter"].is_number());
  const json& stripe = PropertyOf(array, 30046);
  EXPECT_EQ(stripe["type"], "choice");
  EXPECT_EQ(stripe["value"], 40053);
  EXPECT_EQ(stripe["text"], "64 KiB");
  EXPECT_EQ(stripe["choices"].size(), 6U);
  const json& size = PropertyOf(ObjectOf(topology, "sda"), 30059);
  EXPECT_EQ(size["value"], 64);
  EXPECT_EQ(size["unit"], "MiB");
  EXPECT_EQ(size["bytes"], 64 << 20);
  const json& wear = PropertyOf(ObjectOf(topology, "sdf"), 30494);
  EXPECT_TRUE(wear["value"].is_null() && wear["text"].is_null()) << wear;
  const json& interval = PropertyOf(ObjectOf(topology, "plugin"), 30005);
  EXPECT_EQ(interval["type"], "range");
  EXPECT_EQ(interval["minimum"], 2);
  EXPECT_EQ(interval["maximum"], 255);
  EXPECT_EQ(interval["step"], 1);
  EXPECT_EQ(PropertyOf(array, 30137)["type"], "text");
  EXPECT_EQ(array["operations"][0]["code"], 50054);
}

/// Calls `look(key, text)` for every text of a document that a person reads.
template <class TLook>
void ForTexts(const json& node, TLook look) {
  for (const auto& [key, value] : node.items()) {
    if (value.is_string() &&
        (key == "text" || key == "label" || key == "unit" || key == "kindText" || key == "why"))
      look(key, value.template get<std::string>());
    if (value.is_structured()) ForTexts(value, look);
  }
}

TEST(Show, NoNumberStandsWhereATextIs) {
  const std::regex catalogueNumber(R"((^|[^0-9x])[1-5]\d{4}$)");
  for (const char* machine : {"arrays", "recovering", "plain"})
    for (const char* command : {"topology", "levels"})
      ForTexts(Rvxctl({Simulate(machine), "--json", command}).Json(), [&](const std::string& key,
                                                                          const std::string& text) {
        EXPECT_FALSE(std::regex_search(text, catalogueNumber)) << machine << " " << key << ": " << text;
      });
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
  EXPECT_GT(numbers.size(), 130U);
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
  const CFolder folder;
  std::filesystem::create_symlink("/dev/null", folder.File("link"));
  for (const std::string& name : {std::string("sdc"), std::string("/dev/sdc"), disk["id"].get<std::string>(),
                                  PropertyOf(disk, 30137)["value"].get<std::string>()})
    EXPECT_EQ(Rvxctl({Simulate("plain"), "--json", "disk", "show", name}).Json()["data"]["id"], disk["id"])
        << name;
  EXPECT_EQ(Rvxctl({Simulate("plain"), "disk", "show", folder.File("link")}).m_Status, 3);
}

TEST(Show, SaysWhyThereIsNoDisk) {
  const SResult result = Rvxctl({Simulate("empty"), "topology"});
  EXPECT_EQ(result.m_Status, 0);
  EXPECT_THAT(result.m_Out, HasSubstr("ahci"));
  EXPECT_EQ(Rvxctl({Simulate("empty"), "--json", "disk", "list"}).Json()["data"], json::array());
}

TEST(Show, OperationsSayWhyNot) {
  const struct {
    const char* m_Machine;
    const char* m_Object;
    int m_Code;
    const char* m_Why;  ///< null: allowed
  } cases[] = {
      {"arrays", "md_d0", 50054, "md_d0 is RAID 0"},
      {"arrays", "md_d1", 50054, nullptr},
      {"arrays", "md_d2", 50054, "md_d2: In order"},
      {"arrays", "md_d2", 50050, nullptr},
      {"arrays", "sda", 50036, "belongs to md_d0"},
      {"arrays", "sdg", 50036, nullptr},
      {"arrays", "sdg", 50038, "\"Ready\""},
      {"recovering", "md_d0", 50050, "Rebuilding"},
      {"plain", "sda", 50036, "there is no array"},
      {"plain", "adapter", 50051, "there is no array"},
      {"recovering", "sdc", 50036, "md_d0: Rebuilding"},
  };
  for (const auto& [machine, object, code, why] : cases) {
    SCOPED_TRACE(std::string(machine) + " " + object + " " + std::to_string(code));
    const json operations = Rvxctl({Simulate(machine), "--json", "operations", object}).Json()["data"];
    const auto found =
        std::find_if(operations.begin(), operations.end(),
                     [code = code](const json& operation) { return operation["code"] == code; });
    ASSERT_NE(found, operations.end());
    EXPECT_EQ((*found)["allowed"], why == nullptr);
    if (why != nullptr) {
      EXPECT_THAT((*found)["why"].get<std::string>(), HasSubstr(why));
    }
  }
}

TEST(Show, TraceGoesToStandardError) {
  const SResult result = Rvxctl({Simulate("plain"), "--trace", "30", "--json", "status"});
  EXPECT_TRUE(result.Json().is_object()) << result.m_Out;
  EXPECT_THAT(result.m_Err, AllOf(HasSubstr("ENTER Initialize()"), HasSubstr("adapter count is 1")));
}

TEST(Show, ColoursAreForTerminalsThatWantThem) {
  const struct {
    Words m_Words;
    Environment m_Environment;
    bool m_Terminal;
    bool m_Colored;
  } cases[] = {
      {{"status"}, {{"NO_COLOR", ""}}, true, true},   {{"status"}, {{"NO_COLOR", "1"}}, true, false},
      {{"--no-color", "status"}, {}, true, false},    {{"--json", "status"}, {}, true, false},
      {{"status"}, {{"NO_COLOR", ""}}, false, false},
  };
  for (const auto& [words, environment, terminal, colored] : cases) {
    Words all = RvxctlWords({Simulate("arrays")});
    all.insert(all.end(), words.begin(), words.end());
    CProgram program(all, {.m_Environment = environment, .m_Terminal = terminal});
    EXPECT_EQ(program.Wait(), 0);
    EXPECT_EQ(program.Out().find('\033') != std::string::npos, colored)
        << words.front() << " " << program.Out();
  }
}

TEST(Show, OutputThatCannotBeWrittenIsAnError) {
  EXPECT_EQ(Rvxctl({Simulate("plain"), "topology"}, {.m_Output = "/dev/full"}).m_Status, 1);
  CProgram program(RvxctlWords({Simulate("plain"), "status", "--watch"}));
  ASSERT_TRUE(
      program.ReadUntil([](const std::string& out) { return !out.empty(); }, std::chrono::seconds(20)));
  program.CloseOutput();
  EXPECT_EQ(program.Wait(), 128 + 13);
  CProgram closed({"sh", "-c", "exec \"$0\" --simulate disk list <&- >&-", RVXCTL});
  EXPECT_EQ(closed.Wait(), 0) << closed.Err();
}

}  // namespace

}  // namespace rvxctl_test
