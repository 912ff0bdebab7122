// What the plug-in makes of the texts that Linux hands out, well-formed and not.

#include <gmock/gmock.h>

#include "Src/md/ProcTexts.h"
#include "Src/piRVXTrace.h"

using namespace NAMESPACE_piRVX;
using testing::ElementsAre;

namespace {

const std::string HEADING = "major minor  #blocks  name\n\n";

/// "8:0 1024 sda; 8:1 ..." for what was understood of /proc/partitions.
std::string Understood(const std::string& text) {
  std::string result;
  for (const Md::SPartition& entry : Md::ParsePartitions(text))
    result += Text("%d:%d %d %s; ", entry.m_Major, entry.m_Minor, entry.m_Blocks, entry.m_Name);
  return result;
}

TEST(PartitionsTable, IsReadUpToTheFirstLineThatIsNone) {
  const std::pair<std::string, std::string> cases[] = {
      {HEADING + "   8        0  488386584 sda\n 259  1048575 7 nvme0n1p1",
       "8:0 488386584 sda; 259:1048575 7 nvme0n1p1; "},
      // The two lines of heading are passed over whatever they say.
      {"8 0 1 sda\n8 16 2 sdb\n8 32 3 sdc\n", "8:32 3 sdc; "},
      {std::string(255, 'x') + std::string(255, 'y') + "8 0 1 sda\n", "8:0 1 sda; "},
      {HEADING + "8 0 -1 sda\n", ""},
      {HEADING + "4294967296 0 1 sda\n", ""},
      // More digits than a number may have are no size. A long name is cut, and its rest ends the table.
      {HEADING + "8 0 12345678901234567890 sda\n8 16 2 sdb\n", "8:0 1234567890123456789 0; "},
      {HEADING + "8 0 1 " + std::string(40, 'n') + "\n8 16 2 sdb\n", "8:0 1 " + std::string(31, 'n') + "; "}};
  for (const auto& [text, entries] : cases) EXPECT_EQ(Understood(text), entries) << text;
}

TEST(Devices, OnlyTheBlockSectionTellsTheMajorOfPartitionableArrays) {
  EXPECT_EQ(Md::ParseMdMajor("Character devices:\n 77 mdp\n\nBlock devices:\n  9 md\n253 mdp\n254 vd\n"),
            253);
  EXPECT_EQ(Md::ParseMdMajor("Block devices:\n253 mdpx\n252 xmdp\n0x253 mdp\n mdp\n"), -1);
}

TEST(UdevRecord, TheHostPathEndsInFrontOfThePort) {
  const std::pair<std::vector<std::string>, const char*> cases[] = {
      {{"N: sda", "P: /devices/pci0/0000:00:1f.2/ata1/host0/0:0:0:0/block/sda"},
       "/sys/devices/pci0/0000:00:1f.2"},
      {{"P: /devices/0000:03:00.0/host2/port-2:0/block/sdc"}, "/sys/devices/0000:03:00.0"},
      // The last port that stands before the first host.
      {{"P: /devices/ata1/ata2/host0/ata3/host1/block/sda"}, "/sys/devices/ata1"},
      {{"P: /devices/x/ata1/block/sda", "P: /devices/second"}, "/sys/devices/x/ata1/block/sda"},
      {{std::string("P: /devices/0000:03:00.0\0/host2", 32)}, "/sys/devices/0000:03:00.0"},
      {{" P: /devices/blank", "E: DEVPATH=/devices/pci0000:00"}, ""}};
  for (const auto& [lines, path] : cases) EXPECT_EQ(Md::HostPathOfRecord(lines), path);
}

TEST(Names, TellDisksAndArraysFromAllElse) {
  for (const char* name : {"sda", "hdc", "sdzz"}) EXPECT_TRUE(Md::IsDiskName(name)) << name;
  for (const char* name : {"", "sd", "sdaaa", "sda1", "sdA", "vda", "xsda", "nvme0n1", "sda\n"})
    EXPECT_FALSE(Md::IsDiskName(name)) << name;
  for (const auto& [name, number] :
       {std::pair{"md0", 0U}, {"md_d63", 63U}, {"md007", 7U}, {"md2147483647", 2147483647U}})
    EXPECT_EQ(Md::ArrayNumber(name), number) << name;
  for (const char* name : {"md", "md_d", "md0p1", "md_d0p1", "mdt", "md_0", "xmd0", "md-1", "md2147483648"})
    EXPECT_EQ(Md::ArrayNumber(name), std::nullopt) << name;
}

TEST(Progress, IsBelievedOnlyBehindABar) {
  const std::pair<const char*, const char*> cases[] = {
      // No blank before three digits: the bar counts, the number cannot be found.
      {"[====================>]  resync =100.0% (2/2)\n", "resync 0"},
      {"[==>..................]  reshape = 12.6%\n", "rebuild 0"},
      {"[==>..................]  recovery = -5%\n", "rebuild 0"},
      // Both words: a resync, with its own number.
      {"[==>..................]  recovery = 5% resync = 7%\n", "resync 7"},
      {"[==>..................]  check = 12.6%\n", "none"},
      {"      \tresync=DELAYED\n", "none"}};
  for (const auto& [line, expected] : cases) {
    const auto progress = Md::ParseProgress(line);
    EXPECT_EQ(
        progress ? Text("%s %d", progress->m_Resync ? "resync" : "rebuild", progress->m_Percent) : "none",
        expected);
  }
}

/// The progress lines that a walk for these names shows; "-" for the end of the text.
std::vector<std::string> ProgressLines(const std::string& mdstat, const std::vector<std::string>& names) {
  std::vector<std::string> lines;
  Md::CMdstatWalk walk(mdstat, names, std::identity{}, Md::PROGRESS_LINE);
  while (const auto hit = walk.Next())
    lines.push_back(*hit->m_Object + " " + std::string(hit->m_Line.value_or("-")));
  return lines;
}

TEST(Progress, LinesAreFoundByAnyTextThatContainsTheName) {
  const std::string mdstat =
      "md10 : active raid1 sdb[1] sda[0]\nblocks of 10\nbar of 10\n\n"
      "md1 : active raid1 sdd[1] sdc[0]\nblocks of 1\nbar of 1\n\n";
  EXPECT_THAT(ProgressLines(mdstat, {"md1"}), ElementsAre("md1 bar of 10\n", "md1 bar of 1\n"));
  EXPECT_THAT(ProgressLines(mdstat, {"md1", "md10"}),
              ElementsAre("md1 bar of 10\n", "md10 md1 : active raid1 sdd[1] sdc[0]\n"));
  EXPECT_THAT(ProgressLines("md1 : active\nblocks", {"md1"}), ElementsAre("md1 -"));
  // A line that is longer than one read comes in pieces, and each piece counts as a line.
  const std::string wide = "md1 : active raid1 " + std::string(Md::MDSTAT_READ, '#') + "\nblocks\nbar\n";
  EXPECT_THAT(ProgressLines(wide, {"md1"}), ElementsAre("md1 blocks\n"));
  EXPECT_EQ(Md::FirstLine("0x8086\nmore", 255), "0x8086\n");
  EXPECT_EQ(Md::FirstLine("0x8086", 3), "0x8");
  EXPECT_EQ(Md::WithoutLast(""), "");
}

}  // namespace
