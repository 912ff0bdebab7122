#include "host/Error.h"

#include "host/Texts.h"

namespace Host {

namespace {

int ExitStatusOf(unsigned int status) {
  switch (status) {
    case PI::ERR_BUSY:
      return EXIT_BUSY;
    case PI::INVALID_OBJECT_ID:
      return EXIT_NO_OBJECT;
    case PI::ERR_PROPERTY_NOT_SETTABLE:
    case PI::ERR_OPERATION_NOT_SUPPORTED:
    case PI::ERR_NO_REDUNDANCY:
    case PI::ERR_STATE_FORBIDS_REBUILD:
    case PI::ERR_NO_REBUILD_RUNNING:
    case PI::ERR_MISSING_DRIVE_PENDING:
    case PI::ERR_DRIVE_NOT_MISSING:
      return EXIT_NOT_ALLOWED;
    default:
      return EXIT_PLUGIN_ERROR;
  }
}

}  // namespace

CError PluginError(unsigned int status, const std::string& what, const std::string& hint) {
  std::string message = what + ": the plug-in answered " + Texts::OfStatus(status);
  if (!hint.empty()) message += "\n" + hint;
  return {ExitStatusOf(status), message, status};
}

CError CannotLoad(const std::string& why, unsigned int status) {
  return {EXIT_NO_PLUGIN, "cannot load the plug-in: " + why, status};
}

}  // namespace Host
