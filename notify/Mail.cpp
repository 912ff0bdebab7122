/// @file
/// Mail, by way of sendmail(8).

#include <algorithm>

#include "notify/Ways.h"

namespace Notify {

namespace {

std::string Base64(const std::string& text) {
  constexpr char LETTERS[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string coded;
  for (std::size_t i = 0; i < text.size(); i += 3) {
    unsigned int bits = 0;
    for (std::size_t k = 0; k < 3; ++k)
      bits = bits << 8 | (i + k < text.size() ? static_cast<unsigned char>(text[i + k]) : 0U);
    for (std::size_t k = 0; k < 4; ++k)
      coded += i + k > text.size() ? '=' : LETTERS[bits >> (18 - 6 * k) & 63];
  }
  return coded;
}

/// A header's text, which has no line's end in it: in plain where it is, else in words of UTF-8.
std::string Header(const std::string& text) {
  const auto isPlain = [](unsigned char c) { return c >= ' ' && c < 127; };
  if (std::ranges::all_of(text, isPlain)) return text;
  constexpr std::size_t PART = 42;  // coded it fits into the 75 characters of a word
  std::string header;
  for (std::size_t at = 0; at < text.size();) {
    std::size_t size = std::min(PART, text.size() - at);
    while (at + size < text.size() && size > 1 &&
           (static_cast<unsigned char>(text[at + size]) & 0xC0U) == 0x80)
      --size;
    header += (header.empty() ? "" : "\n ") + ("=?UTF-8?B?" + Base64(text.substr(at, size)) + "?=");
    at += size;
  }
  return header;
}

}  // namespace

SResult ByMail(const SOrder& order) {
  const Json& message = order.m_Message;
  const std::string from = TextIn(order.m_Settings, "from");
  std::string mail = from.empty() ? "" : "From: " + from + "\n";
  mail += "To: " + TextIn(order.m_Settings, "to") + "\nSubject: " + Header(TextIn(message, "subject")) +
          "\nAuto-Submitted: auto-generated\nMIME-Version: 1.0\nContent-Type: text/plain; charset=utf-8\n"
          "Content-Transfer-Encoding: 8bit\nX-RVX-Phase: " +
          TextIn(message, "phase") + "\nX-RVX-Condition: " + TextIn(message, "condition") +
          "\nX-RVX-Object: " + Header(TextIn(message, "object")) + "\n\n" + TextIn(message, "text");
  // The recipients stand in the mail; a line with a dot alone does not end it.
  return Run({TextIn(order.m_Settings, "program"), "-t", "-i"}, {}, mail);
}

}  // namespace Notify
