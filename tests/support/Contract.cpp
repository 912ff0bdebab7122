#include "tests/support/Contract.h"

#include <fcntl.h>
#include <linux/hdreg.h>
#include <linux/major.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace NAMESPACE_piRVX {

TEST_P(CContract, OpeningFollowsTheRulesOfBlockDevices) {
  EXPECT_EQ(ErrorOf(Os().Open("/dev/no_such_disk", O_RDONLY)), ENOENT);
  // A number that no driver has.
  const std::string alien = "/dev/contract_alien";
  const bool made = Os().MakeNode(alien, S_IFBLK | 0600, makedev(240, 1)) == 0;
  EXPECT_TRUE(made || errno == EEXIST) << std::strerror(errno);
  EXPECT_EQ(ErrorOf(Os().Open(alien, O_RDONLY)), ENXIO);

  const CDescriptor first(Os(), DiskPath(0), O_RDONLY | O_EXCL);
  ASSERT_TRUE(first.IsOpen());
  EXPECT_EQ(ErrorOf(Os().Open(DiskPath(0), O_RDWR | O_EXCL)), EBUSY);
  const CDescriptor shared(Os(), DiskPath(0), O_RDONLY);
  EXPECT_TRUE(shared.IsOpen()) << "who asks for no exclusive access gets it";
}

TEST_P(CContract, NodesAreMadeOnceAndWithTheirNumber) {
  OpenArray();
  const std::string path = "/dev/" + Name();
  struct stat status {};
  ASSERT_EQ(Os().Status(path, status), 0);
  EXPECT_TRUE(S_ISBLK(status.st_mode));
  EXPECT_EQ(major(status.st_rdev), MdpMajor());
  EXPECT_EQ(minor(status.st_rdev) % 64, 0U);
  EXPECT_EQ(ErrorOf(Os().MakeNode(path, S_IFBLK | 0666, status.st_rdev)), EEXIST);
}

TEST_P(CContract, DisksAreReadAndWrittenUpToTheirEnd) {
  const auto end = static_cast<std::int64_t>(Sectors(0) * 512);
  const CDescriptor file(Os(), DiskPath(0), O_RDWR);
  ASSERT_TRUE(file.IsOpen());
  const std::string text = "here and there";
  std::string read(text.size(), '\0');
  ASSERT_EQ(Os().Seek(file.Get(), 4090), 4090) << "over the edge of a page";
  ASSERT_EQ(Os().Write(file.Get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  EXPECT_EQ(Os().Sync(file.Get()), 0);
  ASSERT_EQ(Os().Seek(file.Get(), 4090), 4090);
  ASSERT_EQ(Os().Read(file.Get(), read.data(), read.size()), static_cast<ssize_t>(read.size()));
  EXPECT_EQ(read, text);

  ASSERT_EQ(Os().Seek(file.Get(), end - 4), end - 4);
  EXPECT_EQ(Os().Read(file.Get(), read.data(), read.size()), 4);
  EXPECT_EQ(Os().Read(file.Get(), read.data(), read.size()), 0);
  EXPECT_EQ(ErrorOf(Os().Write(file.Get(), text.data(), text.size())), ENOSPC);
  EXPECT_EQ(ErrorOf(Os().Seek(file.Get(), -1)), EINVAL);
  EXPECT_EQ(ErrorOf(Os().Seek(file.Get(), end + 512)), EINVAL);

  const CDescriptor readOnly(Os(), DiskPath(1), O_RDONLY);
  EXPECT_EQ(ErrorOf(Os().Write(readOnly.Get(), text.data(), text.size())), EBADF);
}

TEST_P(CContract, RequestsThatDoNotBelongAreRefused) {
  mdu_array_info_t info{};
  const CDescriptor disk(Os(), DiskPath(0), O_RDONLY);
  EXPECT_EQ(ErrorOf(Os().Ioctl(disk.Get(), GET_ARRAY_INFO, &info)), ENOTTY);
  const CDescriptor text(Os(), "/proc/mdstat", O_RDONLY);
  EXPECT_EQ(ErrorOf(Os().Ioctl(text.Get(), STOP_ARRAY, nullptr)), ENOTTY);
  OpenArray();
  std::vector<unsigned char> command(516);
  EXPECT_EQ(Request(HDIO_DRIVE_CMD, command.data()), ENOTTY);
}

TEST_P(CContract, SmartDataIsReadFromAtaDisks) {
  std::vector<unsigned char> command(516);
  command[0] = WIN_SMART;
  command[2] = 0xD0;
  command[3] = 1;
  const CDescriptor disk(Os(), DiskPath(0), O_RDONLY);
  ASSERT_EQ(Os().Ioctl(disk.Get(), HDIO_DRIVE_CMD, command.data()), 0) << std::strerror(errno);
  unsigned int sum = 0;
  for (std::size_t i = 4; i < command.size(); ++i) sum += command[i];
  EXPECT_EQ(sum % 256, 0U) << "the block's checksum";
  EXPECT_NE(command[6], 0) << "the first attribute";
}

TEST_P(CContract, PartitionsAndDevicesAreListedAsTheKernelFormatsThem) {
  const auto partitions = Lines(Text("/proc/partitions"));
  ASSERT_GT(partitions.size(), 2U);
  EXPECT_EQ(partitions[0], "major minor  #blocks  name");
  EXPECT_EQ(partitions[1], "");
  for (std::size_t i = 2; i < partitions.size(); ++i) {
    EXPECT_TRUE(Matches(partitions[i], "[ 0-9]{4}  [ 0-9]{7} [ 0-9]{10} [a-z0-9_]+")) << partitions[i];
  }
  const auto devices = Lines(Text("/proc/devices"));
  const auto block = std::find(devices.begin(), devices.end(), "Block devices:");
  EXPECT_NE(std::find(block, devices.end(), "  9 md"), devices.end());
  EXPECT_NE(std::find(block, devices.end(), "  8 sd"), devices.end());
}

TEST_P(CContract, UdevTellsWhereADiskHangs) {
  boost::filesystem::path udevadm;
  ASSERT_EQ(Os().GetCommandPath("udevadm", udevadm), 1);
  std::vector<std::string> lines;
  ASSERT_EQ(Os().ExecuteCommand(udevadm, "info -q all -n " + DiskPath(0), lines), 1);
  ASSERT_FALSE(lines.empty());
  ASSERT_TRUE(Matches(lines[0], "P: /devices/pci.*/ata[0-9]+/host[0-9]+/target.*/block/" + Disk(0)))
      << lines[0];
  EXPECT_NE(std::find(lines.begin(), lines.end(), "N: " + Disk(0)), lines.end());
  const std::string controller = "/sys" + lines[0].substr(3, lines[0].find("/ata") - 3);
  EXPECT_EQ(Text(controller + "/vendor"), "0x8086\n");
  const auto driver = Os().ReadLink(controller + "/driver");
  ASSERT_TRUE(driver);
  EXPECT_TRUE(driver->ends_with("/bus/pci/drivers/ahci")) << *driver;

  EXPECT_EQ(Os().ExecuteCommand(udevadm, "info -q all -n /dev/no_such_disk", lines), 2);
  EXPECT_EQ(Os().GetCommandPath("no_such_program", udevadm), 0);
}

TEST_P(CContract, SysfsDescribesADisk) {
  const std::string folder = "/sys/block/" + Disk(0);
  EXPECT_EQ(Text(folder + "/device/vendor"), "ATA     \n");
  EXPECT_EQ(Text(folder + "/device/model").size(), 17U) << "16 characters, padded, and the line's end";
  EXPECT_EQ(Text(folder + "/device/state"), "running\n");
  EXPECT_TRUE(Matches(Text(folder + "/queue/rotational"), "[01]\n"));
  const auto device = Os().ReadLink(folder + "/device");
  ASSERT_TRUE(device);
  EXPECT_TRUE(Matches(*device, "\\.\\./\\.\\./\\.\\./[0-9]+:[0-9]+:[0-9]+:[0-9]+")) << *device;
  EXPECT_FALSE(Os().ReadLink(folder + "/device/vendor")) << "a file is no link";

  const CDescriptor directory(Os(), folder + "/device", O_RDONLY);
  ASSERT_TRUE(directory.IsOpen()) << "a folder can be opened, which is how its existence is tested";
  char byte = 0;
  EXPECT_EQ(ErrorOf(Os().Read(directory.Get(), &byte, 1)), EISDIR);
  EXPECT_EQ(ErrorOf(Os().Open("/sys/block/no_such_disk/device", O_RDONLY)), ENOENT);
}

TEST_P(CContract, RandomBytesComeInFull) {
  const CDescriptor file(Os(), "/dev/urandom", O_RDONLY);
  std::string first(16, '\0'), second(16, '\0');
  EXPECT_EQ(Os().Read(file.Get(), first.data(), first.size()), 16);
  EXPECT_EQ(Os().Read(file.Get(), second.data(), second.size()), 16);
  EXPECT_NE(first, second);
}

}  // namespace NAMESPACE_piRVX
