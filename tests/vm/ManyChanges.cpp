/// @file
/// Each of many changes of md at random moments is in the model soon after, although the plug-in's own
/// interval is minutes: rvx_many_changes COUNT ARRAY SPARE takes the spare out of the array and puts it back.

#include <fcntl.h>
#include <linux/major.h>
#include <linux/raid/md_u.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <random>
#include <stdexcept>
#include <thread>

#include "Src/piRVXPlugin.h"
#include "system/ForwardingSystem.h"
#include "system/Linux.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds LIMIT{5000};
/// A question may meet the next pass, which is then left out: the first one comes when a pass has looked.
constexpr milliseconds ASK_INTERVAL{100};

/// Notes when a pass looked at the array.
class CWatchedSystem : public OS::CForwardingSystem {
 public:
  CWatchedSystem(OS::COperatingSystem& below, std::string array)
      : CForwardingSystem(below), m_Array(std::move(array)) {}
  int Open(const std::string& path, int flags) override {
    const auto now = Clock::now().time_since_epoch().count();
    const int result = CForwardingSystem::Open(path, flags);
    if (path == m_Array) m_LastLook = now;
    return result;
  }
  bool HasLookedSince(Clock::time_point moment) const {
    return m_LastLook > moment.time_since_epoch().count();
  }

 private:
  std::string m_Array;
  std::atomic<Clock::rep> m_LastLook{0};
};

class CServer : public INotificationTarget {
 public:
  explicit CServer(OS::COperatingSystem& os) : m_Plugin(os) {
    m_Plugin.m_pNotificationTarget = this;
    m_Plugin.m_pNotification = static_cast<IPLUGINAPI::Notification>(&CServer::Notify);
    std::vector<PI::CAdapterID> adapterIDs;
    m_Plugin.Execute(PI::CMD_INITIALIZE, 0, &adapterIDs);
    m_Plugin.Execute(PI::CMD_SET_ADAPTER_IDS, 0, &adapterIDs);
  }
  ~CServer() override { m_Plugin.Execute(PI::CMD_DEINITIALIZE, 0, nullptr); }

  /// Members of the one array as the model has them.
  std::size_t Members() {
    std::vector<PI::CObject> objects;
    m_Plugin.Execute(PI::CMD_GET_TOPOLOGY, 0, &objects);
    return objects.back().m_Children.size();
  }

 private:
  void Notify(IPLUGINAPI*) {}

  NAMESPACE_piRVX::IPLUGINAPI_IMPL m_Plugin;
};

/// Asks md until it agrees: right after a removal it still holds the member's folder in sysfs.
void Change(const std::string& array, unsigned long request, void* argument) {
  for (const auto end = Clock::now() + LIMIT;; std::this_thread::sleep_for(milliseconds(1))) {
    const int descriptor = ::open(array.c_str(), O_RDONLY | O_CLOEXEC);
    const int result = ::ioctl(descriptor, request, argument);
    const int error = errno;
    ::close(descriptor);
    if (result >= 0) return;
    if (Clock::now() > end) throw std::system_error(error, std::generic_category(), array);
  }
}

/// How many changes did not come into the model in time.
int CountLost(int count, const std::string& array, const std::string& spare) {
  struct stat status {};
  if (::stat(spare.c_str(), &status) != 0) throw std::runtime_error("no such disk: " + spare);
  void* const number = reinterpret_cast<void*>(static_cast<std::uintptr_t>(status.st_rdev));
  mdu_disk_info_t added{};
  added.number = added.raid_disk = -1;
  added.major = static_cast<int>(major(status.st_rdev));
  added.minor = static_cast<int>(minor(status.st_rdev));

  OS::CLinux os;
  CWatchedSystem door(os, array);
  CServer server(door);
  const auto start = Clock::now();
  while (!door.HasLookedSince(start) && Clock::now() < start + LIMIT)
    std::this_thread::sleep_for(milliseconds(1));
  const std::size_t all = server.Members();

  std::mt19937 random(static_cast<unsigned int>(count));
  std::uniform_int_distribution<int> pause(0, 60000);
  int lost = 0;
  Clock::duration longest{};
  for (int change = 0; change < count; ++change) {
    std::this_thread::sleep_for(std::chrono::microseconds(pause(random)));
    const bool removed = change % 2 == 0;
    const auto begin = Clock::now();
    if (removed)
      Change(array, HOT_REMOVE_DISK, number);
    else
      Change(array, ADD_NEW_DISK, &added);
    while (!door.HasLookedSince(begin) && Clock::now() < begin + LIMIT)
      std::this_thread::sleep_for(milliseconds(1));
    bool arrived = false;
    while (!(arrived = server.Members() == all - (removed ? 1 : 0)) && Clock::now() < begin + LIMIT)
      std::this_thread::sleep_for(ASK_INTERVAL);
    longest = std::max(longest, Clock::now() - begin);
    if (!arrived) ++lost;
  }
  std::cout << "longest: " << std::chrono::duration_cast<milliseconds>(longest).count() << " ms\n";
  return lost;
}

}  // namespace

int main(int count, char** arguments) {
  try {
    if (count != 4) throw std::invalid_argument("usage: rvx_many_changes COUNT ARRAY SPARE");
    const int lost = CountLost(std::atoi(arguments[1]), arguments[2], arguments[3]);
    std::cout << lost << " of " << arguments[1] << " changes lost\n";
    return lost == 0 ? 0 : 1;
  } catch (const std::exception& exception) {
    std::cerr << "rvx_many_changes: " << exception.what() << "\n";
    return 2;
  }
}
