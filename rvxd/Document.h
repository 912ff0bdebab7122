#pragma once
/// @file
/// Documents in files, as rvxd keeps what it knows.

#include <string>

#include "host/JsonView.h"

namespace Rvxd {

using Host::Json;

/// The document; discarded when it is none. What lies deeper than anything of rvxd's is left out: who walks
/// through a document calls itself once for each level.
Json Parsed(const std::string& text);
/// The file's document; null when there is none.
Json ReadDocument(const std::string& path);
/// Writes a file as a whole, or not at all, and to the disk. Throws Host::CError.
void WriteWhole(const std::string& path, const std::string& text);

}  // namespace Rvxd
