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

TEST(Refusal, APlaygroundIsNotWrittenOverAnotherFile) {
  const CTemporaryFolder folder;
  const std::string file = folder.Write("mine", "precious");
  ExpectFailure({"--simulate=" + file, "playground", "demo"}, 2, {"mine is there already"});
  EXPECT_EQ(folder.Read("mine"), "precious");
  ExpectFailure({"playground", "demo"}, 2, {"--simulate=FILE"});
  for (const char* machine : {"degraded", "200"}) {
    const std::string option = "--simulate=" + folder.Path(machine);
    EXPECT_EQ(Rvxctl({option, "playground", machine}).m_Status, 0);
    EXPECT_THAT(Rvxctl({option, "array", "list"}).m_Out, HasSubstr("Degraded"));
  }
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
      {"plain", "disk show sda sdb", 2, {"more than the command takes: sdb;"}},
      {"plain", "array create --level raid1 --level raid0 sda sdb", 2, {"--level is said more than once;"}},
      {"plain", "prop get sda size", 2, {"ID: size is no decimal number;"}},
      {"plain", "prop set plugin poll-interval 010", 2, {"N: 010 is no decimal number;"}},
      {"plain", "disk locate sda ON", 2, {"SWITCH: ON is none of on, off;"}},
      {"plain", "array delete md_d0 --dry-run --dry-run=false", 2, {"--dry-run takes no value;"}},
      {"plain", "--simulate=m.json status", 2, {"--simulate is said more than once;"}},
      {"plain", "array delete md_d0 --if-unchanged --yes", 2, {"a value is missing before --yes;"}},
      {"plain", "spare add --plugin-alon sda md_d0", 2, {"(did you mean --plugin?)"}},
      {"plain", "array create --level raid1 sda,sdb", 3, {"write names with blanks between"}},
      {"plain", "array delete --if-unchanged= md_d0", 2, {"--if-unchanged= has no value: is a script's"}},
      {"plain", "--simulate= status", 2, {"--simulate= has no value"}},
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
      {"plain",
       "array delete --last --yes --plugin-alone",
       1,
       {"20049 ERR_NOT_AVAILABLE", "\nthere is no array"}},
      {"plain", "array delete --all --yes", 3, {"there is no array"}},
      {"arrays",
       "spare release sda --yes --plugin-alone",
       6,
       {"20005", "\nsda belongs to md_d0; its status is"}},
      {"arrays", "spare add sdf md_d0 --yes --plugin-alone", 1, {"20003", "\nmd takes no disk that is too"}},
      {"arrays", "rebuild start md_d0", 6, {"20023", "\nmd_d0 is RAID 0 (striping)"}},
      {"arrays", "rebuild start md_d2", 6, {"20024", "\nmd_d2: In order"}},
      {"arrays", "rebuild cancel md_d1", 6, {"20025 ERR_NO_REBUILD_RUNNING: No rebuild is running"}},
      {"recovering", "array delete md_d0 --yes", 5, {"20020 ERR_BUSY", "\nmd_d0: Rebuilding 0%"}},
      {"arrays", "array delete md_d0", 4, {"nothing was changed", "say --yes"}},
      {"arrays",
       "array delete md_d2 --yes --plugin-alone",
       1,
       {"20003", "\nNothing was deleted. Still there: md_d2 ("}},
      {"arrays", "array create --level raid1 sdf sda --yes --plugin-alone", 1, {"of sdf, sda", "20006"}},
  };
  for (const auto& [machine, command, status, told] : cases) {
    std::istringstream text(command);
    Words words{std::istream_iterator<std::string>(text), {}};
    words.insert(words.begin(), Simulate(machine));
    ExpectFailure(words, status, told);
  }
}

/// Requests, the exit status of each and what is said. The machine is "rules".
const std::tuple<const char*, int, const char*> REQUESTS[] = {
    {"array create --level raid1 sda", 2, "a raid1 is made of exactly 2 disks, and 1 is named"},
    {"array create --level raid1 sda sdb sdc", 2, "exactly 2 disks, and 3 are named"},
    {"array create --level raid0 sda", 2, "a raid0 is made of 2 to 384 disks, and 1 is named"},
    {"array create --level linear sdb", 2, "a linear is made of 2 to 384 disks"},
    {"array create --level raid1 sda /dev/sda", 2, "sda is named twice: as \"sda\" and as \"/dev/sda\""},
    {"array create --level raid0 sdb sda S-A", 2, "sda is named twice: as \"sda\" and as \"S-A\""},
    {"array create --level raid0 --stripe 5 sda sdb", 2, "5 is none of"},
    {"array create --level raid5 sda sdb", 2, "raid5 is none of raid0, raid1, linear"},
    {"array create --level raid1 0x0127000000000002 sdb", 2, "is the identifier of sda in this run alone"},
    {"array delete 0x0127000000000020", 3, "there is no array"},
    {"array create --level raid1 sda sdz", 3, "there is no disk \"sdz\""},
    {"array create --level raid1 sda twin", 2, "\"twin\" is sdb and sdc: name the disk"},
    {"array create --level raid1 sda sdd", 6, "sdd is a member of md_d0; only a disk that nothing uses"},
    {"array create --level raid1 sda sdh", 6, "sdh is a hot spare of md_d1"},
    {"array create --level raid1 sda sdi", 6, "sdi is a failed member of md_d2"},
    {"array create --level raid1 sda sdk", 6, "sdk1 is mounted at /srv/data"},
    {"array create --level raid1 sda sdl", 6, "sdl is held open by another program"},
    {"array create --level raid1 sda sdm", 6, "sdm is not ready: Failed"},
    {"array create --level raid0 sda sdn", 6, "sdn is too small: 160 KiB, and a member needs 204 KiB"},
    {"array create --level raid1 sdo sdp", 6, "md refuses this mirror: its smallest disk has 1.8 TiB"},
    {"array create --level raid1 S-A sdb", 0, "Created md_d6: 63 MiB."},
    {"array create --level raid0 sda sdb sdc", 0, "Created md_d6"},
    {"array create --level linear sda sdo", 0, "Created md_d6"},
    {"array create --level raid0 --stripe 8 sda sdb", 0, "Created md_d6"},
    {"array create --level raid1 --stripe 8 sda sdb", 0, "Created md_d6"},
    {"array create --level raid1 sdq sdr", 0, "Created md_d6: 952.0 GiB."},
    {"spare add sda md_d0", 6, "md_d0 is RAID 0 (striping): a level without redundancy takes no spare"},
    {"spare add sda md_d1", 6, "md_d1 is a mirror without a chunk size, as mdadm makes it"},
    {"spare add sda md_d4", 6, "md_d4 has metadata 1.2"},
    {"spare add sdn md_d2", 6, "sdn is too small: 160 KiB, and a member of md_d2 needs 63 MiB"},
    {"spare add sdd md_d2", 6, "sdd is a member of md_d0"},
    {"spare add sdi md_d2", 6, "sdi is a failed member of md_d2"},
    {"spare add sdb md_d2", 0, "sdb is "},
    {"spare add S-A md_d2", 0, "sda is "},
    {"spare release sdg", 6, "sdg is a working member of md_d1; only a spare or a failed member"},
    {"spare release sda", 6, "sda belongs to no array; its status is \"Ready\""},
    {"spare release sdh", 0, "sdh is released."},
    {"spare release sdi", 0, "sdi is released."},
    {"array delete md_d0", 0, "Deleted md_d0."},
    {"array delete md_d3", 6, "md_d3 is in use: md_d3 is mounted at /srv/array"},
    {"array delete md_d4", 6, "md_d4 has metadata 1.2, and only an array with version 1.0 can be deleted"},
    {"array delete md_d5", 6,
     "the member sdt1 of md_d5 is a partition: the blank superblock would be written"},
    {"array delete md_d5 --force-partition-members", 0, "Deleted md_d5."},
    {"array delete --all", 6, "md_d3 is in use"},
    {"rebuild start md_d2", 6, "release sdi ('rvxctl spare release sdi')"},
    {"rebuild start md_d0", 6, "20023"},
    {"rebuild cancel md_d2", 6, "20025"},
};

TEST(Refusal, ADryRunSaysWhatTheChangeWillDo) {
  const SResult unset =
      Rvxctl({Simulate("rules"), "array", "create", "--level", "raid1", "", "sda", "--dry-run"});
  EXPECT_EQ(unset.m_Status, 2) << "disks without a WWN are many, and the empty one is none: " << unset.m_Out;
  for (const auto& [command, status, told] : REQUESTS) {
    SCOPED_TRACE(command);
    std::istringstream text(command);
    Words words{std::istream_iterator<std::string>(text), {}};
    words.insert(words.begin(), Simulate("rules"));
    words.emplace_back("--dry-run");
    const SResult dry = Rvxctl(words);
    words.back() = "--yes";
    const SResult done = Rvxctl(words);
    EXPECT_EQ(dry.m_Status, status) << dry.m_Err;
    EXPECT_EQ(done.m_Status, status) << done.m_Err;
    EXPECT_THAT(status == 0 ? done.m_Out : done.m_Err, HasSubstr(told));
    if (status == 0) {
      EXPECT_THAT(dry.m_Out, HasSubstr("This is allowed. Nothing was changed."));
    } else {
      EXPECT_EQ(dry.m_Err, done.m_Err);
    }
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
