#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/sysmacros.h>

#include <cerrno>

#include "simulator/FaultyMachine.h"
#include "simulator/SimulatedMachine.h"
#include "system/Descriptor.h"

namespace NAMESPACE_piRVX {
namespace {

using ECall = CFaultyMachine::ECall;
using testing::ElementsAre;

class FaultyMachine : public testing::Test {
 protected:
  CSimulatedMachine m_Machine{CSimulatedMachine::DemoDescription()};
  CFaultyMachine m_Door{m_Machine};
};

TEST_F(FaultyMachine, EveryKindFailsInItsOwnWay) {
  const CDescriptor file(m_Machine, "/dev/sdf", O_RDWR);
  char byte = 0;
  struct stat status {};
  boost::filesystem::path path;
  std::vector<std::string> lines;
  const std::vector<std::pair<ECall, std::function<bool()>>> cases = {
      {ECall::Open, [&] { return m_Door.Open("/dev/sda", O_RDONLY) == -1; }},
      {ECall::Read, [&] { return m_Door.Read(file.Get(), &byte, 1) == -1; }},
      {ECall::Write, [&] { return m_Door.Write(file.Get(), &byte, 1) == -1; }},
      {ECall::Seek, [&] { return m_Door.Seek(file.Get(), 0) == -1; }},
      {ECall::Sync, [&] { return m_Door.Sync(file.Get()) == -1; }},
      {ECall::Ioctl, [&] { return m_Door.Ioctl(file.Get(), 0x31f, nullptr) == -1; }},
      {ECall::WaitExceptional, [&] { return m_Door.WaitExceptional(file.Get(), 0) == -1; }},
      {ECall::MakeNode, [&] { return m_Door.MakeNode("/dev/x", S_IFBLK, makedev(9, 3)) == -1; }},
      {ECall::Status, [&] { return m_Door.Status("/dev/sda", status) == -1; }},
      {ECall::Status, [&] { return m_Door.Status(file.Get(), status) == -1; }},
      {ECall::ReadLink, [&] { return !m_Door.ReadLink("/proc/self/exe"); }},
      {ECall::GetCommandPath, [&] { return m_Door.GetCommandPath("udevadm", path) == 0; }},
      {ECall::ExecuteCommand, [&] { return m_Door.ExecuteCommand("/usr/bin/udevadm", "", lines) == 0; }},
      {ECall::GetPartitions, [&] { return m_Door.GetPartitions("/dev/md_d0").empty(); }}};
  for (const auto& [kind, fails] : cases) {
    const std::uint64_t struck = m_Door.Struck();
    m_Door.FailAt(kind, 1, ENOTUNIQ);
    errno = 0;
    EXPECT_TRUE(fails()) << static_cast<int>(kind);
    EXPECT_EQ(errno, ENOTUNIQ) << static_cast<int>(kind);
    EXPECT_EQ(m_Door.Struck(), struck + 1);
    errno = 0;
    fails();
    EXPECT_NE(errno, ENOTUNIQ) << "once is once";
  }
  EXPECT_EQ(m_Machine.OpenDescriptors(), 2U) << "what failed did not reach the machine; its repetition did";
}

TEST_F(FaultyMachine, TheNthCallFailsAndAsManyMoreAsAskedFor) {
  m_Door.FailAt(ECall::Any, 3, EIO, 1);
  std::string pattern;
  for (int i = 0; i < 6; ++i) pattern += ReadText(m_Door, "/sys/block/sda/size") ? "r" : "-";
  // Three calls each: an opening and two readings, the second of which finds the end.
  EXPECT_EQ(m_Door.Count(ECall::Any), m_Door.Count(ECall::Open) + m_Door.Count(ECall::Read));
  EXPECT_EQ(pattern, "--rrrr") << "the third call is a reading, the fourth an opening";
  EXPECT_EQ(m_Door.Struck(), 2U);
  EXPECT_EQ(m_Machine.OpenDescriptors(), 0U);
  m_Door.FailAt(ECall::Open, 1, EIO);
  m_Door.Clear();
  EXPECT_TRUE(ReadText(m_Door, "/sys/block/sda/size"));
}

TEST_F(FaultyMachine, ACloseThatFailsClosesAllTheSame) {
  const int file = m_Door.Open("/dev/sdf", O_RDONLY);
  m_Door.FailAt(ECall::Any, 1, EIO);
  m_Door.FailAt(ECall::Close, 1, EIO);
  EXPECT_EQ(m_Door.Close(file), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(m_Machine.OpenDescriptors(), 0U);
  EXPECT_FALSE(ReadText(m_Door, "/proc/mdstat")) << "the failure that was due is not spent on closing";
}

TEST_F(FaultyMachine, ReadsAndWritesCanBeCutShort) {
  const CDescriptor file(m_Door, "/dev/sdf", O_RDWR);
  std::string text(1024, 'x');
  m_Door.ShortenAt(ECall::Write, 2, 100);
  EXPECT_EQ(m_Door.Write(file.Get(), text.data(), text.size()), 1024);
  EXPECT_EQ(m_Door.Write(file.Get(), text.data(), text.size()), 100);
  m_Door.Seek(file.Get(), 0);
  m_Door.ShortenAt(ECall::Read, 1, 0);
  EXPECT_EQ(m_Door.Read(file.Get(), text.data(), text.size()), 0);
  EXPECT_EQ(m_Door.Read(file.Get(), text.data(), text.size()), 1024);
  EXPECT_EQ(m_Machine.DiskBytes("sdf", 1120, 6), std::string("xxxx\0\0", 6));
}

TEST_F(FaultyMachine, WhatIsOpenedForWritingIsRemembered) {
  m_Door.FailAt(ECall::Open, 2, EIO);
  const CDescriptor reader(m_Door, "/dev/sda", O_RDONLY);
  const CDescriptor refused(m_Door, "/dev/sdf", O_RDWR | O_EXCL);
  const CDescriptor writer(m_Door, "/dev/sdg", O_WRONLY);
  m_Door.MakeNode("/dev/md_d7", S_IFBLK | 0666, makedev(253, 448));
  EXPECT_THAT(m_Door.OpenedForWriting(), ElementsAre("/dev/sdf", "/dev/sdg"));
  EXPECT_THAT(m_Door.NodesMade(), ElementsAre("/dev/md_d7"));
}

}  // namespace
}  // namespace NAMESPACE_piRVX
