#include "tests/support/Arrays.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "system/Descriptor.h"

namespace NAMESPACE_piRVX {

std::string DisksOf(const std::vector<std::uint64_t>& sizes, const std::string& more) {
  std::string disks;
  for (std::size_t at = 0; at < sizes.size(); ++at)
    disks += Text(R"(%s{"name": "sd%c", "controller": "sas", "size": %d})", at == 0 ? "" : ", ",
                  static_cast<char>('a' + at), sizes[at]);
  return R"({"controllers": [{"name": "sas", "pci": "0000:03:00.0", "vendor": "0x1000", "driver": "mpt2sas"}],)"
         "\"disks\": [" +
         disks + "]" + (more.empty() ? "" : ", " + more) + "}";
}

std::string MirrorOfTwo(const std::string& name, const std::string& more) {
  return Text(R"("arrays": [{"name": "%s", "level": "raid1", "members": ["sda", "sdb"]%s%s}])", name,
              more.empty() ? "" : ", ", more);
}

PI::COperation Operation(unsigned int code) {
  PI::COperation operation;
  operation.m_Code = operation.m_SecondCode = code;
  return operation;
}

PI::COperation Operation(unsigned int code, unsigned long arrayNumber) {
  PI::COperation operation = Operation(code);
  operation.m_Parameters.emplace_back(PI::PROP_TARGET_LOGICAL_DRIVE, true).SetValue(arrayNumber);
  return operation;
}

unsigned int Execute(CTestInstance& plugin, unsigned long id, PI::COperation operation) {
  return plugin.Execute(PI::CMD_EXECUTE_OPERATION, id, &operation);
}

unsigned int Check(CTestInstance& plugin, unsigned long id, PI::COperation operation) {
  return plugin.Execute(PI::CMD_CHECK_OPERATION, id, &operation);
}

unsigned int Create(CTestInstance& plugin, std::uint32_t level, std::uint32_t stripeSize,
                    const std::vector<std::string>& disks, std::size_t containers) {
  PI::CContainer container;
  for (const std::string& disk : disks)
    container.m_Drives.emplace_back(disk == "?" ? 4711 : plugin.Drive(disk).m_ID);
  PI::CLogicalDrive request;
  request.m_RaidLevel = level;
  request.m_StripeSize = stripeSize;
  request.m_Containers.assign(containers, container);
  PI::COperation operation = Operation(PI::OP_CREATE_LOGICAL_DRIVE);
  operation.m_pRequest = &request;
  return Execute(plugin, plugin.m_Adapter.m_ID, operation);
}

Md::md_superblock1 SuperBlockOf(const Simulation::CSimulatedSystem& machine, const CRVXPhysicalDrive& drive) {
  const std::string bytes =
      machine.DiskBytes(drive.m_KernelName, Md::SuperPosition(drive.m_Size), Md::md_superblock1::SIZE);
  Md::md_superblock1 record;
  std::memcpy(&record, bytes.data(), bytes.size());
  return record;
}

bool IsSuperBlock(const Md::md_superblock1& superBlock) {
  return superBlock.magic == Md::md_superblock1::MAGIC &&
         superBlock.sb_csum == Md::SuperBlockChecksum(superBlock);
}

mdu_array_info_t ArrayInfo(OS::COperatingSystem& machine, const std::string& name) {
  const OS::CDescriptor device(machine, "/dev/" + name, O_RDONLY);
  mdu_array_info_t info{};
  if (machine.Ioctl(device.Get(), GET_ARRAY_INFO, &info) < 0) throw std::out_of_range("no array " + name);
  return info;
}

bool Take(KVT::Threading::CEvent& event) {
  const bool set = event.Wait(0) == KVT::Threading::WAIT_OK;
  event.Reset();
  return set;
}

int CMdSystem::Ioctl(int descriptor, unsigned long request, void* argument) {
  static const std::map<unsigned long, const char*> changes = {
      {SET_ARRAY_INFO, "set"}, {ADD_NEW_DISK, "add"},       {RUN_ARRAY, "run"},
      {STOP_ARRAY, "stop"},    {HOT_REMOVE_DISK, "remove"}, {SET_DISK_FAULTY, "fail"}};
  if (const auto change = changes.find(request); change != changes.end()) {
    std::string& line = m_Changes.emplace_back(change->second);
    if (request == SET_ARRAY_INFO || request == ADD_NEW_DISK)
      for (std::size_t at = 0; at < _IOC_SIZE(request) / sizeof(int); ++at)
        line += Text(" %d", static_cast<const int*>(argument)[at]);
    else
      line += Text(" %d", reinterpret_cast<std::uintptr_t>(argument));
  }
  if (const auto answer = m_Answers.find(request); answer != m_Answers.end()) {
    errno = answer->second;
    return answer->second <= 0 ? -answer->second : -1;
  }
  if (request == GET_DISK_INFO) ++m_DiskQueries;
  if (request == GET_DISK_INFO && !m_Disks.empty()) {
    auto& disk = *static_cast<mdu_disk_info_t*>(argument);
    const auto known = m_Disks.find(disk.number);
    errno = EINVAL;
    if (known == m_Disks.end()) return -1;
    disk = known->second;
    return 0;
  }
  const int result = OS::CForwardingSystem::Ioctl(descriptor, request, argument);
  if (request == GET_ARRAY_INFO && result == 0 && m_Array) m_Array(*static_cast<mdu_array_info_t*>(argument));
  return result;
}

int CMdSystem::MakeNode(const std::string& path, mode_t mode, dev_t device) {
  m_Changes.push_back(Text("node %s %o %d:%d", path, mode, major(device), minor(device)));
  return OS::CForwardingSystem::MakeNode(path, mode, device);
}

}  // namespace NAMESPACE_piRVX
