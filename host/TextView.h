#pragma once
/// @file
/// What people read: tables and lines of objects and events.

#include <string>

#include "host/Health.h"
#include "host/JsonView.h"
#include "host/ListView.h"
#include "host/Table.h"

namespace Host {

/// A status or activity, in its colour where colours are wanted.
SCell StateCell(const SStyle& style, const PI::CObject& object, PI::_PROPERTY_ID id);
/// A line a disk; why there is none when the machine has none.
std::string DiskTable(const SStyle& style, const CInventory& inventory, const Objects& disks);
std::string ArrayTable(const SStyle& style, const CInventory& inventory, const Objects& arrays);

enum class EOrder { BY_NAME, PROBLEMS_FIRST, ONLY_PROBLEMS };
/// How the machine is and what to do next, then arrays and disks: what needs somebody's hand before all
/// others, or alone, if that is wanted.
std::string StatusText(const SStyle& style, const CInventory& inventory, const SHealth& health, EOrder order);
/// The properties of an object that are meant to be shown, a line each, then what kernel and udev know of it.
std::string ObjectText(const SStyle& style, const CInventory& inventory, const PI::CObject& object,
                       const std::string& indent);
/// An event of EventJson.
std::string EventLine(const Json& event);

}  // namespace Host
