/// @file
/// The contract on the Linux that runs it: rvx_contract DISK DISK DISK [gtest options]. The disks, named as
/// the kernel names them, are overwritten; arrays are made and stopped. For the virtual machine, never for a
/// machine in use.

#include <iostream>

#include "system/Linux.h"
#include "tests/support/Contract.h"

namespace NAMESPACE_piRVX {
namespace {

constexpr std::ptrdiff_t DISKS = 3;
std::vector<SContractMachine> s_Machines;

}  // namespace

INSTANTIATE_TEST_SUITE_P(Linux, CContract, testing::ValuesIn(s_Machines),
                         [](const auto& machine) { return machine.param.m_Name; });

}  // namespace NAMESPACE_piRVX

int main(int argc, char** argv) {
  using namespace NAMESPACE_piRVX;
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments.size() < DISKS || arguments[0].starts_with("-")) {
    std::cerr << "usage: rvx_contract DISK DISK DISK [gtest options]\n";
    return 2;
  }
  s_Machines.push_back(
      {"Kernel", [] { return std::make_unique<CLinux>(); }, {arguments.begin(), arguments.begin() + DISKS}});
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
