#pragma once
/// @file
/// What rvxd tells the system's log, by way of standard error.

#include <string>

namespace Rvxd {

/// A line. `priority` is syslog's: 3 error, 4 warning, 5 notice, 6 information. Any thread.
void Log(int priority, const std::string& text);

}  // namespace Rvxd
