/// @file
/// What takes time or several commands: changes of one machine, events, progress, interruptions, questions.

#include <gmock/gmock.h>

#include <csignal>
#include <sstream>

#include "Program.h"

namespace rvxctl_test {

namespace {

using nlohmann::json;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::HasSubstr;

/// A machine that keeps what is done to it, looked at every two seconds.
class CKeptMachine {
 public:
  /// The machine of that name, with one more key.
  explicit CKeptMachine(const std::string& name, const std::string& key = "") {
    std::string text = ReadFile(RVX_SOURCE_DIR "/tests/host/machines/" + name + ".json");
    m_File = m_Folder.Write("machine.json", text.insert(text.rfind('}'), key));
    m_Folder.Write("piRVX.ini", "PollInterval=2\n");
  }
  Words WordsOf(Words words) const {
    words.insert(words.begin(), {"--simulate=" + m_File, "--save"});
    return words;
  }
  SHow How(bool terminal = false) const {
    return {.m_Environment = {{"ZQ_CONFIG_DIR", m_Folder.Path()}}, .m_Terminal = terminal};
  }
  SResult Run(const Words& words) const { return Rvxctl(WordsOf(words), How()); }
  json Data(Words words) const {
    words.push_back("--json");
    return Run(words).Json()["data"];
  }
  std::string StatusOf(const char* disk) const {
    const json status = Data({"status"});
    for (const json& one : status["disks"])
      if (one["name"] == disk) return one["statusText"];
    return "none";
  }

 private:
  CTemporaryFolder m_Folder;
  std::string m_File;
};

std::vector<json> Lines(const std::string& text) {
  std::vector<json> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(json::parse(line, nullptr, false));
  return lines;
}

TEST(Sequence, AMirrorFromCreationToDeletion) {
  const CKeptMachine machine("plain");
  const SResult created =
      machine.Run({"array", "create", "--level", "raid1", "sda", "sdb", "--yes", "--wait"});
  EXPECT_EQ(created.m_Status, 0) << created.m_Err;
  EXPECT_THAT(created.m_Out, HasSubstr("md_d0: completed\nCreated md_d0."));
  EXPECT_EQ(machine.Run({"spare", "add", "sdd", "md_d0", "--yes"}).m_Status, 1) << "it is too small";
  EXPECT_EQ(machine.Run({"spare", "add", "sdc", "md_d0", "--yes"}).m_Status, 0);
  EXPECT_EQ(machine.StatusOf("sdc"), "Hot spare");
  EXPECT_EQ(machine.Run({"spare", "release", "sdc", "--yes"}).m_Status, 0);
  EXPECT_EQ(machine.StatusOf("sdc"), "Ready");
  EXPECT_EQ(machine.Data({"array", "create", "--level", "raid0", "sdc", "sdd", "--yes"})["array"], "md_d1");
  EXPECT_EQ(machine.Run({"array", "delete", "--all", "--yes"}).m_Status, 0);
  EXPECT_EQ(machine.Data({"array", "list"}), json::array());
  EXPECT_EQ(machine.StatusOf("sda"), "Ready");
}

TEST(Sequence, AMachineThatCannotBeSavedIsAnError) {
  const CTemporaryFolder folder;
  const std::string name = folder.Write(
      std::string(250, 'm'),
      ReadFile(RVX_SOURCE_DIR "/tests/host/machines/plain.json"));  // leaves no room for the new file's name
  const SResult result = Rvxctl({"--simulate=" + name, "--save", "rescan"});
  EXPECT_EQ(result.m_Status, 1);
  EXPECT_THAT(result.m_Err, HasSubstr("not saved"));
}

TEST(Events, ComeOnceAndInOrder) {
  const CKeptMachine machine("eventful");
  CProgram program(RvxctlWords(machine.WordsOf({"events", "--follow", "--json-lines"})), machine.How());
  ASSERT_TRUE(program.ReadUntil("\"code\":10078")) << program.Out();
  // One pass more: a change that is reported twice would come again.
  ASSERT_TRUE(program.ReadUntil("\"code\":10459")) << program.Out();
  program.Signal(SIGINT);
  EXPECT_EQ(program.Wait(seconds(10)), 130);
  std::vector<int> codes;
  for (const json& event : Lines(program.Out())) {
    ASSERT_TRUE(event.is_object());
    EXPECT_THAT(event["time"].get<std::string>(), testing::MatchesRegex(R"(....-..-..T..:..:..\....Z)"));
    EXPECT_EQ(event["source"], "0x0127000000000001");
    if (event["code"] != 10459)
      codes.push_back(event["code"]);  // repeats as long as md holds the failed member
  }
  EXPECT_THAT(program.Out(), HasSubstr("\"Disk sdc was ready and is now in use.\""));
  EXPECT_THAT(codes, ElementsAre(10454, 10033, 10032, 10078));
  EXPECT_THAT(Rvxctl({Simulate("short_resync"), "events"}).m_Out, HasSubstr(" 10085 information object "))
      << "of one pass";
}

TEST(Watch, EndsAsTheWorkEnds) {
  const struct {
    const char* m_Machine;
    const char* m_Script;
    int m_Status;
    const char* m_Last;
  } cases[] = {
      {"short_resync", "", 0, "completed"},
      {"short_resync", R"(, "script": [{"at": 3000, "fail_member": {"array": "md_d0", "disk": "sdb"}}])", 1,
       "aborted"},
      {"arrays", "", 0, "no rebuild"}};
  for (const auto& [machine, script, status, last] : cases) {
    const CKeptMachine kept(machine, script);
    const SResult result = kept.Run({"--json", "array", "watch", "md_d0"});
    EXPECT_EQ(result.m_Status, status) << machine << result.m_Err;
    const auto lines = Lines(result.m_Out);
    ASSERT_FALSE(lines.empty());
    for (const json& line : lines) ASSERT_TRUE(line.is_object()) << result.m_Out;
    EXPECT_THAT(lines.back()["text"].get<std::string>(), HasSubstr(last)) << machine;
  }
}

TEST(Interruption, EndsInTimeWithTheSignalsNumber) {
  const std::pair<int, Words> cases[] = {{SIGTERM, {"array", "watch", "md_d0"}},
                                         {SIGINT, {"status", "--watch"}}};
  for (const auto& [signal, words] : cases) {
    Words all = words;
    all.insert(all.begin(), Simulate("recovering"));
    CProgram program(RvxctlWords(all));
    ASSERT_TRUE(program.ReadUntil("Rebuilding"));
    program.Signal(signal);
    EXPECT_EQ(program.Wait(seconds(6)), 128 + signal) << words.front();
  }
  CProgram drawing(RvxctlWords({Simulate("recovering"), "array", "watch", "md_d0"}), {.m_Terminal = true});
  EXPECT_TRUE(drawing.ReadUntil("md_d0 Rebuilding [")) << "a bar for people";
  drawing.Type("\x03");
  EXPECT_EQ(drawing.Wait(seconds(10)), 130);
}

TEST(Question, OnlyAYesChangesSomething) {
  const CKeptMachine machine("plain");
  ASSERT_EQ(machine.Run({"array", "create", "--level", "raid0", "sda", "sdb", "--yes"}).m_Status, 0);
  for (const auto& [answer, status] : {std::pair{"\n", 4}, {"no\n", 4}, {"\x04", 4}, {"y\n", 0}}) {
    ASSERT_EQ(machine.Data({"array", "list"}).size(), 1U);
    CProgram program(RvxctlWords(machine.WordsOf({"array", "delete", "md_d0"})), machine.How(true));
    ASSERT_TRUE(program.ReadUntil("[y/N]"));
    EXPECT_THAT(program.Out(), HasSubstr("This will delete md_d0")) << "the plan comes first";
    program.Type(answer);
    EXPECT_EQ(program.Wait(), status) << program.Out();
  }
  EXPECT_EQ(machine.Data({"array", "list"}), json::array());
}

}  // namespace

}  // namespace rvxctl_test
