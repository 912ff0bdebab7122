#pragma once
/// @file
/// Texts that are kept beside the tests because every line of them counts.

#include <string>

namespace NAMESPACE_piRVX {

/// A file of tests/plugin.
std::string GoldenText(const std::string& file);
/// Compares a text with such a file, and shows the lines that differ and how the file is renewed.
void ExpectGolden(const std::string& file, const std::string& text);

}  // namespace NAMESPACE_piRVX
