#include "system/Linux.h"
#include "system/TheSystem.h"

namespace OS {

COperatingSystem& TheSystem() {
  static CLinux machine;
  return machine;
}

}  // namespace OS
