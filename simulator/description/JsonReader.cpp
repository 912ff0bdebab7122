#include "simulator/description/JsonReader.h"

#include <algorithm>
#include <boost/format.hpp>
#include <sstream>
#include <string_view>

#include "simulator/machine/MachineError.h"

namespace Simulation {
namespace {

constexpr int MOST_DEPTH = 64;
constexpr std::string_view BASE64 = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

TJson ParseJson(const std::string& text) {
  std::istringstream stream(text);
  const auto fail = [&](const std::string& what) {
    // Where the reading stands, without the character that ended it.
    const auto read = static_cast<std::ptrdiff_t>(stream.rdbuf()->pubseekoff(0, std::ios::cur, std::ios::in));
    const auto end = text.begin() + (stream.eof() ? read : std::max<std::ptrdiff_t>(read, 1) - 1);
    throw CMachineError("line " + std::to_string(1 + std::count(text.begin(), end, '\n')) + ", " + what);
  };
  try {
    return TJson::parse(stream, [&](int depth, TJson::parse_event_t event, const TJson&) {
      const bool opens =
          event == TJson::parse_event_t::object_start || event == TJson::parse_event_t::array_start;
      // Values are copied and compared by functions that call themselves.
      if (opens && depth >= MOST_DEPTH) fail("more than 64 lists and objects lie in each other");
      return true;
    });
  } catch (const TJson::exception& error) {
    const std::string what = error.what();
    const auto column = what.find("column ");
    fail(what.substr(column != std::string::npos ? column : what.find("] ") + 2));
    throw;
  }
}

void CJsonReader::Fail(const std::string& what) const {
  throw CMachineError((m_Path.empty() ? "the description" : m_Path) + ": " + what);
}

std::string CJsonReader::Text() const {
  if (!m_Value->is_string()) Fail("is not a text");
  return m_Value->get<std::string>();
}

std::string CJsonReader::NonEmptyText() const {
  std::string text = Text();
  if (text.empty()) Fail("is empty");
  return text;
}

bool CJsonReader::Flag() const {
  if (!m_Value->is_boolean()) Fail("is not true or false");
  return m_Value->get<bool>();
}

std::uint64_t CJsonReader::Number(std::uint64_t least, std::uint64_t most) const {
  const bool negative =
      m_Value->is_number_integer() && !m_Value->is_number_unsigned() && m_Value->get<std::int64_t>() < 0;
  if (!m_Value->is_number_integer()) Fail("is not a whole number");
  const auto number = m_Value->get<std::uint64_t>();
  if (negative || number < least || number > most)
    Fail(str(boost::format("is not from %d to %d") % least % most));
  return number;
}

int CJsonReader::Integer(int least, int most) const {
  if (!m_Value->is_number_integer()) Fail("is not a whole number");
  const auto number = m_Value->get<std::int64_t>();
  const bool wrapped = m_Value->is_number_unsigned() && number < 0;
  if (wrapped || number < least || number > most)
    Fail(str(boost::format("is not from %d to %d") % least % most));
  return static_cast<int>(number);
}

std::string CJsonReader::Bytes() const {
  const std::string text = Text();
  if (text.size() % 4 != 0) Fail("is not base64");
  const std::size_t padding = text.size() - std::min(text.find_last_not_of('=') + 1, text.size());
  if (padding > 2) Fail("is not base64");
  std::string bytes;
  std::uint32_t group = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool padded = i >= text.size() - padding;
    const std::size_t digit = padded ? 0 : BASE64.find(text[i]);
    if (digit == std::string_view::npos) Fail("is not base64");
    group = (group << 6) | static_cast<std::uint32_t>(digit);
    if (i % 4 != 3) continue;
    for (const int shift : {16, 8, 0}) bytes += static_cast<char>(group >> shift & 0xffU);
    group = 0;
  }
  bytes.resize(bytes.size() - padding);
  return bytes;
}

std::vector<CJsonReader> CJsonReader::Items() const {
  if (!m_Value->is_array()) Fail("is not a list");
  std::vector<CJsonReader> items;
  for (std::size_t i = 0; i < m_Value->size(); ++i) {
    items.emplace_back((*m_Value)[i], m_Path + "[" + std::to_string(i) + "]");
  }
  return items;
}

std::vector<std::pair<std::string, CJsonReader>> CJsonReader::Members() const {
  if (!m_Value->is_object()) Fail("is not an object");
  std::vector<std::pair<std::string, CJsonReader>> members;
  for (const auto& [key, value] : m_Value->items()) {
    members.emplace_back(key, CJsonReader(value, m_Path.empty() ? key : m_Path + "." + key));
  }
  return members;
}

void CJsonReader::OnlyKeys(std::initializer_list<const char*> keys) const {
  for (const auto& [key, value] : Members()) {
    if (std::find(keys.begin(), keys.end(), key) == keys.end()) value.Fail("this key is unknown");
  }
}

std::optional<CJsonReader> CJsonReader::Find(const std::string& key) const {
  if (!m_Value->is_object()) Fail("is not an object");
  const auto found = m_Value->find(key);
  if (found == m_Value->end()) return std::nullopt;
  return CJsonReader(*found, m_Path.empty() ? key : m_Path + "." + key);
}

CJsonReader CJsonReader::Need(const std::string& key) const {
  const auto found = Find(key);
  if (!found) Fail("the key \"" + key + "\" is missing");
  return *found;
}

std::string CJsonReader::TextOr(const std::string& key, const std::string& otherwise) const {
  const auto found = Find(key);
  return found ? found->Text() : otherwise;
}

bool CJsonReader::FlagOr(const std::string& key, bool otherwise) const {
  const auto found = Find(key);
  return found ? found->Flag() : otherwise;
}

std::uint64_t CJsonReader::NumberOr(const std::string& key, std::uint64_t otherwise, std::uint64_t least,
                                    std::uint64_t most) const {
  if (const auto found = Find(key)) return found->Number(least, most);
  if (otherwise < least || otherwise > most) {
    Fail(str(boost::format("the key \"%s\" is missing, and its default %d is not from %d to %d") % key %
             otherwise % least % most));
  }
  return otherwise;
}

std::vector<CJsonReader> CJsonReader::ItemsOf(const std::string& key) const {
  const auto found = Find(key);
  return found ? found->Items() : std::vector<CJsonReader>{};
}

std::string ToBase64(const std::string& bytes) {
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::size_t count = std::min<std::size_t>(3, bytes.size() - i);
    std::uint32_t group = 0;
    for (std::size_t j = 0; j < 3; ++j) {
      group = (group << 8) | (j < count ? static_cast<unsigned char>(bytes[i + j]) : 0U);
    }
    for (std::size_t j = 0; j < 4; ++j) text += j <= count ? BASE64[group >> (18 - 6 * j) & 0x3fU] : '=';
  }
  return text;
}

}  // namespace Simulation
