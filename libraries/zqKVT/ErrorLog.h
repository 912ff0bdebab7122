#pragma once

#include <string>

#include "KVT/Api.h"

namespace KVT::Internal {

/// Writes a line of the toolkit itself to the error log; as safe as KVT::Trace::WriteError.
ZQ_API void LogToolkitError(const char* source, int line, const std::string& text);

}  // namespace KVT::Internal
