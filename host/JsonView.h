#pragma once
/// @file
/// What scripts read: one JSON document a command.

#include <nlohmann/json.hpp>
#include <string>

#include "host/Error.h"
#include "host/Topology.h"

namespace rvxctl {

using Json = nlohmann::ordered_json;

/// The document of a result or of a failure.
std::string Envelope(const std::string& name, const Json& data, const Json& errors = Json::array());
Json ErrorJson(const CError& error);

Json PropertyJson(const PI::CProperty& property);
Json ObjectJson(const PI::CObject& object);
/// All objects of a kind.
Json ListJson(const CTopology& topology, PI::_OBJECT_KIND kind);
/// Adapter, arrays and disks at a glance.
Json StatusJson(const CTopology& topology);
Json EventJson(const CTopology& topology, const PI::CEvent& event);

}  // namespace rvxctl
