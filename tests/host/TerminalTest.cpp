/// @file
/// What a terminal is given: nothing that it would obey, and no line that is longer than it is wide.

#include <gmock/gmock.h>

#include "Program.h"
#include "host/Printable.h"
#include "rvxctl/Progress.h"

namespace {

using namespace Host;

TEST(Printable, NothingThatATerminalObeysOrHides) {
  const std::pair<std::string, const char*> cases[] = {
      {"plain \u00DCbergr\u00F6\u00DFe \u4E2D\u6587", "plain \u00DCbergr\u00F6\u00DFe \u4E2D\u6587"},
      {"\033]0;title\a\x7F\n\t", "?]0;title????"},
      {"\u0085\u009B31m", "??31m"},                        // controls of one character
      {"\u202Egnp.exe\u2066\u200F\u061C", "?gnp.exe???"},  // what turns the direction
      {"a\u200Bb\uFEFF\u00AD", "a?b??"},                   // what is not seen
      {"e\u0301", "e\u0301"},                              // an accent of its own is no such thing
      {"\xC3\xE4\xED\xA0\x80\xC0\x80\xF5", "????????"},    // cut, Latin-1, surrogate, overlong, too large
      {std::string("a\0b", 3), "a?b"}};
  for (const auto& [text, printable] : cases) EXPECT_EQ(Printable(text), printable);
  EXPECT_EQ(Printable("a\n\033", true), "a\n?");
}

TEST(Printable, IsMeasuredAndCutByWhatIsSeen) {
  EXPECT_EQ(WidthOf("\u4E2De\u0301\033[31mx\033[0m"), 4U);
  const std::tuple<std::string, std::size_t, const char*> cases[] = {
      {"\u4E2D\u6587", 3, "\u4E2D"},
      {"\u00FC\u00FC", 1, "\u00FC"},
      {"a\u4E2Db", 2, "a"},  // what comes after what does not fit is behind it
      {"\033[31mlong\033[0m", 2, "\033[31mlo\033[0m"}};
  for (const auto& [text, columns, cut] : cases) EXPECT_EQ(Cut(text, columns), cut);
}

TEST(Bar, IsNeverWiderThanTheTerminal) {
  const auto line = [](std::size_t columns) {
    return BarLine("md_d0 Resyncing", 50, "about 2 min left (90 s to 4 min)", columns);
  };
  EXPECT_THAT(line(0), testing::HasSubstr(std::string(20, '#') + std::string(20, '.') + "] 50%, about 2"));
  EXPECT_EQ(line(80), "md_d0 Resyncing [###########............] 50%, about 2 min left (90 s to 4 min)");
  EXPECT_EQ(line(60), "md_d0 Resyncing [##################...................] 50%");
  EXPECT_EQ(line(10), "50% md_d0");
  for (std::size_t columns = 1; columns < 120; ++columns) EXPECT_LT(line(columns).size(), columns);
}

/// What `status` or a list looks like on a terminal of that width.
std::string Seen(const std::string& columns, const std::string& words) {
  return ResultOf({"script", "-qec",
                   "stty rows 24 cols " + columns + "; " + RvxctlWords({}).back() + " " + words, "/dev/null"})
      .m_Out;
}

TEST(Terminal, IsNotTakenOverByADocument) {
  const CTemporaryFolder folder;
  const std::string words = "--simulate=" + folder.Write("machine.json", R"({
      "controllers": [{"name": "sas", "pci": "0000:03:00.0", "vendor": "0x1000", "driver": "mpt2sas"}],
      "disks": [{"name": "sda", "controller": "sas", "size": 20480, "model": "A\u009BB"}]})");
  EXPECT_THAT(Seen("80", words + " --json disk list"), testing::HasSubstr("\"A?B\""));
  EXPECT_THAT(Rvxctl({words, "--json", "disk", "list"}).m_Out, testing::HasSubstr("\"A\u009BB\""));
}

TEST(Terminal, TheDemonstrationFitsEightyColumns) {
  EXPECT_EQ(Seen("80", "--simulate --no-color status"),
            "Linux Multiple Devices (0): all in order (8 disks, 2 arrays)\r\n\r\n"
            "ARRAY  STATUS    LEVEL  SIZE      ACTIVITY       MEMBERS  DISKS\r\n"
            "md_d0  In order  raid0  16.0 GiB  None           2/2      sda sdb\r\n"
            "md_d1  In order  raid1  4.0 GiB   Resyncing 12%  2/2      sdc sdd sde(S)\r\n\r\n"
            "DISK  STATUS       SIZE      VENDOR   MODEL        SERIAL    MEDIUM  ARRAY\r\n"
            "sda   In use       8.0 GiB   Seagate  ST8000 DEMO  DEMO0001  HDD     md_d0\r\n"
            "sdb   In use       8.0 GiB   Seagate  ST8000 DEMO  DEMO0002  HDD     md_d0\r\n"
            "sdc   In use       4.0 GiB   SEAGATE  ST4000       DEMO0003  HDD     md_d1\r\n"
            "sdd   In use       4.0 GiB   SEAGATE  ST4000       DEMO0004  HDD     md_d1\r\n"
            "sde   Hot spare    4.0 GiB   SEAGATE  ST4000       DEMO0005  HDD     md_d1\r\n"
            "sdf   Ready        4.0 GiB   SEAGATE  ST4000       DEMO0006  HDD     -\r\n"
            "sdg   Ready        8.0 GiB   Seagate  ST8000 DEMO  DEMO0007  HDD     -\r\n"
            "sdh   Ready (SSD)  16.0 GiB  INTEL    SSDSC2BB48   DEMO0008  SSD     -\r\n");
  EXPECT_THAT(
      Seen("72", "--simulate disk list"),
      testing::HasSubstr("sda   In use       8.0 GiB   Seagat  ST8000 DEM  DEMO0001  HDD     md_d0\r\n"));
  EXPECT_THAT(Seen("80", "--simulate levels"),
              testing::HasSubstr("  2 to 384  64 KiB   4, 8, 16, 32, 64, 128 KiB\r\n"));
  const std::string narrow = Seen("56", Simulate("rules") + " --no-color status");
  EXPECT_THAT(narrow, testing::StartsWith(
                          "Linux Multiple Devices (0): 1 array degraded, 2 disks failed\r\n  (24 disks"));
  EXPECT_THAT(narrow,
              testing::HasSubstr("replace the disk,\r\n         then 'rvxctl spare add DISK md_d2'\r\n"))
      << "a command is not torn";
  EXPECT_THAT(narrow,
              testing::EndsWith(
                  "\r\n1 array degraded, 2 disks failed\r\n'rvxctl status --only-problems' shows what\r\n"))
      << "the head has rolled off";
}

/// 200 disks, a mirror of each two of the first 80 and, last of all, one that has lost its second member.
std::string LargeMachine() {
  nlohmann::json machine{
      {"controllers", {{{"name", "sas"}, {"pci", "0000:03:00.0"}, {"driver", "mpt2sas"}}}}};
  const auto name = [](int number) {
    const std::string last(1, static_cast<char>('a' + number % 26));
    return "sd" + (number < 26 ? "" : std::string(1, static_cast<char>('a' + number / 26 - 1))) + last;
  };
  for (int i = 0; i < 200; ++i)
    machine["disks"].push_back({{"name", name(i)}, {"controller", "sas"}, {"size", 65536}});
  for (int i = 0; i <= 40; ++i)
    machine["arrays"].push_back(
        {{"name", "md_d" + std::to_string(i)},
         {"level", "raid1"},
         {"members", {name(2 * i), i == 40 ? nlohmann::json() : nlohmann::json(name(2 * i + 1))}}});
  return machine.dump();
}

TEST(Terminal, TwoHundredDisksAreUsable) {
  const CTemporaryFolder folder;
  const std::string machine = "--simulate=" + folder.Write("large.json", LargeMachine());
  const std::string script = "stty rows 10 cols 60; \"$0\" " + machine + " --no-color status --watch";
  CProgram program({"bash", "-c", script, RvxctlWords({}).back()}, true);
  ASSERT_TRUE(program.ReadUntil("more lines")) << program.Out();
  const std::string screen = program.Out().substr(program.Out().find("\033[H"));
  EXPECT_EQ(std::ranges::count(screen, '\n'), 9) << screen;
  EXPECT_LT(screen.find("md_d40  Degraded  raid1"), screen.find("md_d0 ")) << "what is wrong comes first";
  program.Resize(40, 40);  // at once, not at the next look
  EXPECT_TRUE(program.ReadUntil("\nmd_d9   In order  raid1  63 MiB  None  >"))
      << "what is cut is marked" << program.Out();
  const Words list{machine, "disk", "list", "--no-headings", "--columns=name,role,size", "--bytes"};
  const auto listed = [&](const Words& more) {
    Words words = list;
    words.insert(words.end(), more.begin(), more.end());
    return Rvxctl(words).m_Out;
  };
  EXPECT_EQ(listed({"--array", "md_d40"}), "sdcc  active  67108864\n");
  const std::string ready = listed({"--ready"});
  EXPECT_EQ(std::ranges::count(ready, '\n'), 119);
  EXPECT_TRUE(ready.starts_with("sdcd  -  67108864\nsdce")) << ready;
  EXPECT_EQ(listed({"--failed"}), "");
  EXPECT_EQ(Rvxctl({machine, "disk", "list", "--failed"}).m_Out, "No disk matches.\n");
}

}  // namespace
