#include <linux/hdreg.h>

#include <array>
#include <cstring>
#include <numeric>

#include "tests/contract/Contract.h"

namespace NAMESPACE_piRVX {

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::EndsWith;
using testing::MatchesRegex;

TEST_F(CContract, BlockDevicesAreOpenedByTheirRules) {
  EXPECT_EQ(OpenError("/dev/no_such_disk", O_RDONLY), ENOENT);
  const OS::CDescriptor first(Os(), DiskPath(0), O_RDONLY | O_EXCL);
  EXPECT_EQ(OpenError(DiskPath(0), O_RDWR | O_EXCL), EBUSY);
  EXPECT_EQ(OpenError(DiskPath(0), O_RDONLY), 0) << "who asks for no exclusive access gets it";

  OpenArray();
  struct stat status {};
  ASSERT_EQ(Os().Status("/dev/" + Name(), status), 0);
  EXPECT_TRUE(S_ISBLK(status.st_mode));
  EXPECT_EQ(major(status.st_rdev), MdpMajor());
  EXPECT_EQ("md_d" + std::to_string(minor(status.st_rdev) / 64), Name());
  EXPECT_EQ(ErrorOf(Os().MakeNode("/dev/" + Name(), S_IFBLK | 0666, status.st_rdev)), EEXIST);
}

TEST_F(CContract, DisksAreReadAndWritten) {
  const OS::CDescriptor file(Os(), DiskPath(0), O_RDWR);
  const std::string text = "here and there";
  const auto size = static_cast<ssize_t>(text.size());
  std::string read(text.size(), '\0');
  ASSERT_EQ(Os().Seek(file.Get(), 4090), 4090) << "over the edge of a page";
  ASSERT_EQ(Os().Write(file.Get(), text.data(), text.size()), size);
  EXPECT_EQ(Os().Sync(file.Get()), 0);
  ASSERT_EQ(Os().Seek(file.Get(), 4090), 4090);
  ASSERT_EQ(Os().Read(file.Get(), read.data(), read.size()), size);
  EXPECT_EQ(read, text);

  EXPECT_EQ(ErrorOf(Os().Seek(file.Get(), -1)), EINVAL);
  const OS::CDescriptor readOnly(Os(), DiskPath(1), O_RDONLY);
  EXPECT_EQ(ErrorOf(Os().Write(readOnly.Get(), text.data(), text.size())), EBADF);
}

TEST_F(CContract, SmartDataIsReadFromAtaDisksAndRequestsThatDoNotBelongAreRefused) {
  std::array<unsigned char, 516> command{WIN_SMART, 0, 0xD0, 1};
  const OS::CDescriptor disk(Os(), DiskPath(0), O_RDONLY);
  ASSERT_EQ(Os().Ioctl(disk.Get(), HDIO_DRIVE_CMD, command.data()), 0) << std::strerror(errno);
  EXPECT_EQ(std::accumulate(command.begin() + 4, command.end(), 0U) % 256, 0U) << "the block's checksum";
  EXPECT_NE(command[6], 0) << "the first attribute";

  mdu_array_info_t info{};
  EXPECT_EQ(ErrorOf(Os().Ioctl(disk.Get(), GET_ARRAY_INFO, &info)), ENOTTY);
  const OS::CDescriptor text(Os(), "/proc/mdstat", O_RDONLY);
  EXPECT_EQ(ErrorOf(Os().Ioctl(text.Get(), STOP_ARRAY, nullptr)), ENOTTY);
  OpenArray();
  EXPECT_EQ(Request(HDIO_DRIVE_CMD, command.data()), ENOTTY);
}

TEST_F(CContract, PartitionsAndDevicesAreListedAsTheKernelFormatsThem) {
  auto partitions = Lines(Text("/proc/partitions"));
  ASSERT_GT(partitions.size(), 2U);
  EXPECT_EQ(partitions[0] + "|" + partitions[1], "major minor  #blocks  name|");
  partitions.erase(partitions.begin(), partitions.begin() + 2);
  EXPECT_THAT(partitions, Each(MatchesRegex("[ 0-9]{4}  [ 0-9]{7} [ 0-9]{10} [a-z0-9_]+")));
  const std::string devices = Text("/proc/devices");
  EXPECT_THAT(Lines(devices.substr(devices.find("Block devices:\n"))),
              AllOf(Contains("  9 md"), Contains("  8 sd")));
}

TEST_F(CContract, UdevTellsWhereADiskHangs) {
  boost::filesystem::path udevadm;
  ASSERT_EQ(Os().GetCommandPath("udevadm", udevadm), 1);
  std::vector<std::string> lines;
  ASSERT_EQ(Os().ExecuteCommand(udevadm, "info -q all -n " + DiskPath(0), lines), 1);
  ASSERT_FALSE(lines.empty());
  ASSERT_THAT(lines[0], MatchesRegex("P: /devices/pci.*/ata[0-9]+/host[0-9]+/target.*/block/" + Disk(0)));
  EXPECT_THAT(lines, Contains("N: " + Disk(0)));
  const auto value = [&](const std::string& key) {
    for (const std::string& line : lines)
      if (line.starts_with("E: " + key + "=")) return line.substr(key.size() + 4);
    return "no " + key;
  };
  EXPECT_THAT(value("DISKSEQ"), MatchesRegex("[0-9]+"));
  EXPECT_THAT(lines, Contains("S: disk/by-id/ata-" + value("ID_MODEL") + "_" + value("ID_SERIAL_SHORT")));
  EXPECT_THAT(lines, Contains("S: disk/by-path/" + value("ID_PATH")));
  EXPECT_THAT(value("ID_PATH"), MatchesRegex("pci-0000:[0-9a-f:.]+-ata-[0-9]+\\.0"));
  const std::string controller = "/sys" + lines[0].substr(3, lines[0].find("/ata") - 3);
  EXPECT_EQ(Text(controller + "/vendor"), "0x8086\n");
  EXPECT_THAT(Os().ReadLink(controller + "/driver").value_or(""), EndsWith("/bus/pci/drivers/ahci"));
  EXPECT_EQ(Os().ExecuteCommand(udevadm, "info -q all -n /dev/no_such_disk", lines), 2);
  EXPECT_EQ(Os().GetCommandPath("no_such_program", udevadm), 0);
}

TEST_F(CContract, SysfsDescribesADisk) {
  const std::string folder = "/sys/block/" + Disk(0);
  const std::pair<const char*, const char*> files[] = {{"/device/vendor", "ATA     \n"},
                                                       {"/device/model", ".{16}\n"},
                                                       {"/device/state", "running\n"},
                                                       {"/queue/rotational", "[01]\n"}};
  for (const auto& [file, form] : files) EXPECT_THAT(Text(folder + file), MatchesRegex(form));
  EXPECT_THAT(Os().ReadLink(folder + "/device").value_or(""),
              MatchesRegex("\\.\\./\\.\\./\\.\\./[0-9]+:[0-9]+:[0-9]+:[0-9]+"));

  const OS::CDescriptor directory(Os(), folder + "/device", O_RDONLY);
  ASSERT_TRUE(directory.IsOpen()) << "a folder can be opened, which is how its existence is tested";
  char byte = 0;
  EXPECT_EQ(ErrorOf(Os().Read(directory.Get(), &byte, 1)), EISDIR);
  EXPECT_EQ(OpenError("/sys/block/no_such_disk/device", O_RDONLY), ENOENT);
}

}  // namespace NAMESPACE_piRVX
