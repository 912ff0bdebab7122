/// @file
/// The contract on the Linux that runs it: rvx_contract DISK DISK DISK [gtest options]. The disks, named as
/// the kernel names them, are overwritten; arrays are made and stopped. For the virtual machine, never for a
/// machine in use.

#include <iostream>

#include "system/Linux.h"
#include "tests/contract/Contract.h"

namespace {
std::vector<std::string> s_Disks;
}  // namespace

NAMESPACE_piRVX::SContractMachine NAMESPACE_piRVX::MakeContractMachine() {
  return {std::make_unique<OS::CLinux>(), s_Disks};
}

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  s_Disks.assign(argv + 1, argv + argc);
  if (s_Disks.size() != 3) {
    std::cerr << "usage: rvx_contract DISK DISK DISK [gtest options]\n";
    return 2;
  }
  return RUN_ALL_TESTS();
}
