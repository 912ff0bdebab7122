#pragma once
/// @file
/// Arrays as tests ask for them and look at them.

#include <gmock/gmock.h>

#include <functional>
#include <map>
#include <set>

#include "Src/md/Array.h"
#include "Src/md/Superblock.h"
#include "tests/support/TestInstance.h"

namespace NAMESPACE_piRVX {

/// A machine of SAS disks sda, sdb ... with these sizes in KiB and further members of the description.
std::string DisksOf(const std::vector<std::uint64_t>& sizes, const std::string& more = "");
/// Such a member: a mirror of sda and sdb, and what else is to be said of it.
std::string MirrorOfTwo(const std::string& name, const std::string& more = "");

PI::COperation Operation(unsigned int code);
PI::COperation Operation(unsigned int code, unsigned long arrayNumber);
unsigned int Execute(CTestInstance& plugin, unsigned long id, PI::COperation operation);
unsigned int Check(CTestInstance& plugin, unsigned long id, PI::COperation operation);
/// Creates an array; its request holds the disks in each of its containers. "?" is a disk that nobody knows.
unsigned int Create(CTestInstance& plugin, std::uint32_t level, std::uint32_t stripeSize,
                    const std::vector<std::string>& disks, std::size_t containers = 1);

Md::md_superblock1 SuperBlockOf(const Simulation::CSimulatedSystem& machine, const CRVXPhysicalDrive& drive);
bool IsSuperBlock(const Md::md_superblock1& superBlock);
/// md's own record of a running array.
mdu_array_info_t ArrayInfo(OS::COperatingSystem& machine, const std::string& name);

bool Take(KVT::Threading::CEvent& event);

/// Records what changes an array or makes a node, and answers some of md's requests in its place.
class CMdSystem : public OS::CForwardingSystem {
 public:
  using OS::CForwardingSystem::CForwardingSystem;

  int Ioctl(int descriptor, unsigned long request, void* argument) override;
  int MakeNode(const std::string& path, mode_t mode, dev_t device) override;

  /// Answers of GET_DISK_INFO by number; a number that is not there is refused. Empty: md answers.
  std::map<int, mdu_disk_info_t> m_Disks;
  std::function<void(mdu_array_info_t&)> m_Array;  ///< changes the answers of GET_ARRAY_INFO
  /// Requests that fail with this errno without reaching md, or answer 0 or the amount of what is below.
  std::map<unsigned long, int> m_Answers;
  /// Changes in a line each, with the numbers of their record or the argument itself: "add 2 8 32 -1 0",
  /// "stop 0", "node /dev/md_d1 60666 253:64".
  std::vector<std::string> m_Changes;
  std::uint64_t m_DiskQueries{0};
};

using SMdRig = SRigOf<CMdSystem>;

}  // namespace NAMESPACE_piRVX
