#pragma once
/// @file
/// Arrays as tests ask for them and look at them.

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tests/support/TestInstance.h"

namespace NAMESPACE_piRVX {

/// A machine of SAS disks sda, sdb ... with these sizes in KiB; `more` are further members of the
/// description, such as arrays.
std::string DisksOf(const std::vector<std::uint64_t>& sizes, const std::string& more = "");
/// Such a member: a mirror of sda and sdb, and what else is to be said of it.
std::string MirrorOfTwo(const std::string& name, const std::string& more = "");

/// A request for an array on these disks.
PI::CLogicalDrive RequestOf(CTestInstance& plugin, std::uint32_t level, std::uint32_t stripeSize,
                            const std::vector<std::string>& disks);

/// The operation with this code, as the object offers none but it.
PI::COperation Operation(unsigned int code);
/// An operation with an array number as its parameter.
PI::COperation Operation(unsigned int code, unsigned long arrayNumber);
/// Lets the plug-in execute an operation on an object, as the framework does.
unsigned int Execute(CTestInstance& plugin, unsigned long id, PI::COperation operation);
unsigned int Check(CTestInstance& plugin, unsigned long id, PI::COperation operation);
/// Creates an array.
unsigned int Create(CTestInstance& plugin, std::uint32_t level, std::uint32_t stripeSize,
                    const std::vector<std::string>& disks);

/// What stands where a disk's superblock is.
md_superblock1 SuperBlockOf(const CSimulatedMachine& machine, const CRVXPhysicalDrive& drive);
/// True when md would take the record for a superblock.
bool IsSuperBlock(const md_superblock1& superBlock);
/// md's own records; level and sizes are those that it runs with. Fails hard when it has no such array.
mdu_array_info_t ArrayInfo(COperatingSystem& machine, const std::string& name);

/// Takes and resets an event: true when it was set.
bool Take(KVT::Threading::CEvent& event);

/// Records md's requests with their arguments, and answers some of them in md's place.
class CMdDoor : public CForwardingMachine {
 public:
  using CForwardingMachine::CForwardingMachine;

  int Ioctl(int descriptor, unsigned long request, void* argument) override;

  /// Answers of GET_DISK_INFO by number; a number that is not there is refused. Empty: md answers.
  std::map<int, mdu_disk_info_t> m_Disks;
  std::function<void(mdu_array_info_t&)> m_Array;  ///< changes the answers of GET_ARRAY_INFO
  /// Requests that succeed, or fail with this errno, without reaching md.
  std::map<unsigned long, int> m_Answers;
  /// Requests that change something, with the number or (for records) zero as their argument.
  std::vector<std::pair<unsigned long, std::uintptr_t>> m_Changes;
  std::vector<mdu_disk_info_t> m_Added;  ///< records of ADD_NEW_DISK
  std::uint64_t m_DiskQueries{0};
};

using SMdRig = SRigOf<CMdDoor>;

}  // namespace NAMESPACE_piRVX
