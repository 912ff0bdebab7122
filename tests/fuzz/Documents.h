#pragma once
/// @file
/// JSON documents that somebody has written into, and the folder of files that hold them.

#include <filesystem>
#include <fstream>
#include <iterator>

#include "host/JsonView.h"
#include "tests/fuzz/Fuzz.h"

using Host::Json;

/// In memory, where syncing costs nothing; it goes with the program.
inline const std::string& Folder() {
  static const std::string* const folder = [] {
    const auto* const path = new std::string("/dev/shm/rvx-fuzz-" + std::to_string(getpid()));
    std::filesystem::create_directory(*path);
    std::atexit([] { std::filesystem::remove_all(Folder()); });
    return path;
  }();
  return *folder;
}
inline void WriteText(const std::string& name, const std::string& text) {
  std::ofstream(Folder() + "/" + name, std::ios::binary) << text;
}
inline std::string ReadText(const std::string& name) {
  std::ifstream file(Folder() + "/" + name, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// A value that is not what one reckons with.
inline Json Odd(FuzzedDataProvider& data) {
  const Json values[] = {
      nullptr, true,           0,   1,          -1, 1.5, 1e300, ~std::uint64_t{0}, 1ULL << 63,
      "",      Json::object(), {1}, {{"a", 1}}, "x"};
  if (data.ConsumeBool()) return data.PickValueInArray(values);
  const std::string text = data.ConsumeRandomLengthString(100);
  const Json parsed = Json::parse(text, nullptr, false);
  return parsed.is_discarded() ? Json(text) : parsed;
}

/// The document with up to three values that are others, or with one left out.
inline Json Spoiled(Json document, FuzzedDataProvider& data) {
  for (int changes = data.ConsumeIntegralInRange(0, 3); changes > 0; --changes) {
    Json* at = &document;
    while (at->is_structured() && !at->empty() && data.ConsumeIntegralInRange(0, 3) != 0) {
      const auto child =
          std::next(at->begin(), data.ConsumeIntegralInRange<long>(0, static_cast<long>(at->size()) - 1));
      if (data.ConsumeIntegralInRange(0, 7) == 7) {
        at->erase(child);
        break;
      }
      at = &*child;
    }
    if (data.ConsumeBool()) *at = Odd(data);
  }
  return document;
}

inline std::string Dumped(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}
