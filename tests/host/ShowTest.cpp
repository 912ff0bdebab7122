/// @file
/// What rvxctl shows, to people and to scripts.

#include <gmock/gmock.h>

#include "Program.h"

namespace {

using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

TEST(Show, EveryCommandGivesOneDocumentAndATable) {
  const std::tuple<Words, const char*, const char*> cases[] = {
      {{"topology"}, "rvxctl.topology", "Array md_d1"},
      {{"status"}, "rvxctl.status", "Degraded"},
      {{"adapter", "show"}, "rvxctl.object", "Multiple Devices"},
      {{"disk", "list"}, "rvxctl.disks", "Ready (SSD)"},
      {{"disk", "show", "sda"}, "rvxctl.object", "64 MiB"},
      {{"array", "list"}, "rvxctl.arrays", "1/2      sdc"},
      {{"operations", "md_d2"}, "rvxctl.operations", "Delete the array"},
      {{"operations", "sda"}, "rvxctl.operations", "Put a missing disk back into its array"},
      {{"prop", "get", "sda"}, "rvxctl.properties", "Capacity"},
      {{"prop", "get", "plugin", "30005"}, "rvxctl.properties", "10 s"},
      {{"levels"}, "rvxctl.levels", "RAID 1 (mirror)"},
  };
  for (const auto& [words, schema, inTable] : cases) {
    SCOPED_TRACE(words.front());
    Words all{Simulate("arrays"), "--trace=30"};
    all.insert(all.end(), words.begin(), words.end());
    const SResult table = Rvxctl(all);
    EXPECT_EQ(table.m_Status, 0) << table.m_Err;
    EXPECT_THAT(table.m_Out, HasSubstr(inTable));
    EXPECT_THAT(table.m_Out, Not(HasSubstr("Initialize"))) << "no trace, nor the plug-in's own line";
    EXPECT_THAT(table.m_Err, AllOf(HasSubstr("ENTER Initialize()"), HasSubstr("adapter count is 1")));
    all.push_back("--json");
    const json document = Rvxctl(all).Json();
    EXPECT_EQ(document["schema"]["name"], schema);
    EXPECT_FALSE(document["data"].is_null());
    EXPECT_EQ(document["errors"], json::array());
  }
}

TEST(Show, CheckIsALineAndAStatusForMonitoring) {
  const std::tuple<const char*, const char*, int, const char*> cases[] = {
      {"plain", "50", 0, "RAID OK - all in order | arrays=0;;;0 "},
      {"arrays", "95", 2,
       "RAID CRITICAL - 1 array degraded; md_d1: 1 of 2 members works | arrays=3;;;0 arrays_degraded=1"},
      {"rules", "95", 2,
       "RAID CRITICAL - 1 array degraded, 2 disks failed; md_d2: 1 of 2 members works; failed: sdi; "},
      {"recovering", "95", 1,
       "RAID WARNING - 1 array rebuilding; md_d0: 1 of 2 members works; Rebuilding 0%"},
      {"worn", "95", 0, "RAID OK - "},
      {"worn", "50", 1, "RAID WARNING - 1 disk wearing out; sda: 60% of its life is used"},
      {"lost", "95", 2,
       "RAID CRITICAL - 1 array failed, 2 arrays degraded; md_d0: 1 of 2 members works; offline: sdb; md127: "
       "1 of 2 "
       "members works; md_d3: 1 of 2 members works; missing: sdf | arrays=3;;;0 arrays_degraded=2"},
      {"empty", "95", 3, "RAID UNKNOWN - no disk on a supported controller | "},
      {"nowhere", "95", 3, "nowhere.json: No such file or directory"}};
  for (const auto& [machine, limit, status, line] : cases) {
    const SResult result = Rvxctl({Simulate(machine), "check", "--warn-smart", limit});
    EXPECT_EQ(result.m_Status, status) << machine;
    EXPECT_THAT(result.m_Out, HasSubstr(line));
    EXPECT_EQ(std::ranges::count(result.m_Out, '\n'), 1) << machine;
  }
  EXPECT_EQ(Rvxctl({"check", "--bogus"}).m_Status, 3) << "2 is critical";
  const json figures = Rvxctl({Simulate("arrays"), "check", "--json"}).Json()["data"]["figures"];
  EXPECT_EQ(figures["arrays_degraded"], 1);
  EXPECT_EQ(figures["disks"], 7);
  EXPECT_THAT(Rvxctl({Simulate("lost"), "status"}).m_Out,
              HasSubstr("'mdadm --manage /dev/md127 --add DISK'"));
  const SResult only = Rvxctl({Simulate("rules"), "status", "--only-problems"});
  EXPECT_THAT(only.m_Out, AllOf(HasSubstr("'rvxctl spare release sdi', replace the disk"),
                                HasSubstr("\nsdm "), Not(HasSubstr("\nsda "))));
}

const json& Find(const json& list, const char* key, const json& value) {
  for (const json& one : list)
    if (one[key] == value) return one;
  throw std::runtime_error("there is none with " + value.dump());
}
const json& ObjectOf(const json& topology, const char* name) {
  return Find(topology["data"]["objects"], "name", name);
}
const json& PropertyOf(const json& object, int id) { return Find(object["properties"], "id", id); }

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

TEST(Show, ProgramsGetWordsAndFields) {
  const json status = Rvxctl({"--simulate", "--json", "status"}).Json()["data"];
  const json& array = Find(status["arrays"], "name", "md_d1");
  for (const auto& [key, value] : {std::pair<const char*, json>{"level", "raid1"},
                                   {"status", "in-order"},
                                   {"statusNumber", 40093},
                                   {"activity", "resyncing"},
                                   {"membersWanted", 2}})
    EXPECT_EQ(array[key], value) << key;
  EXPECT_EQ(Find(array["members"], "name", "sde")["role"], "spare");
  const json& disk = Find(status["disks"], "name", "sdc");
  EXPECT_EQ(disk["status"], "in-use") << "the number of an array in order";
  EXPECT_EQ(disk["array"], "md_d1");
  EXPECT_EQ(disk["serial"], "DEMO0003");
  const json slow = Rvxctl({Simulate("recovering"), "--json", "status"}).Json()["data"]["arrays"][0];
  EXPECT_EQ(slow["progress"], 0);
  EXPECT_EQ(slow["timeRemaining"], "01:40:00");
  EXPECT_EQ(slow["estimateBasis"], "assumed") << "a minute for each percent";
}

TEST(Show, EachLookOfAStreamIsALine) {
  CProgram program(RvxctlWords({Simulate("arrays"), "--json", "status", "--watch"}));
  EXPECT_TRUE(program.ReadUntil("\"sequence\":1,\"type\":\"status\"")) << program.Out();
  EXPECT_THAT(program.Out(),
              testing::StartsWith(R"({"schema":{"name":"rvxctl.stream","version":2},"sequence":0,)"));
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

TEST(Show, ColoursAreForTerminalsThatWantThem) {
  // Colours go by what a state is, whatever its text.
  const testing::Matcher<std::string> plain = testing::Not(HasSubstr("\033"));
  const std::tuple<const char*, const char*, bool, testing::Matcher<std::string>> cases[] = {
      {"--trace=0", "NO_COLOR=", true, HasSubstr("\033[33mDegraded")},
      {"--trace=0", "ZQ_CATALOG_DIR=/nowhere", true, HasSubstr("\033[33m40094")},
      {"--trace=0", "NO_COLOR=1", true, plain},
      {"--no-color", "NO_COLOR=", true, plain},
      {"--json", "NO_COLOR=", true, plain},
      {"--trace=0", "NO_COLOR=", false, plain}};
  for (const auto& [option, variable, terminal, seen] : cases) {
    CProgram program(RvxctlWords({Simulate("arrays"), option, "status"}, {variable}), terminal);
    EXPECT_EQ(program.Wait(), 0);
    EXPECT_THAT(program.Out(), seen) << option << variable;
  }
}

TEST(Show, ANarrowTerminalGetsWholeWordsBelowEachOther) {
  const std::string words =
      "stty cols 100; " + RvxctlWords({}).back() + " " + Simulate("arrays") + " operations sda";
  EXPECT_THAT(ResultOf({"script", "-qec", words, "/dev/null"}).m_Out,
              HasSubstr("The object\r\n" + std::string(52, ' ') + "does not offer"));
}

TEST(Show, OutputThatCannotBeWrittenIsAnError) {
  const std::tuple<const char*, int, const char*> cases[] = {
      {"topology > /dev/full", 1, "No space left"},
      {"disk show none --json > /dev/full", 3, "no disk"},
      {"status --watch | head -n 1; exit $PIPESTATUS", 141, nullptr},
      {"disk list <&- >&-", 1, "standard output is closed"},
      {"--help > /dev/full", 1, "No space left"}};
  for (const auto& [words, status, told] : cases) {
    const std::string command = std::string("\"$@\" --simulate ") + words;
    const SResult result = ResultOf({"bash", "-c", command, "", RvxctlWords({}).back()});
    EXPECT_EQ(result.m_Status, status) << words;
    EXPECT_TRUE(told == nullptr ? result.m_Err.empty() : result.m_Err.find(told) != std::string::npos)
        << words << result.m_Err;
  }
}

}  // namespace
