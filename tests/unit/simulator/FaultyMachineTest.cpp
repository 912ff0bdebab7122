#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/sysmacros.h>

#include <cerrno>

#include "simulator/FaultyMachine.h"
#include "simulator/SimulatedMachine.h"
#include "system/Descriptor.h"

namespace NAMESPACE_piRVX {
namespace {

using ECall = CFaultyMachine::ECall;

TEST(FaultyMachine, EveryKindFailsInItsOwnWayAndOnce) {
  CSimulatedMachine machine(CSimulatedMachine::DemoDescription());
  CFaultyMachine door(machine);
  const CDescriptor file(machine, "/dev/sdf", O_RDWR);
  char byte = 0;
  struct stat status {};
  boost::filesystem::path path;
  std::vector<std::string> lines;
  const std::vector<std::pair<ECall, std::function<bool()>>> cases = {
      {ECall::Open, [&] { return door.Open("/dev/sda", O_RDONLY) == -1; }},
      {ECall::Read, [&] { return door.Read(file.Get(), &byte, 1) == -1; }},
      {ECall::Write, [&] { return door.Write(file.Get(), &byte, 1) == -1; }},
      {ECall::Seek, [&] { return door.Seek(file.Get(), 0) == -1; }},
      {ECall::Sync, [&] { return door.Sync(file.Get()) == -1; }},
      {ECall::Ioctl, [&] { return door.Ioctl(file.Get(), 0x31f, nullptr) == -1; }},
      {ECall::WaitExceptional, [&] { return door.WaitExceptional(file.Get(), 0) == -1; }},
      {ECall::MakeNode, [&] { return door.MakeNode("/dev/x", S_IFBLK, makedev(9, 3)) == -1; }},
      {ECall::Status, [&] { return door.Status("/dev/sda", status) == -1; }},
      {ECall::ReadLink, [&] { return !door.ReadLink("/proc/self/exe"); }},
      {ECall::GetCommandPath, [&] { return door.GetCommandPath("udevadm", path) == 0; }},
      {ECall::ExecuteCommand, [&] { return door.ExecuteCommand("/usr/bin/udevadm", "", lines) == 0; }},
      {ECall::GetPartitions, [&] { return door.GetPartitions("/dev/md_d0").empty(); }}};
  for (const auto& [kind, fails] : cases) {
    door.FailAt(kind, 1, ENOTUNIQ);
    errno = 0;
    EXPECT_TRUE(fails()) << static_cast<int>(kind);
    EXPECT_EQ(errno, ENOTUNIQ) << static_cast<int>(kind);
    errno = 0;
    fails();
    EXPECT_NE(errno, ENOTUNIQ) << "once is once";
  }
  EXPECT_EQ(door.Struck(), cases.size());
  EXPECT_EQ(door.NodesMade().size(), 2U);
  EXPECT_EQ(machine.OpenDescriptors(), 2U) << "what failed did not reach the machine; its repetition did";
}

TEST(FaultyMachine, TheNthCallFailsOrFallsShort) {
  CSimulatedMachine machine(CSimulatedMachine::DemoDescription());
  CFaultyMachine door(machine);
  door.FailAt(ECall::Any, 3, EIO, 1);
  std::string pattern;
  for (int i = 0; i < 6; ++i) pattern += ReadText(door, "/sys/block/sda/size") ? "r" : "-";
  // Three calls each: an opening and two readings, the second of which finds the end.
  EXPECT_EQ(pattern, "--rrrr") << "the third call is a reading, the fourth an opening";
  EXPECT_EQ(door.Count(ECall::Open), 6U);
  std::string text(1024, 'x');
  const int file = door.Open("/dev/sdf", O_RDWR);
  door.ShortenAt(ECall::Write, 2, 100);
  EXPECT_EQ(door.Write(file, text.data(), text.size()), 1024);
  EXPECT_EQ(door.Write(file, text.data(), text.size()), 100);
  door.FailAt(ECall::Read, 1, EIO);
  door.Clear();
  EXPECT_EQ(door.Read(file, text.data(), text.size()), 1024);
  door.FailAt(ECall::Close, 1, EIO);
  EXPECT_EQ(door.Close(file), -1);
  EXPECT_EQ(machine.OpenDescriptors(), 0U) << "a close that fails closes all the same";
  EXPECT_EQ(door.OpenedForWriting(), std::vector<std::string>{"/dev/sdf"});
}

}  // namespace
}  // namespace NAMESPACE_piRVX
