#pragma once
/// @file
/// What people read: tables and lines of objects and events.

#include <string>

#include "host/Context.h"

namespace rvxctl {

/// A line a disk; why there is none when there is none.
std::string DiskTable(const CContext& context, const CTopology& topology);
std::string ArrayTable(const CContext& context, const CTopology& topology);
/// Adapter, arrays and disks at a glance.
std::string StatusText(const CContext& context, const CTopology& topology);
/// The properties of an object that are meant to be shown, and an array's disks, a line each.
std::string ObjectText(const CContext& context, const CTopology& topology, const PI::CObject& object,
                       const std::string& indent);
/// An event of EventJson.
std::string EventLine(const Json& event);

}  // namespace rvxctl
