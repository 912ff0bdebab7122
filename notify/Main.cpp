/// @file
/// rvx-notify: delivers one message, which comes on its standard input, and says on its standard output what
/// came of it. A process by itself, since a mail program or a script takes rights, a network and time that
/// the one who watches does not have.

#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <iterator>

#include "notify/Ways.h"

namespace Notify {

namespace {

void Answer(const SResult& result) {
  const std::string text =
      Json{{"delivered", result.m_IsDelivered}, {"text", result.m_Text}, {"said", result.m_Said}}.dump(
          -1, ' ', false, Json::error_handler_t::replace) +
      "\n";
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

/// The time is over: says so, and ends all that was begun with it.
void OnAlarm(int) {
  static const char text[] =
      "{\"delivered\":false,\"text\":\"it took longer than its timeout, and was stopped\"}\n";
  if (::write(STDOUT_FILENO, text, sizeof text - 1) < 0) ::_exit(EXIT_FAILURE);
  ::kill(0, SIGKILL);
}

}  // namespace

}  // namespace Notify

int main() {
  // A group of its own ends as a whole; where a service manager made one already, this fails, and it does
  // that.
  ::setpgid(0, 0);
  std::signal(SIGALRM, &Notify::OnAlarm);
  try {
    Notify::Answer(Notify::Deliver({std::istreambuf_iterator<char>(std::cin), {}}));
  } catch (const std::exception& error) {
    Notify::Answer({false, error.what()});
  }
  return EXIT_SUCCESS;
}
