#pragma once
/// @file
/// What scripts read: one JSON document a command.

#include <functional>
#include <nlohmann/json.hpp>
#include <string>

#include "host/Error.h"
#include "host/Inventory.h"

namespace Host {

using Json = nlohmann::ordered_json;

/// The document of a result or of a failure.
std::string Envelope(const std::string& name, const Json& data, const Json& errors = Json::array());
/// A line of a stream: what it tells of, and its place in the stream.
std::string StreamLine(unsigned long sequence, const std::string& type, const Json& data);
Json ErrorJson(const CError& error);

/// @param kind of the object that has it
Json PropertyJson(const PI::CProperty& property, unsigned int kind);
/// What programs want of a disk or array, each fact a field.
Json EntryJson(const CInventory& inventory, const PI::CObject& object);
/// The same with all properties and operations, of any object.
Json ObjectJson(const CInventory& inventory, const PI::CObject& object);
/// Adapter, arrays and disks at a glance.
Json StatusJson(const CInventory& inventory, const std::function<bool(const PI::CObject&)>& isWanted);
Json EventJson(const CInventory& inventory, const PI::CEvent& event);

}  // namespace Host
