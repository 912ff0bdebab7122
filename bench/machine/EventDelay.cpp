/// @file
/// rvx_event_delay ROUNDS ARRAY MEMBER: how long it takes from a change of md to the event at the front end,
/// and where the time goes. For the virtual machine: fails, removes and adds the member. Prints the median of
/// each share.

#include <linux/ioctl.h>
#include <linux/major.h>
#include <linux/raid/md_u.h>
#include <sys/sysmacros.h>

#include <cstdlib>
#include <mutex>
#include <thread>

#include "Src/piRVXPlugin.h"
#include "bench/Measure.h"
#include "system/ForwardingSystem.h"
#include "system/TheSystem.h"

using namespace NAMESPACE_piRVX;
using Bench::Clock;
using Bench::Milliseconds;

namespace {

/// Notes when a pass goes through its stages, by the files that it opens.
class CTimingSystem final : public OS::CForwardingSystem {
 public:
  using OS::CForwardingSystem::CForwardingSystem;

  struct SPass {
    Clock::time_point m_Begin;      ///< the worker is at work
    Clock::time_point m_Disks;      ///< the disk pass begins
    Clock::time_point m_Arrays;     ///< the array pass begins
    Clock::time_point m_LastClose;  ///< of any file
    Clock::duration m_Programs{};   ///< spent in external programs
    std::vector<std::pair<Clock::time_point, Clock::time_point>>
        m_Opens;  ///< of arrays, behind the close before
    /// The scan opens every array once, the documents after the merge once more: when the one ended and the
    /// other began.
    std::pair<Clock::time_point, Clock::time_point> Merge() const {
      return m_Opens.size() < 2 ? std::pair(m_LastClose, m_LastClose) : m_Opens[m_Opens.size() / 2];
    }
  };
  /// The pass that ended last.
  SPass LastPass() {
    const std::lock_guard lock(m_Lock);
    return m_Pass;
  }

 private:
  std::optional<std::int64_t> Around(const OS::SCall& call, const std::function<void()>& go) override {
    const auto begin = Clock::now();
    if (call.m_Kind == OS::ECall::Open) NoteOpen(call.m_Detail, begin);
    go();
    const std::lock_guard lock(m_Lock);
    if (call.m_Kind == OS::ECall::Close) m_Pass.m_LastClose = Clock::now();
    if (call.m_Kind == OS::ECall::ExecuteCommand) m_Pass.m_Programs += Clock::now() - begin;
    return std::nullopt;
  }
  void NoteOpen(const std::string& path, Clock::time_point now) {
    const std::lock_guard lock(m_Lock);
    if (path == "/proc/devices")
      m_Pass = {now, {}, {}, {}, {}, {}};
    else if (path == "/proc/partitions")
      (m_Pass.m_Disks == Clock::time_point() ? m_Pass.m_Disks : m_Pass.m_Arrays) = now;
    else if (path.starts_with("/dev/md"))
      m_Pass.m_Opens.emplace_back(m_Pass.m_LastClose, now);
  }

  std::mutex m_Lock;
  SPass m_Pass;
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

Bench::TSamples Measure(int rounds, const std::string& array, const std::string& member) {
  const dev_t number = Bench::Number(member);
  mdu_disk_info_t spare{};
  spare.number = spare.raid_disk = 1;
  spare.major = static_cast<int>(major(number));
  spare.minor = static_cast<int>(minor(number));
  const struct {
    unsigned long m_Request;
    const void* m_Argument;
  } changes[] = {{SET_DISK_FAULTY, Bench::AsArgument(number)},
                 {HOT_REMOVE_DISK, Bench::AsArgument(number)},
                 {ADD_NEW_DISK, &spare}};
  CTimingSystem door(OS::TheSystem());
  CServer server(door);
  server.Settle();
  Bench::TSamples shares;
  for (int round = 0; round < rounds; ++round) {
    for (const auto& change : changes) {
      const auto begin = Clock::now();
      Bench::Ask(array, change.m_Request, change.m_Argument);
      const auto end = server.AwaitEvent();
      const CTimingSystem::SPass pass = door.LastPass();
      const auto [scanEnd, documents] = pass.Merge();
      shares["1 wake-up"].push_back(Milliseconds(pass.m_Begin - begin));
      shares["2 disk pass"].push_back(Milliseconds(pass.m_Arrays - pass.m_Disks));
      shares["3   of it external programs"].push_back(Milliseconds(pass.m_Programs));
      shares["4 array pass"].push_back(Milliseconds(scanEnd - pass.m_Arrays));
      shares["5 merge"].push_back(Milliseconds(documents - scanEnd));
      shares["6 documents to fetch"].push_back(Milliseconds(end - documents));
      shares["7 change to event"].push_back(Milliseconds(end - begin));
      // Right after a removal the kernel still has the member's sysfs entry and answers EEXIST when it is
      // added.
      server.Settle();
    }
  }
  return shares;
}

}  // namespace

int main(int count, char** arguments) {
  return Bench::Main("rvx_event_delay", [&] {
    if (count != 4) throw std::runtime_error("usage: rvx_event_delay ROUNDS ARRAY MEMBER");
    for (const auto& [name, values] : Measure(std::atoi(arguments[1]), arguments[2], arguments[3]))
      std::printf("%-28s %9.2f ms\n", name.c_str() + 2, Bench::Median(values));
  });
}
