/// The whole plug-in on a machine whose every answer may be wrong: it asks for nothing but what it should,
/// changes nothing that a request did not name, and leaves nothing open or held.

#include <fnmatch.h>
#include <linux/hdreg.h>

#include <thread>

#include "KVT/Trace.h"
#include "Src/md/Array.h"
#include "Src/piRVXPhysicalDriveSmart.h"
#include "Src/piRVXPlugin.h"
#include "Src/piRVXTrace.h"
#include "simulator/SimulatedSystem.h"
#include "system/ForwardingSystem.h"
#include "tests/fuzz/Fuzz.h"
#include "tests/support/FaultySystem.h"

namespace NAMESPACE_piRVX {

namespace {

#define DISK "[sh]d[a-z]?([a-z])"
constexpr const char* PATHS = "@(/proc/@(partitions|devices|mdstat)|/dev/@(urandom|" DISK
                              "|md?(_d)+([0-9]))|/sys/devices*/@(vendor|driver)"
                              "|/sys/block/" DISK "/@(device|queue/rotational|device/@(vendor|model|state)))";
constexpr const char* COMMANDS = "@(/usr/bin/udevadm info -q all -n /dev/" DISK
                                 "|/opt/storage/bin/sdparm --@(all|command=start) /dev/" DISK " 2>&1)";

void RequireLike(const std::string& text, const char* pattern) {
  Require(text.find('\0') == std::string::npos && fnmatch(pattern, text.c_str(), FNM_EXTMATCH) == 0, text);
}

/// Overwrites a piece of every answer of some kinds.
class CHostileSystem final : public OS::CForwardingSystem {
 public:
  using OS::CForwardingSystem::CForwardingSystem;

  void Upset(FuzzedDataProvider& data) {
    auto& [place, piece] = m_Pieces[data.PickValueInArray(
        {"partitions", "devices", "mdstat", "vendor", "model", "state", "rotational", "driver", "udevadm",
         "sdparm", "array", "disk0", "disk1", "disk2", "smart", "sda"})];
    place = data.ConsumeIntegralInRange<std::size_t>(0, 300);
    piece = data.ConsumeRandomLengthString(200);
  }

  int Open(const std::string& path, int flags) override {
    if (m_Links.count(path) == 0) RequireLike(path, PATHS);
    Require((flags & O_ACCMODE) == O_RDONLY || m_Named.count(path) != 0, "writes to " + path);
    const int descriptor = OS::CForwardingSystem::Open(Existing(path), flags);
    m_Kinds[descriptor] = path.substr(path.rfind('/') + 1);
    return descriptor;
  }
  ssize_t Read(int descriptor, void* buffer, std::size_t size) override {
    const ssize_t count = OS::CForwardingSystem::Read(descriptor, buffer, size);
    if (count <= 0) return count;
    return Spoil(m_Kinds[descriptor], static_cast<char*>(buffer), static_cast<std::size_t>(count), size);
  }
  int Ioctl(int descriptor, unsigned long request, void* argument) override {
    const bool asks = request == GET_ARRAY_INFO || request == GET_DISK_INFO;
    Require(asks || m_Changes || _IOC_TYPE(request) != MD_MAJOR, "changes an array unasked");
    const int number = request == GET_DISK_INFO ? static_cast<mdu_disk_info_t*>(argument)->number : 0;
    const int result = OS::CForwardingSystem::Ioctl(descriptor, request, argument);
    auto* record = static_cast<char*>(argument);
    constexpr std::size_t ARRAY = sizeof(mdu_array_info_t), MEMBER = sizeof(mdu_disk_info_t), BLOCK = 512;
    if (request == GET_ARRAY_INFO) Spoil("array", record, ARRAY, ARRAY);
    if (request == GET_DISK_INFO) Spoil("disk" + std::to_string(number), record, MEMBER, MEMBER);
    if (request == HDIO_DRIVE_CMD) Spoil("smart", record + HDIO_DRIVE_CMD_HDR_SIZE, BLOCK, BLOCK);
    return result;
  }
  int Status(const std::string& path, struct stat& status) override {
    return OS::CForwardingSystem::Status(Existing(path), status);
  }
  std::optional<std::string> ReadLink(const std::string& path) override {
    auto target = OS::CForwardingSystem::ReadLink(Existing(path));
    if (path == "/proc/self/exe" || !target) return target;
    Spoil("driver", *target);
    return *m_Links.insert(*target).first;
  }
  int ExecuteCommand(const boost::filesystem::path& program, const std::string& arguments,
                     std::vector<std::string>& lines) override {
    RequireLike(program.string() + " " + arguments, COMMANDS);
    const std::size_t disk = arguments.find("/dev/");
    const std::string path = arguments.substr(disk, arguments.find(' ', disk) - disk);
    const int result = OS::CForwardingSystem::ExecuteCommand(
        program, arguments.substr(0, disk) + Existing(path) + arguments.substr(disk + path.size()), lines);
    if (!lines.empty()) Spoil(program.filename().string(), lines.front());
    return result;
  }
  int MakeNode(const std::string& path, mode_t mode, dev_t device) override {
    RequireLike(m_Changes ? path : "unasked", "/dev/md_d+([0-9])");
    return OS::CForwardingSystem::MakeNode(path, mode, device);
  }
  bool m_Changes{false};          ///< whether the request may change an array
  std::set<std::string> m_Named;  ///< the disks that it may write to

 private:
  void Spoil(const std::string& kind, std::string& text) {
    text.resize(text.size() + 200);
    text.resize(static_cast<std::size_t>(Spoil(kind, text.data(), text.size() - 200, text.size())));
  }
  /// The new length; there is room for `most`.
  ssize_t Spoil(const std::string& kind, char* text, std::size_t size, std::size_t most) {
    const auto& [place, piece] = m_Pieces[kind];
    const std::size_t at = std::min(place, size);
    return static_cast<ssize_t>(std::max(size, at + piece.copy(text + at, most - at)));
  }
  /// Disks and arrays that were made up exist: they are another one.
  std::string Existing(const std::string& path) {
    struct stat status {};
    const std::size_t name = path.starts_with("/sys/block/") ? 11 : 5;
    if (OS::CForwardingSystem::Status(path, status) == 0 || (name == 5 && !path.starts_with("/dev/")))
      return path;
    const std::size_t end = std::min(path.find('/', name), path.size());
    return path.substr(0, name) + (path[name] == 'm' ? "md_d1" : "sdf") + path.substr(end);
  }

  std::map<std::string, std::pair<std::size_t, std::string>> m_Pieces;
  std::map<int, std::string> m_Kinds;
  std::set<std::string> m_Links;  ///< what was answered as a link's target may be asked for
};

class CFuzzedInstance : public IPLUGINAPI_IMPL {
 public:
  CFuzzedInstance(const std::uint8_t* bytes, std::size_t size)
      : IPLUGINAPI_IMPL(m_System), m_Data(bytes, size) {}

  void Run() ZQ_NO_THREAD_SAFETY_ANALYSIS {
    KVT_MODULE_INFO_piRVX.SetTraceClasses(m_Data.ConsumeBool() ? 30 : 0);
    if (m_Data.ConsumeBool()) m_Machine.Upset(m_Data);
    std::vector<PI::CAdapterID> adapters;
    Execute(PI::CMD_INITIALIZE, 0, &adapters);
    while (m_Data.remaining_bytes() != 0) {
      Step();
      Require(m_Simulated.OpenDescriptors() == 0, "leaves a file open");
    }
    std::thread([this]() ZQ_NO_THREAD_SAFETY_ANALYSIS {
      Require(m_DataLock.Wait(0) == KVT::Threading::WAIT_OK, "leaves the data's lock held");
      Require(m_EventsLock.Wait(0) == KVT::Threading::WAIT_OK, "leaves the events' lock held");
    }).join();
  }

 private:
  void Step() {
    const int step = m_Data.ConsumeIntegralInRange(0, 9);
    const std::uint64_t calls = m_System.Count(CFaultySystem::ANY);
    if (step == 0) m_Simulated.Advance(3600000);
    if (step == 1) m_System.FailAt(CFaultySystem::ANY, calls + m_Data.ConsumeIntegralInRange(1U, 100U), EIO);
    if (step == 2 || step == 3) m_Machine.Upset(m_Data);
    if (step == 4 || step == 5) WorkerPass(m_Worker);
    if (step > 5) Request();
  }
  void Request() ZQ_NO_THREAD_SAFETY_ANALYSIS {
    PI::CProperty property(m_Data.PickValueInArray({PI::PROP_ALL, PI::PROP_POLL_INTERVAL, PI::PROP_STATUS}));
    if (m_Data.ConsumeBool()) property.SetValue(m_Data.ConsumeIntegralInRange(0UL, 3UL));
    if (m_Data.ConsumeBool()) property.SetValue(m_Data.ConsumeIntegral<int>(), 2, 255, 1);
    PI::CLogicalDrive wanted;
    wanted.m_RaidLevel =
        m_Data.ConsumeIntegralInRange<unsigned int>(PI::LEVEL_RAID0, PI::LEVEL_CONCATENATION);
    wanted.m_StripeSize = m_Data.ConsumeIntegralInRange<unsigned int>(PI::STRIPE_4K, PI::STRIPE_128K);
    wanted.m_Containers.resize(m_Data.ConsumeIntegralInRange(0U, 2U));
    for (PI::CContainer& container : wanted.m_Containers)
      for (int drives = m_Data.ConsumeIntegralInRange(0, 3); drives > 0; --drives)
        container.m_Drives.emplace_back(Object());
    PI::COperation operation;
    operation.m_Code = m_Data.PickValueInArray<unsigned int>(
        {PI::OP_CREATE_LOGICAL_DRIVE, PI::OP_CREATE_DEDICATED_HOTSPARE, PI::OP_DELETE_DEDICATED_HOTSPARE,
         PI::OP_REPLACE_MISSING_DRIVE, PI::OP_GET_MISSING_DRIVES, PI::OP_START_REBUILD, PI::OP_CANCEL_REBUILD,
         PI::OP_DELETE_LOGICAL_DRIVE, PI::OP_DELETE_LAST_LOGICAL_DRIVE, PI::OP_DELETE_ALL_LOGICAL_DRIVES,
         PI::OP_RESCAN_ADAPTER, PI::OP_GET_EVENTS, PI::OP_GET_RAID_LEVEL_INFORMATION,
         PI::OP_GET_CONFIGURATION});
    operation.m_pRequest = &wanted;
    if (m_Data.ConsumeBool()) operation.m_Parameters.push_back(property);
    std::vector<PI::CObject> objects;
    std::vector<PI::CProperty> properties;
    std::vector<PI::COperation> operations;
    void* const records[] = {&objects,    &properties, &property,  &property,
                             &operations, &operation,  &operation, &operation};
    const unsigned int which = m_Data.ConsumeIntegralInRange(0U, 7U);
    const auto command = static_cast<PI::_COMMAND>(std::min(PI::CMD_GET_TOPOLOGY + which, 10U));
    const unsigned long id = Object();
    m_Machine.m_Changes = command == PI::CMD_EXECUTE_OPERATION;
    for (const CRVXPhysicalDrive& drive : m_PhysicalDrives)
      if (m_Machine.m_Changes && IsNamed(drive, id, operation)) m_Machine.m_Named.insert(drive.DevicePath());
    Execute(command, id, records[which]);
    m_Machine.m_Changes = false;
    m_Machine.m_Named.clear();
  }
  unsigned long Object() ZQ_NO_THREAD_SAFETY_ANALYSIS {
    std::vector<unsigned long> all = {m_Plugin.m_ID, m_Adapter.m_ID, m_Adapter.m_ID, 0};
    for (const CRVXPhysicalDrive& drive : m_PhysicalDrives) all.push_back(drive.m_ID);
    for (const CRVXLogicalDrive& array : m_LogicalDrives) all.push_back(array.m_ID);
    return all[m_Data.ConsumeIntegralInRange<std::size_t>(0, all.size() - 1)];
  }
  /// Whether an operation on the object says that the drive may be written to.
  bool IsNamed(const CRVXPhysicalDrive& drive, unsigned long id,
               const PI::COperation& operation) ZQ_NO_THREAD_SAFETY_ANALYSIS {
    const bool creates = operation.m_Code == PI::OP_CREATE_LOGICAL_DRIVE;
    for (const PI::CContainer& container : operation.m_pRequest->m_Containers)
      for (const PI::CDrive& wanted : container.m_Drives)
        if (creates && wanted.m_ObjectID == drive.m_ID) return true;
    for (const CRVXLogicalDrive& array : m_LogicalDrives)
      if (!creates && (array.m_ID == id || m_Adapter.m_ID == id) &&
          std::cmp_equal(array.m_ArrayNumber, drive.m_IsMemberOf))
        return true;
    return !creates && drive.m_ID == id;
  }

  Simulation::CSimulatedSystem m_Simulated{"{\"sdparm\": true, " +
                                           Simulation::CSimulatedSystem::DemoDescription().substr(1)};
  CHostileSystem m_Machine{m_Simulated};
  CFaultySystem m_System{m_Machine};
  FuzzedDataProvider m_Data;
  SWorkerState m_Worker;
};

}  // namespace
}  // namespace NAMESPACE_piRVX

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("ZQ_CONFIG_DIR", "/nonexistent", 1);
  KVT::Trace::SetOutput(KVT::Trace::EOutput::File, "/dev/null");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  NAMESPACE_piRVX::gSmartData.clear();
  NAMESPACE_piRVX::CFuzzedInstance(bytes, size).Run();
  return 0;
}
