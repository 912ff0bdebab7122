#pragma once
/// @file
/// Where the other parts of the installation are that this program belongs to, wherever the whole was put.

#include <string>

#include "host/Options.h"

namespace Host {

/// The plug-in's file: where the person says, else in the installation. Throws CError when neither is known.
std::string PluginPath(const SOptions& options);

/// The program that delivers alarms; as PluginPath.
std::string NotifierPath();

/// Tells the toolkit where the catalogue is when this program runs from a build tree or was moved. To be
/// called before the first text is asked for.
void FindCatalog();

}  // namespace Host
