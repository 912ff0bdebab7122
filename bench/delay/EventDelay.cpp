/// @file
/// How long it takes from a change of /proc/mdstat to the event at the front end, and where the time goes.
///
///   rvx_event_delay [ROUNDS]                       on a simulated machine, without external programs
///   rvx_event_delay [ROUNDS] ARRAY MEMBER          on Linux: fails, removes and adds the member (for the
///   virtual machine)
///
/// Prints the median of each share in milliseconds, one line a share.

#include <fcntl.h>
#include <linux/ioctl.h>
#include <linux/major.h>
#include <linux/raid/md_u.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "Src/piRVXPlugin.h"
#include "bench/Measure.h"
#include "simulator/SimulatedSystem.h"
#include "system/ForwardingSystem.h"
#include "system/Linux.h"

using namespace NAMESPACE_piRVX;
using Bench::Clock;
using Bench::Milliseconds;

namespace {

/// Notes when a pass goes through its stages, by the files that it opens.
class CTimingSystem : public OS::CForwardingSystem {
 public:
  using OS::CForwardingSystem::CForwardingSystem;

  struct SPass {
    Clock::time_point m_Begin;      ///< the worker is at work
    Clock::time_point m_Disks;      ///< the disk pass begins
    Clock::time_point m_Arrays;     ///< the array pass begins
    Clock::time_point m_ScanEnd;    ///< the scan closed its last file
    Clock::time_point m_Documents;  ///< the merge is over
    Clock::duration m_Programs{};   ///< spent in external programs
    int m_ArrayOpens{0};
    std::vector<Clock::time_point> m_Opens;   ///< of arrays
    std::vector<Clock::time_point> m_Closes;  ///< before each of these
  };

  int Open(const std::string& path, int flags) override {
    const auto now = Clock::now();
    {
      const std::lock_guard lock(m_Lock);
      if (path == "/proc/devices") {
        m_Pass = {};
        m_Pass.m_Begin = now;
        m_Partitions = 0;
      } else if (path == "/proc/partitions") {
        (m_Partitions++ == 0 ? m_Pass.m_Disks : m_Pass.m_Arrays) = now;
      } else if (path.starts_with("/dev/md")) {
        m_Pass.m_Opens.push_back(now);
        m_Pass.m_Closes.push_back(m_LastClose);
      }
    }
    return OS::CForwardingSystem::Open(path, flags);
  }
  int Close(int descriptor) override {
    const int result = OS::CForwardingSystem::Close(descriptor);
    const std::lock_guard lock(m_Lock);
    m_LastClose = Clock::now();
    return result;
  }
  int ExecuteCommand(const boost::filesystem::path& program, const std::string& arguments,
                     std::vector<std::string>& lines) override {
    const auto begin = Clock::now();
    const int result = OS::CForwardingSystem::ExecuteCommand(program, arguments, lines);
    const std::lock_guard lock(m_Lock);
    m_Pass.m_Programs += Clock::now() - begin;
    return result;
  }
  /// The pass that ended last. The scan opens every array once, the documents after the merge once more.
  SPass LastPass() {
    const std::lock_guard lock(m_Lock);
    SPass pass = m_Pass;
    const std::size_t half = pass.m_Opens.size() / 2;
    pass.m_Documents = half == 0 ? m_LastClose : pass.m_Opens[half];
    pass.m_ScanEnd = half == 0 ? m_LastClose : pass.m_Closes[half];
    return pass;
  }

 private:
  std::mutex m_Lock;
  SPass m_Pass;
  int m_Partitions{0};
  Clock::time_point m_LastClose;
};

/// The server's part: commands and the notification.
class CServer : public INotificationTarget {
 public:
  explicit CServer(OS::COperatingSystem& machine) : m_Plugin(machine) {
    m_Plugin.m_pNotificationTarget = this;
    m_Plugin.m_pNotification = static_cast<IPLUGINAPI::Notification>(&CServer::Notify);
    std::vector<PI::CAdapterID> adapterIDs;
    if (m_Plugin.Execute(PI::CMD_INITIALIZE, 0, &adapterIDs) != PI::OK) throw std::runtime_error("no scan");
    std::vector<PI::CObject> topology;
    m_Plugin.Execute(PI::CMD_GET_TOPOLOGY, 0, &topology);
    m_PluginID = topology.front().m_ID;
    m_Plugin.Execute(PI::CMD_SET_ADAPTER_IDS, 0, &adapterIDs);
  }
  ~CServer() override { m_Plugin.Execute(PI::CMD_DEINITIALIZE, 0, nullptr); }

  /// The moment at which a fetch brought news.
  Clock::time_point AwaitEvent() {
    for (const auto end = Clock::now() + std::chrono::seconds(60); Clock::now() < end;) {
      if (FetchNews()) return Clock::now();
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    throw std::runtime_error("no event within 60 s");
  }
  /// Lets the passes that a change set off run out: waits until two seconds bring no news.
  void Settle() {
    do std::this_thread::sleep_for(std::chrono::seconds(2));
    while (FetchNews());
  }

 private:
  void Notify(IPLUGINAPI*) {}
  /// Fetches the events; whether there is one that does not just repeat that md holds a failed member.
  bool FetchNews() {
    PI::COperation fetch;
    fetch.m_Code = PI::OP_GET_EVENTS;
    m_Plugin.Execute(PI::CMD_EXECUTE_OPERATION, m_PluginID, &fetch);
    return std::any_of(fetch.m_Events.begin(), fetch.m_Events.end(),
                       [](const PI::CEvent& event) { return event.m_Code != PI::EVT_FAILED_DRIVE_IN_USE; });
  }

  IPLUGINAPI_IMPL m_Plugin;
  unsigned long m_PluginID{0};
};

std::map<std::string, std::vector<double>> Measure(OS::COperatingSystem& machine, int rounds,
                                                   const std::vector<std::function<void()>>& changes) {
  CTimingSystem door(machine);
  CServer server(door);
  server.Settle();
  std::map<std::string, std::vector<double>> shares;
  for (int round = 0; round < rounds; ++round) {
    for (const auto& change : changes) {
      const auto begin = Clock::now();
      change();
      const auto end = server.AwaitEvent();
      const CTimingSystem::SPass pass = door.LastPass();
      shares["1 wake-up"].push_back(Milliseconds(pass.m_Begin - begin));
      shares["2 disk pass"].push_back(Milliseconds(pass.m_Arrays - pass.m_Disks));
      shares["3   of it external programs"].push_back(Milliseconds(pass.m_Programs));
      shares["4 array pass"].push_back(Milliseconds(pass.m_ScanEnd - pass.m_Arrays));
      shares["5 merge"].push_back(Milliseconds(pass.m_Documents - pass.m_ScanEnd));
      shares["6 documents to fetch"].push_back(Milliseconds(end - pass.m_Documents));
      shares["7 change to event"].push_back(Milliseconds(end - begin));
      server.Settle();
    }
  }
  return shares;
}

void Call(const std::string& path, unsigned long request, void* argument) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  const int result = descriptor < 0 ? -1 : ::ioctl(descriptor, request, argument);
  const std::string why = std::strerror(errno);
  if (descriptor >= 0) ::close(descriptor);
  if (result < 0) throw std::runtime_error(path + ": " + why);
}

std::map<std::string, std::vector<double>> MeasureLinux(int rounds, const std::string& array,
                                                        const std::string& member) {
  struct stat status {};
  if (::stat(member.c_str(), &status) != 0) throw std::runtime_error(member + ": " + std::strerror(errno));
  void* const number = reinterpret_cast<void*>(static_cast<std::uintptr_t>(status.st_rdev));
  mdu_disk_info_t spare{};
  spare.number = spare.raid_disk = 1;
  spare.major = static_cast<int>(major(status.st_rdev));
  spare.minor = static_cast<int>(minor(status.st_rdev));
  OS::CLinux linux_;
  // Each change is settled before the next: right after a removal the kernel still has the member's sysfs
  // entry and answers EEXIST when it is added again.
  return Measure(
      linux_, rounds,
      {[=] { Call(array, SET_DISK_FAULTY, number); }, [=] { Call(array, HOT_REMOVE_DISK, number); },
       [=]() mutable { Call(array, ADD_NEW_DISK, &spare); }});
}

std::map<std::string, std::vector<double>> MeasureSimulation(int rounds) {
  Simulation::CSimulatedSystem machine(Simulation::CSimulatedSystem::DemoDescription(),
                                       Simulation::CSimulatedSystem::EClock::Real);
  machine.Apply(R"({"stop_array": "md_d1"})");  // its resync would keep every pass waiting
  return Measure(
      machine, rounds,
      {[&] { machine.Apply(R"({"stop_array": "md_d0"})"); },
       [&] {
         machine.Apply(R"({"add_array": {"name": "md_d0", "level": "raid0", "members": ["sda", "sdb"]}})");
       }});
}

}  // namespace

int main(int count, char** arguments) {
  const int rounds = count > 1 ? std::atoi(arguments[1]) : 5;
  try {
    const auto shares =
        count > 3 ? MeasureLinux(rounds, arguments[2], arguments[3]) : MeasureSimulation(rounds);
    for (const auto& [name, values] : shares)
      std::printf("%-28s %9.2f ms\n", name.c_str() + 2, Bench::Median(values));
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "rvx_event_delay: %s\n", exception.what());
    return 1;
  }
  return 0;
}
