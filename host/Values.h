#pragma once
/// @file
/// Properties and numbers of objects as people read them.

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "PI/Object.h"

namespace Host {

/// A property's value of one object; null when the object does not have it.
const PI::CProperty* FindProperty(const PI::CObject& object, PI::_PROPERTY_ID id);
/// The value as a number: of a range, choice or unsigned property.
std::optional<long> NumberOf(const PI::CObject& object, PI::_PROPERTY_ID id);
/// Whether a choice of the object is one of these.
bool IsOneOf(const PI::CObject& object, PI::_PROPERTY_ID id, std::initializer_list<PI::_CHOICE> choices);
/// The value as a person reads it, with its unit; empty when the object does not have it.
std::string TextOf(const PI::CObject& object, PI::_PROPERTY_ID id);
std::string TextOf(const PI::CProperty& property);
/// What runs on an array and how far it is: "Resyncing 34%".
std::string ActivityText(const PI::CObject& array);
/// Percent of the resync or rebuild that runs on an array.
std::optional<int> ProgressOf(const PI::CObject& array);
std::string LabelOf(const PI::CProperty& property);
/// A property whose value the plug-in does not know, such as SMART figures of a disk without SMART.
bool IsUnknown(const PI::CProperty& property);
/// What the plug-in's time remaining rests on: "computed", from progress that it has seen, or "assumed":
/// before it has seen any it says a minute for each percent that is missing, which tells nothing of this run.
/// Null when nothing runs.
const char* EstimateBasis(const PI::CObject& array);
/// "sda" or "md_d0"; "plugin" and "adapter" for these two.
std::string NameOf(const PI::CObject& object);
std::string HexadecimalID(unsigned long id);
/// MiB as a person reads it: "4.0 GiB".
std::string SizeText(std::optional<long> mebibytes);
/// The same of a size that may lie below a MiB: "260 KiB".
std::string SizeOfKiB(std::uint64_t kibibytes);
/// "a, b"
std::string Joined(const std::vector<std::string>& texts, const char* separator = ", ");
/// RFC 3339 with milliseconds, UTC.
std::string TimeText(unsigned long milliseconds);
/// What TimeText gave; 0 when it is no such text.
std::uint64_t MillisecondsOf(const std::string& time);
/// Since 1970, as TimeText takes them.
std::uint64_t NowMilliseconds();

}  // namespace Host
