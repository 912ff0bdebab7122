#pragma once
/// @file
/// Words for programs beside the framework's numbers. They stay what they are when the catalogue's texts
/// change or are translated.

#include <string>

namespace Host::Keys {

/// "disk", "array", "adapter" or "plugin"; the number itself of a kind that has no word. So do the others.
std::string OfKind(unsigned int kind);

/// A name as JSON has them, "usableCapacity". What a number means depends on the kind of its object: 30059 is
/// a disk's capacity, but what an array takes of its members.
std::string OfProperty(unsigned int property, unsigned int kind);

/// A value, "in-order" or "raid1", of an object of that kind: 40093 is an array in order, but a disk in use.
/// Of levels and stripe sizes, which only arrays have, the word that the command line takes. No two choices
/// of one kind have the same word.
std::string OfChoice(unsigned int choice, unsigned int kind);

std::string OfEvent(unsigned int code);      ///< "array-degraded"
std::string OfOperation(unsigned int code);  ///< "delete-array"
std::string OfSeverity(unsigned int severity);

}  // namespace Host::Keys
