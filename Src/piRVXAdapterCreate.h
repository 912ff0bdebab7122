#pragma once
/// @file
/// The sizes of a new array.

#include <cstdint>
#include <vector>

namespace NAMESPACE_piRVX {

/// Chunk in KiB for a level and a stripe-size choice.
int ChunkOf(std::uint32_t level, std::uint32_t stripeSize);
/// KiB that a mirror uses of each member: the smallest member's size in whole chunks of `chunk` KiB. Not for
/// no sizes.
std::uint64_t MirrorSize(const std::vector<std::uint64_t>& sizes, int chunk);

}  // namespace NAMESPACE_piRVX
