#pragma once
/// @file
/// Texts in columns.

#include <string>
#include <utility>
#include <vector>

namespace rvxctl {

/// Columns of equal width below a heading, a line a row.
std::string Table(const std::vector<std::string>& heading, const std::vector<std::vector<std::string>>& rows);
/// "label  value" lines.
std::string Pairs(const std::vector<std::pair<std::string, std::string>>& pairs);

}  // namespace rvxctl
