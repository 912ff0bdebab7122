/// @file
/// The simulated plug-in, whose pass never ends as long as the file of RVX_TEST_SLOW is there: each question
/// waits.

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>

#include "PI/PluginApi.h"

namespace OS {
class COperatingSystem;
}

namespace {

void* Simulated(const char* name) {
  static void* const library = ::dlopen(RVX_SIMULATED, RTLD_NOW | RTLD_LOCAL);
  return library == nullptr ? nullptr : ::dlsym(library, name);
}

class CSlowPlugin : public IPLUGINAPI {
 public:
  CSlowPlugin() { reinterpret_cast<CreateIfFunction*>(Simulated("createIf"))(&m_Below); }
  ~CSlowPlugin() override { reinterpret_cast<ReleaseIfFunction*>(Simulated("releaseIf"))(&m_Below); }
  unsigned int Execute(PI::_COMMAND command, unsigned long id, void* data) override {
    if (command == PI::CMD_INITIALIZE) {
      m_Below->m_pNotificationTarget = m_pNotificationTarget;
      m_Below->m_pNotification = m_pNotification;
    }
    const char* const file = std::getenv("RVX_TEST_SLOW");
    while (file != nullptr && ::access(file, F_OK) == 0) ::usleep(10000);
    return m_Below->Execute(command, id, data);
  }

 private:
  IPLUGINAPI* m_Below{nullptr};
};

}  // namespace

#pragma GCC visibility push(default)
extern "C" unsigned int createIf(IPLUGINAPI** out) {
  *out = new CSlowPlugin;
  return PI::OK;
}
extern "C" void* releaseIf(IPLUGINAPI** inout) {
  delete *inout;
  *inout = nullptr;
  return inout;
}
extern "C" const char* rvxLoadMachine(const char* file) {
  return reinterpret_cast<const char* (*)(const char*)>(Simulated("rvxLoadMachine"))(file);
}
extern "C" OS::COperatingSystem* rvxMachine() {
  return reinterpret_cast<OS::COperatingSystem* (*)()>(Simulated("rvxMachine"))();
}
