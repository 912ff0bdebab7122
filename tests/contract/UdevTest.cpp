// What the toolkit answers in udevadm's place is what udevadm prints. On Linux alone, with the rights of
// root.
#include <boost/algorithm/string.hpp>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "KVTX/System.h"
#include "libraries/zqKVTX/CommandRunner.h"
#include "libraries/zqKVTX/DeviceRecord.h"
#include "tests/contract/Contract.h"

namespace NAMESPACE_piRVX {

using TLines = std::vector<std::string>;

/// The same for records that say the same: udevadm itself has links in another order each time it runs.
TLines Comparable(TLines lines) {
  std::erase_if(lines, [](const std::string& line) { return line.starts_with("L: "); });
  const std::string links = "E: DEVLINKS=";
  for (std::string& line : lines)
    if (line.starts_with(links)) {
      TLines words;
      boost::split(words, line.erase(0, links.size()), boost::is_any_of(" "));
      std::sort(words.begin(), words.end());
      line = links + boost::join(words, " ");
    }
  // Those of one kind, which stand together.
  for (auto first = lines.begin(); first != lines.end();) {
    const auto end = std::find_if(first, lines.end(), [kind = first->substr(0, 1)](const std::string& line) {
      return line.substr(0, 1) != kind;
    });
    std::sort(first, end);
    first = end;
  }
  return lines;
}

TEST_F(CContract, UdevadmIsAnsweredForWithItsOwnLines) {
  boost::filesystem::path udevadm;
  ASSERT_EQ(Os().GetCommandPath("udevadm", udevadm), 1);
  TLines lines;
  const auto expectTheSame = [&](const std::string& name) {
    const std::string arguments = "info -q all -n /dev/" + name;
    ASSERT_EQ(KVTX::CSystem::ExecuteCommand(udevadm, arguments, lines), 1) << name;
    EXPECT_EQ(KVTX::Internal::DeviceRecord("/dev/" + name), lines) << "not by running the program";
    EXPECT_EQ(Comparable(lines), Comparable(KVTX::Internal::RunCommand(udevadm, arguments, {}).m_Lines));
  };
  std::size_t disks = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/sys/block"))
    if (const std::string name = entry.path().filename(); std::filesystem::exists("/dev/" + name)) {
      expectTheSame(name);
      ++disks;
    }
  EXPECT_GE(disks, 3U);

  // What udev writes down anew is read anew, with the old record known.
  const std::string database = "/run/udev/data/b8:" + std::to_string(minor(DiskDevice(0))),
                    renewed = database + ".test";
  std::filesystem::copy_file(database, renewed);
  std::ofstream(renewed, std::ios::app) << "E:RVX_TEST=1\n";
  std::filesystem::rename(renewed, database);
  expectTheSame(Disk(0));
  EXPECT_THAT(lines, testing::Contains("E: RVX_TEST=1"));
  for (const char* node : {"/dev/null", "/proc/version", "/dev/no_such_disk"})
    EXPECT_EQ(KVTX::CSystem::ExecuteCommand(udevadm, std::string("info -q all -n ") + node, lines),
              KVTX::Internal::RunCommand(udevadm, std::string("info -q all -n ") + node, {}).m_Result)
        << node;
}

}  // namespace NAMESPACE_piRVX
