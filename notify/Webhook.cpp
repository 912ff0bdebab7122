/// @file
/// Addresses that are posted to, or asked for.

#include <curl/curl.h>

#include <array>
#include <memory>

#include "notify/Ways.h"

namespace Notify {

namespace {

constexpr std::size_t ANSWER_LIMIT = 500;
constexpr char JSON_TYPE[] = "application/json";

std::size_t Take(const char* part, std::size_t size, std::size_t count, void* words) {
  auto& text = *static_cast<std::string*>(words);
  if (text.size() < ANSWER_LIMIT) text.append(part, std::min(size * count, ANSWER_LIMIT - text.size()));
  return size * count;
}

/// The text with the message's fields in the places of "{{name}}"; what it does not know stays as it is.
std::string Filled(const std::string& text, const Json& message, bool isJson) {
  std::string filled;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t begin = text.find("{{", at);
    const std::size_t end = begin == std::string::npos ? begin : text.find("}}", begin);
    filled += text.substr(
        at, begin == std::string::npos || end == std::string::npos ? std::string::npos : begin - at);
    if (begin == std::string::npos || end == std::string::npos) break;
    const auto field = message.find(text.substr(begin + 2, end - begin - 2));
    std::string value = text.substr(begin, end + 2 - begin);
    if (field != message.end()) {
      value = field->is_string() && !isJson ? field->get<std::string>() : field->dump();
      // Quotes stand in the template, so that a text may be a part of a longer one.
      if (field->is_string() && isJson) value = value.substr(1, value.size() - 2);
      if (field->is_null()) value.clear();
    }
    filled += value;
    at = end + 2;
  }
  return filled;
}

/// @param body null: it is only asked for
SResult Ask(const SOrder& order, const std::string* body, const std::vector<std::string>& headers) {
  const std::unique_ptr<CURL, decltype(&::curl_easy_cleanup)> curl(::curl_easy_init(), &::curl_easy_cleanup);
  if (curl == nullptr) return {false, "want of memory"};
  const auto set = [&](CURLoption option, auto value) { ::curl_easy_setopt(curl.get(), option, value); };
  std::string words;
  std::array<char, CURL_ERROR_SIZE> error{};
  curl_slist* list = nullptr;
  for (const std::string& header : headers) list = ::curl_slist_append(list, header.c_str());
  const std::unique_ptr<curl_slist, decltype(&::curl_slist_free_all)> owner(list, &::curl_slist_free_all);
  set(CURLOPT_URL, TextIn(order.m_Settings, "url").c_str());
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  set(CURLOPT_NOSIGNAL, 1L);
  set(CURLOPT_TIMEOUT_MS, static_cast<long>(order.m_Limit.count()));
  set(CURLOPT_USERAGENT, "rvx-notify/" RVX_VERSION);
  set(CURLOPT_HTTPHEADER, list);
  set(CURLOPT_WRITEFUNCTION, &Take);
  set(CURLOPT_WRITEDATA, &words);
  set(CURLOPT_ERRORBUFFER, error.data());
  if (body != nullptr) {
    set(CURLOPT_POSTFIELDSIZE, static_cast<long>(body->size()));
    set(CURLOPT_POSTFIELDS, body->c_str());
  }
  if (const CURLcode code = ::curl_easy_perform(curl.get()); code != CURLE_OK)
    return {false, error[0] == 0 ? ::curl_easy_strerror(code) : error.data()};
  long status = 0;
  ::curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
  return {status >= 200 && status < 300, "HTTP " + std::to_string(status), words};
}

}  // namespace

SResult ByWebhook(const SOrder& order) {
  const Json& settings = order.m_Settings;
  const std::string given = TextIn(settings, "content-type"), type = given.empty() ? JSON_TYPE : given;
  const std::string body =
      settings.contains("template")
          ? Filled(TextIn(settings, "template"), order.m_Message, type.find("json") != std::string::npos)
          : order.m_Message.dump(-1, ' ', false, Json::error_handler_t::replace);
  std::vector<std::string> headers{"Content-Type: " + type, "Expect:"};
  if (settings.contains("headers"))
    for (const Json& header : settings["headers"]) headers.push_back(header);
  return Ask(order, &body, headers);
}

SResult ByHeartbeat(const SOrder& order) { return Ask(order, nullptr, {}); }

}  // namespace Notify
