#include "system/Linux.h"
#include "system/TheMachine.h"

namespace NAMESPACE_piRVX {

COperatingSystem& TheMachine() {
  static CLinux machine;
  return machine;
}

}  // namespace NAMESPACE_piRVX
