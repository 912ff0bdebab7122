/// @file
/// What rvxctl refuses, how it says so, and the exit status that scripts rely on.

#include <gmock/gmock.h>
#include <unistd.h>

#include <sstream>

#include "Program.h"

namespace {

using testing::HasSubstr;

using Told = std::vector<std::string>;

/// The words must fail with the status and a message that tells all of this, as text and as a document.
void ExpectFailure(Words words, int status, const Told& told, const Words& surroundings = {}) {
  SCOPED_TRACE(testing::PrintToString(words));
  const SResult text = Rvxctl(words, surroundings);
  words.push_back("--json");
  const SResult document = Rvxctl(words, surroundings);
  EXPECT_EQ(text.m_Status, status);
  EXPECT_EQ(text.m_Out, "");
  EXPECT_EQ(document.m_Status, status);
  ASSERT_TRUE(document.Json().is_object()) << document.m_Out;
  ASSERT_EQ(document.Json()["errors"].size(), 1U);
  const auto error = document.Json()["errors"][0];
  EXPECT_EQ(error["exitStatus"], status);
  for (const std::string& piece : told) {
    EXPECT_THAT(text.m_Err, HasSubstr(piece));
    EXPECT_THAT(error["message"].get<std::string>(), HasSubstr(piece));
  }
}

TEST(Refusal, Machines) {
  const CTemporaryFolder folder;
  const std::pair<Words, const char*> cases[] = {
      {{"--simulate", "--save", "status"}, "--save needs a file"},
      {{"--simulate=" + folder.Write("wrong.json", "{\n\"disks\": [\n}"), "status"}, "wrong.json: line 3"},
      {{"--simulate=" + folder.Path("none.json"), "status"}, "none.json: No such file"}};
  for (const auto& [words, message] : cases) ExpectFailure(words, 2, {message});
}

TEST(Refusal, WithoutRightsTheMachineIsNotTouched) {
  Words words = RvxctlWords({"--json", "status"});
  // The capability lets another user reach a build tree in a closed folder; what counts is who runs it.
  if (::geteuid() == 0)
    words.insert(words.begin(), {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                                 "--inh-caps=+dac_override", "--ambient-caps=+dac_override"});
  const SResult result = ResultOf(words);
  EXPECT_EQ(result.m_Status, 8) << result.m_Err;
  EXPECT_THAT(result.m_Err, HasSubstr("sudo"));
  EXPECT_EQ(result.Json()["errors"][0]["exitStatus"], 8);
}

TEST(Refusal, OfCommandLinesObjectsAndStates) {
  const std::string relative = (std::filesystem::current_path() / "libpiRVXsim.so").string();
  const std::tuple<const char*, std::string, int, Told> cases[] = {
      {"plain", "array bogus", 2, {"unknown command \"bogus\"; 'rvxctl array --help'"}},
      {"plain", "array craete", 2, {"\"craete\" (did you mean create?);"}},
      {"plain", "", 2, {"a command is missing", "\n  rescan      looks"}},
      {"plain", "--jsno", 2, {"unknown option --jsno (did you mean --json?); 'rvxctl --help'"}},
      {"plain", "status --wacth=1", 2, {"unknown option --wacth (did you mean --watch?);"}},
      {"plain", "status --simulate m.json", 2, {"write --simulate=m.json"}},
      {"plain", "prop set", 2, {"a command is missing after \"rvxctl prop set\""}},
      {"plain", "disk show", 2, {"DISK is required"}},
      {"plain", "array create --level raid9 sda sdb", 2, {"--level: raid9 is none of raid0, raid1, linear;"}},
      {"plain",
       "array create --level raid0 --stripe 5 sda sdb",
       2,
       {": 5 is none of 4, 8, 16, 32, 64, 128;"}},
      {"plain", "array create --level raid0 --stripe 64k sda sdb", 2, {"write --stripe 64, the number"}},
      {"plain", "array delete", 2, {"say which array"}},
      {"plain", "array delete md_d0 --all", 2, {"say which array"}},
      {"plain", "prop set plugin poll-interval 1", 2, {"between 2 and 255"}},
      {"plain", "status --plugin libpiRVXsim.so", 9, {"cannot load the plug-in: ", "write " + relative}},
      {"plain", "status --plugin /nowhere/libpiRVXsim.so", 9, {"/nowhere/libpiRVXsim.so"}},
      {"plain", "status --plugin " RVX_LIBRARY, 9, {"exports no createIf and releaseIf"}},
      {"plain", "status --plugin " RVX_FAILING_PLUGIN, 9, {"20007: There is not enough memory"}},
      {"plain", "disk show sdz", 3, {"there is no disk \"sdz\"; there are: sda, sdb, sdc, sdd"}},
      {"plain", "array show sda", 3, {"there is no array \"sda\"; there is none at all"}},
      {"plain", "operations 0x99", 3, {"there is no object \"0x99\"; there are: plugin, adapter, sda"}},
      {"plain", "prop get sda 30999", 3, {"no property 30999; 'rvxctl prop get OBJECT' lists"}},
      {"arrays", "spare add sdg md_d9", 3, {"no array \"md_d9\"; there are: md_d0, md_d1, md_d2"}},
      {"plain", "array delete --last --yes", 1, {"20049 ERR_NOT_AVAILABLE", "\nthere is no array"}},
      {"arrays", "spare release sdc --yes", 6, {"20005", "\nsdc belongs to md_d1; its status is \"In use\""}},
      {"arrays", "spare add sdf md_d0 --yes", 1, {"20003", "\nmd takes no disk that is too small"}},
      {"arrays", "rebuild start md_d0", 6, {"20023", "\nmd_d0 is RAID 0 (striping)"}},
      {"arrays", "rebuild start md_d2", 6, {"20024", "\nmd_d2: In order"}},
      {"arrays", "rebuild cancel md_d1", 6, {"20025 ERR_NO_REBUILD_RUNNING: No rebuild is running"}},
      {"recovering", "array delete md_d0 --yes", 5, {"20020 ERR_BUSY", "\nmd_d0: Rebuilding 0%"}},
      {"arrays", "array delete md_d2", 4, {"nothing was changed", "say --yes"}},
      {"arrays", "array delete md_d2 --yes", 1, {"20003", "\nmd stops only an array that nothing uses."}},
      {"arrays", "array create --level raid1 sdf sda --yes", 1, {"a raid1 array of sdf, sda", "20006"}},
  };
  for (const auto& [machine, command, status, told] : cases) {
    std::istringstream text(command);
    Words words{std::istream_iterator<std::string>(text), {}};
    words.insert(words.begin(), Simulate(machine));
    ExpectFailure(words, status, told);
  }
}

TEST(Surroundings, SettingsGoWhereTheyAreWanted) {
  const CTemporaryFolder folder;
  const Words words{Simulate("plain"), "prop", "set", "plugin", "poll-interval", "7"};
  const auto with = [&](const std::string& variable, const std::string& value) {
    return Words{"--chdir=" + folder.Path(), "TMPDIR=" + folder.Path(), variable + "=" + value};
  };
  std::filesystem::create_directory(folder.Path("settings"));
  EXPECT_EQ(Rvxctl(words, with("ZQ_CONFIG_DIR", "settings")).m_Status, 0);
  EXPECT_EQ(folder.Read("settings/piRVX.ini"), "PollInterval=7\n");
  EXPECT_EQ(Rvxctl(words, with("ZQ_CONFIG_DIR", "")).m_Status, 0);
  EXPECT_EQ(folder.CountFiles(), 1U) << "an empty name is none, and a simulated machine leaves nothing";
  ExpectFailure(words, 1, {"cannot make a temporary folder in /nowhere: No such file or directory; TMPDIR"},
                with("TMPDIR", "/nowhere"));
  // A file in the folder's place takes no file, not even from root.
  ExpectFailure(words, 1, {"could not be written to piRVX.ini"},
                with("ZQ_CONFIG_DIR", folder.Write("file", "")));
}

TEST(Surroundings, OthersMayNotReadTheNodesThatAreMade) {
  CProgram program(RvxctlWords({Simulate("plain"), "status", "--watch"}));
  ASSERT_TRUE(program.ReadUntil("sda"));
  EXPECT_THAT(ReadFile("/proc/" + std::to_string(program.Process()) + "/status"), HasSubstr("Umask:\t0007"));
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
  EXPECT_EQ(busy.Json()["errors"][0]["status"], 20020);
}

}  // namespace
