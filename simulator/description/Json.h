#pragma once
/// @file
/// JSON that is read strictly, by tables in which a key of an object is one row, read and written.

#include <algorithm>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "simulator/machine/MachineState.h"

namespace Simulation {

using TJson = nlohmann::ordered_json;

/// The value of JSON text. Throws CMachineError, which names the line of a syntax error.
TJson ParseJson(const std::string& text);
/// Says what is wrong with a value, and where it stands, as a JSON pointer; to be called below Reading().
[[noreturn]] void Fail(const TJson& value, const std::string& what);
[[noreturn]] void Complain(const TJson::exception& error);
/// Runs a reading. What is wrong with a value, to nlohmann or to Fail(), becomes a CMachineError.
template <class TRead>
auto Reading(TRead read) {
  try {
    return read();
  } catch (const TJson::exception& error) {
    Complain(error);
  }
}

const TJson::array_t& ListOf(const TJson& json);
const TJson::object_t& ObjectOf(const TJson& json);
std::string NonEmptyText(const TJson& json);
template <class TNumber>
TNumber NumberOf(const TJson& json, TNumber least, TNumber most) {
  const auto fits = [&](auto number) {
    return std::cmp_greater_equal(number, least) && std::cmp_less_equal(number, most);
  };
  const bool good = json.is_number_unsigned() ? fits(json.get<std::uint64_t>())
                                              : json.is_number_integer() && fits(json.get<std::int64_t>());
  if (!good) Fail(json, "is no whole number from " + std::to_string(least) + " to " + std::to_string(most));
  return json.get<TNumber>();
}

/// A key of an object. Writing nothing (null) leaves it out.
template <class TObject>
struct SKey {
  const char* m_Name;
  std::function<void(SMachine&, TObject&, const TJson&)> m_Read;
  std::function<TJson(const SMachine&, const TObject&)> m_Write;
  bool m_Needed{false};
};
template <class TObject>
using TKeys = std::vector<SKey<TObject>>;

/// Takes over the keys that are there, in the order of the table. All others keep what the object has, but
/// for those that are needed; keys of no row are refused.
template <class TObject>
void ReadKeys(const TKeys<TObject>& keys, SMachine& machine, TObject& object, const TJson& json) {
  for (const auto& [name, value] : ObjectOf(json)) {
    const auto isIt = [&name = name](const auto& key) { return name == key.m_Name; };
    if (std::none_of(keys.begin(), keys.end(), isIt)) Fail(value, "this key is unknown");
  }
  for (const auto& key : keys) {
    const auto found = json.find(key.m_Name);
    if (found != json.end()) key.m_Read(machine, object, *found);
    if (found == json.end() && key.m_Needed)
      Fail(json, std::string("the key \"") + key.m_Name + "\" is missing");
  }
}

template <class TObject>
TJson WriteKeys(const TKeys<TObject>& keys, const SMachine& machine, const TObject& object) {
  TJson json = TJson::object();
  for (const auto& key : keys)
    if (TJson value = key.m_Write(machine, object); !value.is_null()) json[key.m_Name] = std::move(value);
  return json;
}

template <class TObject>
SKey<TObject> Needed(SKey<TObject> key) {
  key.m_Needed = true;
  return key;
}

/// Text and flags.
template <class TObject, class TField>
SKey<TObject> Value(const char* name, TField TObject::*field) {
  return {name,
          [field](SMachine&, TObject& object, const TJson& json) { object.*field = json.get<TField>(); },
          [field](const SMachine&, const TObject& object) { return TJson(object.*field); }};
}

template <class TObject>
SKey<TObject> NonEmpty(const char* name, std::string TObject::*field) {
  return {name,
          [field](SMachine&, TObject& object, const TJson& json) { object.*field = NonEmptyText(json); },
          Value(name, field).m_Write, true};
}

/// The field counts in parts of what the description does, such as sectors, two of which are a KiB.
template <class TObject, class TField>
SKey<TObject> Number(const char* name, TField TObject::*field, std::type_identity_t<TField> least,
                     std::type_identity_t<TField> most, std::type_identity_t<TField> parts = 1) {
  return {name,
          [=](SMachine&, TObject& object, const TJson& json) {
            object.*field = static_cast<TField>(NumberOf(json, least, most) * parts);
          },
          [=](const SMachine&, const TObject& object) { return TJson(object.*field / parts); }};
}

/// One of several words, and what each stands for.
template <class TObject, class TField>
SKey<TObject> Choice(const char* name, TField TObject::*field,
                     std::vector<std::pair<std::string, TField>> words) {
  return {name,
          [=](SMachine&, TObject& object, const TJson& json) {
            std::string all;
            for (const auto& [word, value] : words) {
              if (json == word) return void(object.*field = value);
              all += (all.empty() ? "\"" : ", \"") + word + "\"";
            }
            Fail(json, "is none of " + all);
          },
          [=](const SMachine&, const TObject& object) {
            for (const auto& [word, value] : words)
              if (object.*field == value) return TJson(word);
            return TJson();
          }};
}

template <class TItem>
TJson WriteList(const TKeys<TItem>& keys, const SMachine& machine, const std::vector<TItem>& items) {
  TJson list = TJson::array();
  for (const TItem& item : items) list.push_back(WriteKeys(keys, machine, item));
  return list;
}

}  // namespace Simulation
