#pragma once
/// @file

#include <string>

namespace KVT::Internal {

/// Writes a line of the toolkit itself to the error log; as safe as KVT::Trace::WriteError.
void LogToolkitError(const char* source, int line, const std::string& text);

}  // namespace KVT::Internal
