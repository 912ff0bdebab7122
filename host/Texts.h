#pragma once
/// @file
/// The catalogue's texts and the names of statuses.

#include <optional>
#include <string>

#include "KVT/Misc.h"
#include "PI/Operation.h"

namespace Host::Texts {

/// What the loaded plug-in tells about itself; null before it is loaded.
KVT::Misc::CModuleInfo* Module();
/// The plug-in that was loaded is this module, where it tells about itself; said before the first text is
/// asked.
void ModuleIs(unsigned int number);

/// The catalogue's text, which may be one of the framework's; the number itself when there is none.
std::string Of(unsigned int number);
std::optional<std::string> Find(unsigned int number);
/// "ERR_BUSY"; "status N" for one that the module does not name.
std::string StatusName(unsigned int status);
/// Number, name and text.
std::string OfStatus(unsigned int status);
/// The event's text with its placeholders filled in.
std::string OfEvent(const PI::CEvent& event);

}  // namespace Host::Texts
