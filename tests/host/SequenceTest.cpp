/// @file
/// What takes time or several commands: changes of one machine, events, progress, interruptions, questions.

#include <gmock/gmock.h>

#include <chrono>
#include <csignal>
#include <sstream>
#include <thread>

#include "Program.h"

namespace {

using nlohmann::json;
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
    return RvxctlWords(words, {"ZQ_CONFIG_DIR=" + m_Folder.Path()});
  }
  SResult Run(const Words& words) const { return ResultOf(WordsOf(words)); }
  std::string Disks() const { return Run({"disk", "list"}).m_Out; }
  json Arrays() const { return Run({"array", "list", "--json"}).Json()["data"]; }

 private:
  CTemporaryFolder m_Folder;
  std::string m_File;
};

std::vector<json> Lines(const std::string& text) {
  std::vector<json> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(json::parse(line));
  return lines;
}

TEST(Sequence, AMirrorFromCreationToDeletion) {
  const CKeptMachine machine("plain");
  const SResult created =
      machine.Run({"array", "create", "--level", "raid1", "sda", "sdb", "--yes", "--wait"});
  EXPECT_EQ(created.m_Status, 0) << created.m_Err;
  EXPECT_THAT(created.m_Out, HasSubstr("md_d0: completed\nCreated md_d0: 63 MiB."));
  EXPECT_EQ(machine.Run({"spare", "add", "sdc", "md_d0", "--yes"}).m_Status, 0);
  EXPECT_THAT(machine.Disks(), HasSubstr("sdc   Hot spare"));
  EXPECT_EQ(machine.Run({"spare", "release", "sdc", "--yes"}).m_Status, 0);
  EXPECT_THAT(machine.Disks(), HasSubstr("sdc   Ready"));
  const Words stripe{"array", "create", "--level", "raid0", "sdc", "sdd", "--yes", "--json"};
  EXPECT_EQ(machine.Run(stripe).Json()["data"]["array"], "md_d1");
  EXPECT_EQ(machine.Run({"array", "delete", "--all", "--yes"}).m_Status, 0);
  EXPECT_EQ(machine.Arrays(), json::array());
  EXPECT_THAT(machine.Disks(), HasSubstr("sda   Ready"));
}

TEST(Sequence, TheFirstSynchronisationIsToldFromALaterOne) {
  const CKeptMachine machine("plain", R"(, "sync_speed": 0)");
  ASSERT_EQ(machine.Run({"array", "create", "--level", "raid1", "sda", "sdb", "--yes"}).m_Status, 0);
  EXPECT_EQ(machine.Arrays()[0]["firstSync"], true);
  EXPECT_THAT(machine.Run({"status"}).m_Out, HasSubstr("  First sync 0% (md)  "));
  EXPECT_EQ(Rvxctl({Simulate("short_resync"), "array", "list", "--json"}).Json()["data"][0]["firstSync"],
            false)
      << "an old array, started with the machine";
}

/// Four disks of 64 MiB with these keys of sdb, arrays, and what else the machine is described by.
std::string FourDisks(const std::string& sdb, const std::string& arrays, const std::string& more = "") {
  std::string disks;
  for (const char* const name : {"sda", "sdb", "sdc", "sdd"})
    disks += std::string(disks.empty() ? "" : ", ") + R"({"name": ")" + name +
             R"(", "controller": "a", "size": 65536)" + (name == std::string("sdb") ? sdb : "") + "}";
  return R"({"controllers": [{"name": "a", "pci": "0000:00:1f.2", "driver": "ahci"}], "disks": [)" + disks +
         R"(], "arrays": [)" + arrays + "]" + more + "}";
}

TEST(Sequence, WhatDidNotHappenIsNotTold) {
  const std::string mirror = R"({"name": "md_d0", "level": "raid1", "chunk": 64, "members": ["sda", )";
  const std::string fails = R"(, "rehearsed": false, "sync_speed": 6400,
      "script": [{"at": 3000, "fail_member": {"array": "md_d0", "disk": "sdb"}}])";
  const std::string striped = R"({"name": "md_d1", "level": "raid0", "members": ["sdb", "sdc"]})";
  const std::string asleep = R"(, "asleep": true)", offline = R"(, "state": "offline")";
  const std::tuple<std::string, const char*, int, const char*> cases[] = {
      {FourDisks("", mirror + "null]}", fails), "spare add sdb md_d0 --wait --yes", 1,
       "md_d0: aborted\nrvxctl: sdb is added to md_d0; the run did not complete"},
      {FourDisks("", mirror + R"(null], "spares": ["sdb"]})", fails), "array watch md_d0", 1,
       "md_d0: aborted\n"},
      {FourDisks(asleep, mirror + R"("sdc"], "spares": ["sdb"]})"), "spare release sdb --yes", 1,
       "sdb is released; sdb still has its superblock, or cannot be read"},
      {FourDisks(asleep, striped), "array delete md_d1 --yes", 1,
       "sdb still has its superblock, or cannot be read"},
      {FourDisks(asleep, ""), "array create --level raid1 sda sdb --dry-run", 6, "sdb cannot be read"},
      {FourDisks(asleep, ""), "array create --level raid1 sda sdb --yes --plugin-alone", 1,
       "/dev/md_d0\nMay have a superblock now: sda, sdb."},
      {FourDisks(asleep, mirror + R"("sdc"]})"), "spare add sdb md_d0 --yes --plugin-alone", 1,
       "written in full.\nMay have a superblock now: sdb."},
      {FourDisks("", mirror + R"("sdc"], "spares": ["sdb"]})",
                 R"(, "script": [{"at": 0, "remove_disk": "sdb"}])"),
       "check", 1, "1 spare missing; md_d0: sdb is missing"},
      {FourDisks(offline, mirror + R"(null], "faulty": ["sdb"]})"), "status", 0,
       "'mdadm --manage /dev/md_d0 --remove /dev/sdb', replace the disk, then 'rvxctl spare add DISK md_d0'"},
      {FourDisks(offline, mirror + R"(null], "faulty": ["sdb"]})"), "spare release sdb --yes", 6,
       "sdb is offline"},
      {FourDisks("", R"({"name": "md_d1", "level": "raid0", "members": ["sdb", "sdc"], "broken": true})"),
       "check", 2, "1 array failed; md_d1: md takes it for broken"},
      {FourDisks("", mirror + R"(null], "spares": ["sdb"]})", R"(, "sync_speed": 0)"), "operations md_d0", 0,
       "Cancel the rebuild             no       this kernel does not end a rebuild"},
      {FourDisks("", mirror + R"("sdc"]})"), "array delete md_d0 --yes > /dev/full", 1,
       "Deleted md_d0. But cannot write to standard output: No space left on device"}};
  const CTemporaryFolder folder;
  for (const auto& [machine, command, status, told] : cases) {
    const std::string words = "--simulate=" + folder.Write("machine.json", machine) + " " + command;
    const SResult result = ResultOf({"bash", "-c", "exec 2>&1; \"$0\" " + words, RvxctlWords({}).back()});
    EXPECT_EQ(result.m_Status, status) << command << result.m_Out;
    EXPECT_THAT(result.m_Out, HasSubstr(told)) << machine;
  }
}

TEST(Sequence, ADeletionTellsEachMemberThatKeepsItsSuperblock) {
  const CTemporaryFolder folder;
  const std::string machine = folder.Write(
      "machine.json", FourDisks(R"(, "asleep": true)",
                                R"({"name": "md_d0", "level": "raid0", "members": ["sda", "sdb"]},
          {"name": "md_d1", "level": "raid0", "members": ["sdc", "sdd"], "mount": "/srv"})"));
  const SResult result =
      Rvxctl({"--simulate=" + machine, "--json", "array", "delete", "--all", "--yes", "--plugin-alone"});
  const json data = result.Json()["data"];
  EXPECT_EQ(result.m_Status, 1);
  EXPECT_EQ(data["deleted"], json::array({"md_d0"}));
  EXPECT_EQ(data["left"][0]["array"], "md_d1");
  EXPECT_EQ(data["notWiped"], json::array({"sdb"}));
  const SResult parts =
      Rvxctl({Simulate("rules"), "--json", "array", "delete", "md_d5", "--force-partition-members", "--yes"});
  EXPECT_EQ(parts.Json()["data"]["notWiped"], json::array({"sdt1"}));
  EXPECT_EQ(parts.Json()["data"]["done"], "Deleted md_d5. Still with its superblock: sdt1.");
}

TEST(Sequence, AMachineThatCannotBeSavedIsAnError) {
  const CTemporaryFolder folder;
  const std::string name = folder.Write(std::string(250, 'm'), "{}");  // no room for the new file's name
  const SResult result = Rvxctl({"--simulate=" + name, "--save", "rescan"});
  EXPECT_EQ(result.m_Status, 1);
  EXPECT_THAT(result.m_Err, HasSubstr("not saved"));
}

TEST(Events, ComeOnceAndInOrder) {
  const CKeptMachine machine("eventful");
  CProgram program(machine.WordsOf({"events", "--follow", "--json-lines"}));
  ASSERT_TRUE(program.ReadUntil("\"code\":10078")) << program.Out();
  // One pass more: a change that is reported twice would come again.
  ASSERT_TRUE(program.ReadUntil("\"code\":10459")) << program.Out();
  ::kill(program.Process(), SIGINT);
  EXPECT_EQ(program.Wait(), -SIGINT);
  std::vector<int> codes;
  std::vector<json> lines = Lines(program.Out());
  EXPECT_EQ(lines.back()["type"], "error") << "an end by a signal is told in the stream";
  EXPECT_EQ(lines.back()["sequence"], lines.size() - 1);
  EXPECT_EQ(lines.back()["data"]["exitStatus"], 130);
  lines.pop_back();
  for (const json& line : lines) {
    const json& event = line["data"];
    EXPECT_THAT(event["time"].get<std::string>(), testing::MatchesRegex(R"(....-..-..T..:..:..\....Z)"));
    EXPECT_EQ(event["source"], "0x0127000000000001");
    const bool named = event["objectName"] == event["placeholders"][1].get<std::string>().substr(0, 3);
    EXPECT_TRUE(named || event["code"] != 10032) << "a new disk has its name";
    if (event["code"] != 10459)
      codes.push_back(event["code"]);  // repeats as long as md holds the failed member
  }
  EXPECT_THAT(program.Out(), HasSubstr("\"Disk sdc is in use; until now it was ready or not known.\""));
  EXPECT_THAT(program.Out(), HasSubstr("managed or not in sync yet. Failed: sdb\""));
  EXPECT_THAT(codes, testing::ElementsAre(10454, 10033, 10032, 10078));
  EXPECT_THAT(Rvxctl({Simulate("short_resync"), "events"}).m_Out, HasSubstr(" 10085 information object "))
      << "of one pass";
}

TEST(Watch, EndsAsTheWorkEnds) {
  const std::tuple<const char*, const char*, int, const char*> cases[] = {
      {"short_resync", "", 0, "completed"},
      {"short_resync", R"(, "script": [{"at": 3000, "fail_member": {"array": "md_d0", "disk": "sdb"}}])", 1,
       "aborted"},
      {"arrays", "", 0, "no rebuild"}};
  for (const auto& [machine, script, status, last] : cases) {
    const SResult result = CKeptMachine(machine, script).Run({"--json", "array", "watch", "md_d0"});
    EXPECT_EQ(result.m_Status, status) << machine << result.m_Err;
    const std::vector<json> lines = Lines("{}\n" + result.m_Out);
    EXPECT_THAT(lines.back().value("data", json()).value("text", ""), HasSubstr(last)) << machine;
  }
}

TEST(Interruption, EndsInTimeByTheSignal) {
  const std::tuple<const char*, const char*, const char*, int> cases[] = {
      {"array", "watch", "md_d0", SIGTERM},
      {"status", "--watch", "--no-color", SIGINT},
      {"array", "watch", "md_d0", 0}};  // Ctrl-C in a terminal
  for (const auto& [first, second, third, signal] : cases) {
    CProgram program(RvxctlWords({Simulate("recovering"), first, second, third}), signal == 0);
    ASSERT_TRUE(program.ReadUntil(signal == 0 ? "md_d0 Rebuilding [" : "Rebuilding")) << program.Out();
    const auto start = std::chrono::steady_clock::now();
    signal == 0 ? program.Type("\x03") : void(::kill(program.Process(), signal));
    EXPECT_EQ(program.Wait(), -(signal == 0 ? SIGINT : signal)) << first;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(6));
  }
}

TEST(Question, WhatChangedMeanwhileIsNotDone) {
  const CKeptMachine machine("plain", R"(, "script": [{"at": 1500, "remove_disk": "sda"},
      {"at": 1500, "add_disk": {"name": "sda", "size": 65536, "controller": "sata", "model": "ST64 TEST"}}])");
  CProgram program(machine.WordsOf({"array", "create", "--level", "raid0", "sda", "sdb"}), true);
  ASSERT_TRUE(program.ReadUntil("[y/N]"));
  std::this_thread::sleep_for(std::chrono::milliseconds(1600));  // its clock is that on the wall
  program.Type("y\n");
  EXPECT_EQ(program.Wait(), 5) << program.Out();
  EXPECT_THAT(program.Out(), HasSubstr("changed meanwhile, nothing was done"));
  const auto create = [&](const char* second, const std::string& how, const std::string& token) {
    return machine.Run(
        {"array", "create", "--level", "raid0", "sda", second, how, "--if-unchanged=" + token, "--json"});
  };
  const std::string token =
      machine.Run({"array", "create", "--level", "raid0", "sda", "sdb", "--dry-run", "--json"})
          .Json()["data"]["token"];
  EXPECT_EQ(create("sdc", "--yes", token).m_Status, 5);
  EXPECT_EQ(create("sdb", "--dry-run", token).m_Status, 0);
  EXPECT_EQ(create("sdb", "--yes", token).Json()["data"]["array"], "md_d0");
}

TEST(Sequence, ADeletionThatEndsHalfWayTellsWhatIsLeft) {
  const CKeptMachine machine("arrays");
  const SResult result = machine.Run({"array", "delete", "--all", "--yes", "--plugin-alone", "--json"});
  EXPECT_EQ(result.m_Status, 1);
  EXPECT_EQ(result.Json()["data"]["deleted"], json::array({"md_d0", "md_d1"}));
  EXPECT_EQ(result.Json()["data"]["left"][0]["array"], "md_d2");
  EXPECT_THAT(result.Json()["data"]["left"][0]["why"].get<std::string>(),
              HasSubstr("md_d2 is mounted at /srv/data"));
  EXPECT_THAT(result.m_Err, HasSubstr("Deleted: md_d0, md_d1. Still there: md_d2 ("));
}

TEST(Question, OnlyAYesChangesSomething) {
  const CKeptMachine machine("plain");
  ASSERT_EQ(machine.Run({"array", "create", "--level", "raid0", "sda", "sdb", "--yes"}).m_Status, 0);
  for (const auto& [answer, status] : {std::pair{"\n", 4}, {"no\n", 4}, {"\x04", 4}, {"y\n", 0}}) {
    ASSERT_EQ(machine.Arrays().size(), 1U);
    CProgram program(machine.WordsOf({"array", "delete", "md_d0"}), true);
    ASSERT_TRUE(program.ReadUntil("[y/N]"));
    EXPECT_THAT(program.Out(), HasSubstr("This will delete md_d0")) << "the plan comes first";
    program.Type(answer);
    EXPECT_EQ(program.Wait(), status) << program.Out();
  }
  EXPECT_EQ(machine.Arrays(), json::array());
}

}  // namespace
