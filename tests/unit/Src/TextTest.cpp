// What the plug-in makes of the texts that Linux hands out, well-formed and not.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Src/piRVXText.h"

using namespace NAMESPACE_piRVX;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string HEADING = "major minor  #blocks  name\n\n";

/// "8:0 1024 sda; 8:1 ..." for what was understood of /proc/partitions.
std::string Understood(const std::string& text) {
  std::string result;
  for (const SPartition& entry : ParsePartitions(text))
    result += std::to_string(entry.m_Major) + ":" + std::to_string(entry.m_Minor) + " " +
              std::to_string(entry.m_Blocks) + " " + entry.m_Name + "; ";
  return result;
}

TEST(PartitionsTable, IsReadUpToTheFirstLineThatIsNone) {
  const std::string longName(40, 'n');
  const struct {
    const char* m_What;
    std::string m_Text;
    std::string m_Entries;
  } cases[] = {
      {"the kernel's form", HEADING + "   8        0  488386584 sda\n   9       10   1048448 md10\n",
       "8:0 488386584 sda; 9:10 1048448 md10; "},
      {"no file end", HEADING + "8 0 1 sda", "8:0 1 sda; "},
      {"large minors of extended devices", HEADING + " 259  1048575 7 nvme0n1p1\n",
       "259:1048575 7 nvme0n1p1; "},
      {"heading only", HEADING, ""},
      {"nothing", "", ""},
      {"half a heading", "major minor", ""},
      {"the two lines of heading are passed over whatever they say", "8 0 1 sda\n8 16 2 sdb\n8 32 3 sdc\n",
       "8:32 3 sdc; "},
      {"a heading without line ends is read as two pieces",
       std::string(255, 'x') + std::string(255, 'y') + "8 0 1 sda\n", "8:0 1 sda; "},
      {"a line without a size ends it", HEADING + "8 0 1 sda\n8 16 sdb\n8 32 3 sdc\n", "8:0 1 sda; "},
      {"letters end it", HEADING + "8 0 1 sda\neight 16 2 sdb\n8 32 3 sdc\n", "8:0 1 sda; "},
      {"negative numbers end it", HEADING + "8 0 1 sda\n8 -16 2 sdb\n8 32 3 sdc\n", "8:0 1 sda; "},
      {"a negative size ends it", HEADING + "8 0 -1 sda\n", ""},
      {"a number beyond a device number ends it", HEADING + "4294967296 0 1 sda\n", ""},
      {"more digits than a number may have are no size",
       HEADING + "8 0 12345678901234567890 sda\n8 16 2 sdb\n", "8:0 1234567890123456789 0; "},
      {"a long name is cut, and its rest ends it", HEADING + "8 0 1 " + longName + "\n8 16 2 sdb\n",
       "8:0 1 " + longName.substr(0, 31) + "; "},
      {"a zero byte ends it", HEADING + "8 0 1 sda\n" + std::string(1, '\0') + "8 16 2 sdb\n", "8:0 1 sda; "},
  };
  for (const auto& entry : cases) {
    SCOPED_TRACE(entry.m_What);
    EXPECT_EQ(Understood(entry.m_Text), entry.m_Entries);
  }
}

TEST(Devices, OnlyTheBlockSectionTellsTheMajorOfPartitionableArrays) {
  const std::pair<const char*, std::int64_t> cases[] = {
      {"Character devices:\n  1 mem\n\nBlock devices:\n  9 md\n253 mdp\n254 virtblk\n", 253},
      {"Character devices:\n 77 mdp\n\nBlock devices:\n253 mdp\n", 253},
      {"Character devices:\n 77 mdp\n\nBlock devices:\n  9 md\n", -1},
      {"Block devices:\n253 mdpx\n252 xmdp\n", -1},
      {"Block devices:\n0x253 mdp\n", -1},
      {"Block devices:\n mdp\n", -1},
      {"Block devices:\n99999999999999999999 mdp\n", -1},
      {"", -1},
  };
  for (const auto& [text, major] : cases) EXPECT_EQ(ParseMdMajor(text), major) << text;
}

TEST(UdevRecord, TheHostPathEndsInFrontOfThePort) {
  const struct {
    std::vector<std::string> m_Lines;
    const char* m_Path;
  } cases[] = {
      {{"N: sda", "P: /devices/pci0000:00/0000:00:1f.2/ata1/host0/target0:0:0/0:0:0:0/block/sda"},
       "/sys/devices/pci0000:00/0000:00:1f.2"},
      {{"P: "
        "/devices/pci0000:00/0000:00:1c.0/0000:03:00.0/host2/port-2:0/end_device-2:0/target2:0:0/block/sdc"},
       "/sys/devices/pci0000:00/0000:00:1c.0/0000:03:00.0"},
      // The last port that stands before the first host.
      {{"P: /devices/ata1/ata2/host0/ata3/host1/block/sda"}, "/sys/devices/ata1"},
      {{"P: /devices/x/ata1/block/sda"}, "/sys/devices/x/ata1/block/sda"},
      {{"P: /devices/virtual/block/md0"}, "/sys/devices/virtual/block/md0"},
      // Whatever follows the eleven characters; and the first such line alone.
      {{"P: /devicesX"}, "/sys/devicesX"},
      {{"P: /devices"}, "/sys/devices"},
      {{"P: /devices/first", "P: /devices/second"}, "/sys/devices/first"},
      {{" P: /devices/blank"}, ""},
      {{"P:/devices/tight", "P: /device"}, ""},
      {{"E: DEVPATH=/devices/pci0000:00", ""}, ""},
      {{}, ""},
  };
  for (const auto& entry : cases) EXPECT_EQ(HostPathOfRecord(entry.m_Lines), entry.m_Path);
}

TEST(Names, TellDisksAndArraysFromAllElse) {
  for (const char* name : {"sda", "hdc", "sdz", "sdaa", "hdzz"}) EXPECT_TRUE(IsDiskName(name)) << name;
  for (const char* name :
       {"", "sd", "sdaaa", "sda1", "sdA", "vda", "xsda", "sda ", "sd1", "nvme0n1", "sda\n"})
    EXPECT_FALSE(IsDiskName(name)) << name;
  const std::pair<const char*, std::optional<std::uint32_t>> arrays[] = {
      {"md0", 0},
      {"md127", 127},
      {"md_d0", 0},
      {"md_d63", 63},
      {"md007", 7},
      {"md4294967295", 4294967295},
      {"md", std::nullopt},
      {"md_d", std::nullopt},
      {"md0p1", std::nullopt},
      {"md_d0p1", std::nullopt},
      {"mdt", std::nullopt},
      {"md:digit:", std::nullopt},
      {"md_0", std::nullopt},
      {"xmd0", std::nullopt},
      {"md-1", std::nullopt},
      {"md4294967296", std::nullopt},
      {"md99999999999999999999", std::nullopt},
  };
  for (const auto& [name, number] : arrays) EXPECT_EQ(ArrayNumber(name), number) << name;
}

TEST(Progress, IsBelievedOnlyBehindABar) {
  const struct {
    const char* m_Line;
    std::string m_Understood;
  } cases[] = {
      {"[==>..................]  recovery = 12.6% (1/2) finish=1.0min speed=1K/sec\n", "rebuild 12"},
      {"[>....................]  resync =  3.0% (1/2)\n", "resync 3"},
      {"[>....................]  recovery =  0.4%\n", "rebuild 0"},
      // No blank before three digits: the bar counts, the number cannot be found.
      {"[====================>]  resync =100.0% (2/2)\n", "resync 0"},
      {"[====================>]  recovery =100.0% (2/2)\n", "rebuild 0"},
      {"[==>..................]  reshape = 12.6%\n", "rebuild 0"},
      {"[==>..................]  recovery = -5%\n", "rebuild 0"},
      {"[==>..................]  recovery = soon\n", "rebuild 0"},
      {"[==>..................]  recovery = ", "rebuild 0"},
      {"[==>..................]  re", "rebuild 0"},
      // Both words: a resync, with its own number.
      {"[==>..................]  recovery = 5% resync = 7%\n", "resync 7"},
      {"[==>..................] recovery = 12.6%\n", "none"},
      {"[==>..................]  check = 12.6%\n", "none"},
      {"      \tresync=DELAYED\n", "none"},
      {"", "none"},
  };
  for (const auto& entry : cases) {
    const auto progress = ParseProgress(entry.m_Line);
    const std::string understood =
        progress ? (progress->m_Resync ? "resync " : "rebuild ") + std::to_string(progress->m_Percent)
                 : "none";
    EXPECT_EQ(understood, entry.m_Understood) << entry.m_Line;
  }
}

TEST(Progress, LinesAreFoundByAnyTextThatContainsTheName) {
  const std::string mdstat =
      "Personalities : [raid1]\n"
      "md10 : active raid1 sdb[1] sda[0]\nblocks of 10\nbar of 10\n\n"
      "md1 : active raid1 sdd[1] sdc[0]\nblocks of 1\nbar of 1\n\n"
      "unused devices: <none>\n";
  EXPECT_THAT(ProgressLines(mdstat, "md1"), ElementsAre("bar of 10\n", "bar of 1\n"));
  EXPECT_THAT(ProgressLines(mdstat, "md10"), ElementsAre("bar of 10\n"));
  EXPECT_THAT(ProgressLines(mdstat, "md2"), IsEmpty());
  EXPECT_THAT(ProgressLines("", "md1"), IsEmpty());
  EXPECT_THAT(ProgressLines("md1 : active\n", "md1"), IsEmpty());
  EXPECT_THAT(ProgressLines("md1 : active\nblocks", "md1"), IsEmpty());
  EXPECT_THAT(ProgressLines("md1 : active\nblocks\nbar", "md1"), ElementsAre("bar"));
  // A line that is longer than one read comes in pieces, and each piece counts as a line.
  const std::string wide = "md1 : active raid1 " + std::string(MDSTAT_READ, '#') + "\nblocks\nbar\n";
  EXPECT_THAT(ProgressLines(wide, "md1"), ElementsAre("blocks\n"));
}

TEST(Lines, AreHandedOutInBoundedPieces) {
  CLineReader lines("abcdef\n\nxy", 4);
  std::vector<std::string> pieces;
  while (const auto piece = lines.Next()) pieces.emplace_back(*piece);
  EXPECT_THAT(pieces, ElementsAre("abcd", "ef\n", "\n", "xy"));
  EXPECT_EQ(FirstLine("0x8086\nmore", 255), "0x8086\n");
  EXPECT_EQ(FirstLine("0x8086", 3), "0x8");
  EXPECT_EQ(FirstLine("", 255), "");
  EXPECT_EQ(WithoutLast(""), "");
  EXPECT_EQ(WithoutLast("a"), "");
}

}  // namespace
