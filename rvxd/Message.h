#pragma once
/// @file
/// What people are told: in words, with what to do and the serial number of the disk that it is about.

#include "rvxd/Alarms.h"

namespace Rvxd {

/// All that a channel may need of a message, and what a program is given: {"phase", "level", "host",
/// "object", "condition", "code", "event", "device", "component", "since", "time", "subject", "text", "next",
/// "serial", "disks", "conditions"}. `code` is the number of the plug-in's event for it, `event` the word
/// that mdadm's monitor gives its programs, `component` the disk.
/// @param due of what is wrong, or a TEST, which has no conditions
/// @param reminder how often the channel is reminded; none: never
Json MessageOf(const SDue& due, const std::string& host, std::optional<Milliseconds> reminder,
               Milliseconds now);

/// "5 minutes", "3 days", "24 hours": in the largest unit of which there are two.
std::string DurationText(Milliseconds duration);

}  // namespace Rvxd
