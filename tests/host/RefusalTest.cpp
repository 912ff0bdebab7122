/// @file
/// What rvxctl refuses, how it says so, and the exit status that scripts rely on.

#include <gmock/gmock.h>
#include <unistd.h>

#include "Program.h"

namespace rvxctl_test {

namespace {

using testing::HasSubstr;

/// The words must fail with the status and a message, as text and as a document.
void ExpectFailure(Words words, int status, const std::string& message, const SHow& how = {}) {
  SCOPED_TRACE(testing::PrintToString(words));
  const SResult text = Rvxctl(words, how);
  EXPECT_EQ(text.m_Status, status);
  EXPECT_THAT(text.m_Err, HasSubstr(message));
  EXPECT_EQ(text.m_Out, "");
  words.push_back("--json");
  const SResult document = Rvxctl(words, how);
  EXPECT_EQ(document.m_Status, status);
  ASSERT_TRUE(document.Json().is_object()) << document.m_Out;
  ASSERT_EQ(document.Json()["errors"].size(), 1U);
  const auto error = document.Json()["errors"][0];
  EXPECT_EQ(error["exitStatus"], status);
  EXPECT_THAT(error["message"].get<std::string>(), HasSubstr(message));
}

TEST(Refusal, WrongCommandLinesAndMachines) {
  const CTemporaryFolder folder;
  const std::string plain = Simulate("plain");
  const std::pair<Words, const char*> cases[] = {
      {{plain, "array", "bogus"}, "unknown command \"bogus\"; 'rvxctl array --help'"},
      {{plain, "prop", "set"}, "a command is missing after \"rvxctl prop set\""},
      {{plain, "--bogus", "status"}, "--bogus"},
      {{plain, "disk", "show"}, "DISK is required"},
      {{plain, "array", "create", "--level", "raid9", "sda", "sdb"}, "raid9"},
      {{plain, "array", "create", "--level", "raid0", "--stripe", "5", "sda", "sdb"}, "--stripe"},
      {{plain, "array", "delete"}, "say which array"},
      {{plain, "array", "delete", "md_d0", "--all"}, "say which array"},
      {{plain, "prop", "set", "plugin", "poll-interval", "1"}, "between 2 and 255"},
      {{plain, "prop", "set", "plugin", "poll-interval", "soon"}, "soon"},
      {{"--simulate", "--save", "status"}, "--save needs a file"},
      {{"--simulate=" + folder.Write("wrong.json", "{\n\"disks\": [\n}"), "status"}, "wrong.json: line 3"},
      {{"--simulate=" + folder.Path("none.json"), "status"}, "none.json: No such file"},
  };
  for (const auto& [words, message] : cases) ExpectFailure(words, 2, message);
}

TEST(Refusal, Plugins) {
  ExpectFailure({"--simulate", "--plugin", "/nowhere/libpiRVXsim.so", "status"}, 9,
                "/nowhere/libpiRVXsim.so");
  ExpectFailure({"--simulate", "--plugin", RVX_NO_PLUGIN, "status"}, 9, "createIf");
  ExpectFailure({"--simulate", "--plugin", RVX_FAILING_PLUGIN, "status"}, 9,
                "20007: There is not enough memory");
}

TEST(Refusal, WithoutRightsTheMachineIsNotTouched) {
  Words words = RvxctlWords({"--json", "status"});
  // The capability lets another user reach a build tree in a closed folder; what counts is who runs it.
  if (::geteuid() == 0)
    words.insert(words.begin(), {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                                 "--inh-caps=+dac_override", "--ambient-caps=+dac_override"});
  CProgram program(words);
  EXPECT_EQ(program.Wait(), 8) << program.Err();
  EXPECT_THAT(program.Err(), HasSubstr("sudo"));
  EXPECT_EQ(nlohmann::json::parse(program.Out())["errors"][0]["exitStatus"], 8);
}

TEST(Refusal, OfObjectsAndStates) {
  const struct {
    const char* m_Machine;
    Words m_Words;
    int m_Status;
    const char* m_Message;
  } cases[] = {
      {"plain", {"disk", "show", "sdz"}, 3, "there is no disk \"sdz\"; there are: sda"},
      {"plain", {"array", "show", "sda"}, 3, "there is none at all"},
      {"plain", {"operations", "0x99"}, 3, "0x99"},
      {"plain", {"prop", "get", "sda", "30999"}, 3, "30999"},
      {"arrays", {"spare", "add", "sdg", "md_d9"}, 3, "md_d9"},
      {"plain", {"array", "delete", "--last", "--yes"}, 1, "20049 ERR_NOT_AVAILABLE"},
      {"arrays", {"spare", "release", "sdc", "--yes"}, 6, "sdc belongs to md_d1"},
      {"arrays", {"rebuild", "start", "md_d0"}, 6, "20023 ERR_NO_REDUNDANCY"},
      {"arrays", {"rebuild", "cancel", "md_d1"}, 6, "20025"},
      {"recovering", {"array", "delete", "md_d0", "--yes"}, 5, "is running.\nmd_d0: Rebuilding"},
      {"arrays", {"array", "delete", "md_d2"}, 4, "say --yes"},
      {"arrays", {"array", "delete", "md_d2", "--yes"}, 1, "20003 ERR_DEVICE_IO"},
      {"arrays", {"array", "create", "--level", "raid1", "sdf", "sda", "--yes"}, 1, "20006"},
  };
  for (auto [machine, words, status, message] : cases) {
    words.insert(words.begin(), Simulate(machine));
    ExpectFailure(words, status, message);
  }
}

TEST(Refusal, OfAPollIntervalThatCannotBeStored) {
  const CTemporaryFolder folder;
  const Words words{Simulate("plain"), "prop", "set", "plugin", "poll-interval", "7"};
  EXPECT_EQ(Rvxctl(words, {.m_Environment = {{"ZQ_CONFIG_DIR", folder.Path()}}}).m_Status, 0);
  EXPECT_EQ(folder.Read("piRVX.ini"), "PollInterval=7\n");
  // A file in the folder's place takes no file, not even from root.
  ExpectFailure(words, 1, "could not be written to piRVX.ini",
                {.m_Environment = {{"ZQ_CONFIG_DIR", folder.Write("file", "")}}});
}

TEST(Refusal, ADryRunIsOneDocumentWhateverTheCheckSays) {
  const auto dry = [](const char* machine) {
    return Rvxctl({Simulate(machine), "--json", "array", "delete", "md_d0", "--dry-run"});
  };
  const SResult allowed = dry("arrays");
  EXPECT_EQ(allowed.m_Status, 0);
  EXPECT_EQ(allowed.Json()["data"]["check"]["status"], 0);
  EXPECT_EQ(allowed.Json()["data"]["disks"].size(), 3U) << "the array and its two members";
  const SResult busy = dry("recovering");
  EXPECT_EQ(busy.m_Status, 5);
  EXPECT_EQ(busy.Json()["data"]["check"]["name"], "ERR_BUSY");
  EXPECT_EQ(busy.Json()["errors"][0]["status"], 20020);
}

}  // namespace

}  // namespace rvxctl_test
