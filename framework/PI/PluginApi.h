#pragma once
/// @file
/// The boundary between the server and a plug-in.

#include "KVT/Api.h"
#include "PI/Numbers.h"

class IPLUGINAPI;

/// Base of what a server hands a plug-in to be notified through.
class ZQ_API INotificationTarget {
 public:
  virtual ~INotificationTarget();
};

/// A plug-in as the server sees it.
class ZQ_API IPLUGINAPI {
 public:
  /// Called on a thread of the plug-in, with none of its locks held, after a configuration change.
  using Notification = void (INotificationTarget::*)(IPLUGINAPI* plugin);

  IPLUGINAPI();
  virtual ~IPLUGINAPI();
  IPLUGINAPI(const IPLUGINAPI&) = delete;
  IPLUGINAPI& operator=(const IPLUGINAPI&) = delete;

  /// Carries out a command; may be called from any thread. See PI::_COMMAND for what `data` points to;
  /// objectID is used by the commands that address an object. Returns a PI::_STATUS.
  virtual unsigned int Execute(PI::_COMMAND command, unsigned long objectID, void* data) = 0;

  unsigned int m_InterfaceVersion{2};
  unsigned int m_ModuleNumber{
      0};  ///< number of the plug-in's module-information record; 0 until it is created
  /// Both must be set before command 2: the plug-in calls without looking.
  INotificationTarget* m_pNotificationTarget{nullptr};
  Notification m_pNotification{nullptr};
};

/// The two functions that a plug-in exports.
extern "C" {
/// Makes the plug-in's instance. PI::OK, or PI::ERR_OUT_OF_MEMORY with a null pointer in `*out`.
using CreateIfFunction = unsigned int(IPLUGINAPI** out);
/// Destroys the instance and sets the pointer to null. The result carries no meaning for callers.
using ReleaseIfFunction = void*(IPLUGINAPI** inout);
}
