#pragma once
/// @file
/// What people read: tables and lines of objects and events.

#include <string>

#include "host/Context.h"
#include "host/ListView.h"
#include "host/Table.h"

namespace rvxctl {

/// A status or activity, in its colour where colours are wanted.
SCell StateCell(const CContext& context, const PI::CObject& object, PI::_PROPERTY_ID id);
/// A line a disk; why there is none when the machine has none.
std::string DiskTable(const CContext& context, const CInventory& inventory, const Objects& disks);
std::string ArrayTable(const CContext& context, const CInventory& inventory, const Objects& arrays);

enum class EOrder { BY_NAME, PROBLEMS_FIRST };
/// Adapter, arrays and disks at a glance; what needs somebody's hand before all others, if that is wanted.
std::string StatusText(const CContext& context, const CInventory& inventory, EOrder order);
/// The properties of an object that are meant to be shown, and an array's disks, a line each.
std::string ObjectText(const CContext& context, const CTopology& topology, const PI::CObject& object,
                       const std::string& indent);
/// An event of EventJson.
std::string EventLine(const Json& event);

}  // namespace rvxctl
