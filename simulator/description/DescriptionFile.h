#pragma once
/// @file
/// Descriptions of machines as files.

#include <string>

namespace Simulation {

/// The text of a regular file of at most 64 MiB. Throws CMachineError that names the file.
std::string ReadDescription(const std::string& file);
/// Replaces the file as a whole or not at all: a reader finds the old text or the new one. A file that was
/// there keeps its owner and permissions, and a symbolic link leads to the new text. Throws CMachineError
/// that names the file.
void ReplaceDescription(const std::string& file, const std::string& text);

}  // namespace Simulation
