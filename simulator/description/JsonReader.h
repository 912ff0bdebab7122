#pragma once
/// @file
/// Reading JSON strictly: every complaint names the place, and keys that nobody asked for are refused.

#include <initializer_list>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace Simulation {

using TJson = nlohmann::ordered_json;

/// The value of JSON text. Throws CMachineError that names the line.
TJson ParseJson(const std::string& text);

/// A value and the path that leads to it, such as "disks[2].size". All functions but Fail throw CMachineError
/// when the value is not of the kind that is asked for. The JSON must outlive the reader.
class CJsonReader {
 public:
  CJsonReader(const TJson& value, std::string path) : m_Value(&value), m_Path(std::move(path)) {}

  [[noreturn]] void Fail(const std::string& what) const;
  const TJson& Value() const { return *m_Value; }
  const std::string& Path() const { return m_Path; }
  bool IsText() const { return m_Value->is_string(); }
  bool IsNull() const { return m_Value->is_null(); }
  std::string Text() const;
  std::string NonEmptyText() const;
  bool Flag() const;
  std::uint64_t Number(std::uint64_t least, std::uint64_t most) const;
  /// An integer that may be negative.
  int Integer(int least, int most) const;
  /// The bytes of base64 text.
  std::string Bytes() const;
  std::vector<CJsonReader> Items() const;
  /// Keys and values of an object, in order.
  std::vector<std::pair<std::string, CJsonReader>> Members() const;

  /// Refuses an object with other keys than these.
  void OnlyKeys(std::initializer_list<const char*> keys) const;
  std::optional<CJsonReader> Find(const std::string& key) const;
  CJsonReader Need(const std::string& key) const;
  std::string TextOr(const std::string& key, const std::string& otherwise) const;
  bool FlagOr(const std::string& key, bool otherwise) const;
  /// A default that is out of range is refused as a given number is.
  std::uint64_t NumberOr(const std::string& key, std::uint64_t otherwise, std::uint64_t least,
                         std::uint64_t most) const;
  /// The items of a list; none when the key is absent.
  std::vector<CJsonReader> ItemsOf(const std::string& key) const;

 private:
  const TJson* m_Value;
  std::string m_Path;
};

std::string ToBase64(const std::string& bytes);

}  // namespace Simulation
