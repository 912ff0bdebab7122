#include "simulator/description/Json.h"

#include <algorithm>
#include <boost/algorithm/string/erase.hpp>
#include <sstream>

#include "simulator/machine/MachineError.h"

namespace Simulation {

TJson ParseJson(const std::string& text) {
  constexpr int MOST_DEPTH = 64;
  std::istringstream stream(text);
  return Reading([&] {
    return TJson::parse(stream, [&](int depth, TJson::parse_event_t event, const TJson&) {
      const bool opens =
          event == TJson::parse_event_t::object_start || event == TJson::parse_event_t::array_start;
      if (!opens || depth < MOST_DEPTH) return true;
      // Values are copied and compared by functions that call themselves.
      const auto line = 1 + std::count(text.begin(), text.begin() + stream.tellg(), '\n');
      throw CMachineError("line " + std::to_string(line) +
                          ": more than 64 lists and objects lie in each other");
    });
  });
}

void Fail(const TJson& value, const std::string& what) {
  throw TJson::other_error::create(501, what, &value);
}

void Complain(const TJson::exception& error) {
  // Without the number of the exception: "[json.exception.other_error.501] (/disks/1/size) is ...".
  const std::string text = error.what();
  throw CMachineError(boost::erase_first_copy(text.substr(text.find("] ") + 2), "parse error at "));
}

const TJson::array_t& ListOf(const TJson& json) {
  if (!json.is_array()) Fail(json, "is not a list");
  return json.get_ref<const TJson::array_t&>();
}

const TJson::object_t& ObjectOf(const TJson& json) {
  if (!json.is_object()) Fail(json, "is not an object");
  return json.get_ref<const TJson::object_t&>();
}

std::string NonEmptyText(const TJson& json) {
  auto text = json.get<std::string>();
  if (text.empty()) Fail(json, "is empty");
  return text;
}

}  // namespace Simulation
