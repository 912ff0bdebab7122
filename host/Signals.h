#pragma once
/// @file
/// The signals that ask for an end, held while the machine is changed.

#include <poll.h>

#include <chrono>
#include <csignal>
#include <string>
#include <thread>

namespace Host {

/// Interrupt, termination, hang-up of the terminal, quit.
sigset_t EndSignals();
/// From now on they no longer end the program but wait for who asks for them.
void HoldEndSignals();
/// The held signal that came meanwhile; 0 when none did.
int TakeEndSignal();
/// Ends the program by the signal, as if it had never been held. Comes back when that signal ends nothing.
void EndBy(int signal);

/// Waits, at most until an open file has one of the events: true. Throws CError(EXIT_SIGNAL + n) for a held
/// signal, when the person or the system wants an end.
bool Pause(std::chrono::milliseconds time, int file = -1, short events = POLLPRI);

/// Watches the held signals while a call cannot be broken off, such as one that waits in the kernel. The
/// first is kept for whoever asks behind it; the second tells what is waited for; the third ends the program.
class CPatience {
 public:
  /// `what`: "the change: create a raid1 array of sda, sdb"
  explicit CPatience(std::string what);
  ~CPatience();
  CPatience(const CPatience&) = delete;
  CPatience& operator=(const CPatience&) = delete;

 private:
  void Watch(const std::stop_token& end);

  const std::string m_What;
  int m_First{0};
  std::jthread m_Watcher;
};

}  // namespace Host
