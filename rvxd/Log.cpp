#include "rvxd/Log.h"

#include <cstdio>
#include <cstdlib>

#include "host/Printable.h"

namespace Rvxd {

void Log(int priority, const std::string& text) {
  // The journal takes the priority from the line's beginning; a terminal would show it.
  static const bool isJournal = std::getenv("JOURNAL_STREAM") != nullptr;
  const std::string line =
      (isJournal ? "<" + std::to_string(priority) + ">" : "rvxd: ") + Host::Printable(text) + "\n";
  std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace Rvxd
