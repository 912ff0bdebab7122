#include "host/Signals.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "host/Error.h"
#include "libraries/common/FileDescriptor.h"

namespace Host {

namespace {

/// How long the end of the watched call may wait for its watcher.
constexpr timespec LOOK_INTERVAL{0, 20'000'000};

}  // namespace

sigset_t EndSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) sigaddset(&signals, signal);
  return signals;
}

void HoldEndSignals() {
  sigset_t signals = EndSignals();
  sigaddset(&signals, SIGWINCH);  // it ends nothing, but a pause, so that a screen follows its terminal
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

int TakeEndSignal() {
  sigset_t waiting;
  sigemptyset(&waiting);
  ::sigpending(&waiting);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
    if (sigismember(&waiting, signal) == 1) return signal;
  return 0;
}

void EndBy(int signal) {
  sigset_t one;
  sigemptyset(&one);
  sigaddset(&one, signal);
  std::signal(signal, SIG_DFL);
  ::pthread_sigmask(SIG_UNBLOCK, &one, nullptr);
  std::raise(signal);
}

bool Pause(std::chrono::milliseconds time, int file, short events) {
  sigset_t signals = EndSignals();
  sigaddset(&signals, SIGWINCH);
  const KVT::Internal::CFileDescriptor asked(::signalfd(-1, &signals, SFD_CLOEXEC));
  std::array<pollfd, 2> sources{{{asked.Get(), POLLIN, 0}, {file, events, 0}}};
  ::poll(sources.data(), sources.size(), static_cast<int>(time.count()));
  const timespec now{};
  if (const int signal = ::sigtimedwait(&signals, nullptr, &now); signal > 0 && signal != SIGWINCH)
    throw CError(EXIT_SIGNAL + signal, std::string("ended by ") + ::strsignal(signal));
  return sources[1].revents != 0;
}

CPatience::CPatience(std::string what)
    : m_What(std::move(what)), m_Watcher([this](const std::stop_token& end) { Watch(end); }) {}

CPatience::~CPatience() {
  m_Watcher.request_stop();
  m_Watcher.join();
  if (m_First != 0) ::kill(::getpid(), m_First);
}

void CPatience::Watch(const std::stop_token& end) {
  const sigset_t signals = EndSignals();
  for (int count = 0; !end.stop_requested();) {
    const int signal = ::sigtimedwait(&signals, nullptr, &LOOK_INTERVAL);
    if (signal <= 0) continue;
    if (++count == 1)
      m_First = signal;
    else if (count == 2)
      std::fprintf(stderr,
                   "rvxctl: waiting for the kernel to answer %s; it cannot be broken off without harm. Once "
                   "more ends rvxctl, and the change may be left half-done.\n",
                   m_What.c_str());
    else
      EndBy(signal);
  }
}

}  // namespace Host
