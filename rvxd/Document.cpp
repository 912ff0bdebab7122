#include "rvxd/Document.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include "host/Error.h"
#include "libraries/common/ReplaceFile.h"

namespace Rvxd {

namespace {

constexpr int DEPTH_LIMIT = 64;

}  // namespace

Json Parsed(const std::string& text) {
  return Json::parse(
      text, [](int depth, Json::parse_event_t, Json&) { return depth < DEPTH_LIMIT; }, false);
}

Json ReadDocument(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  Json document = Parsed({std::istreambuf_iterator<char>(file), {}});
  return document.is_discarded() ? Json(nullptr) : document;
}

void WriteWhole(const std::string& path, const std::string& text) {
  if (!KVT::Internal::ReplaceFile(path, text, S_IRUSR | S_IWUSR))
    throw Host::CError(Host::EXIT_PLUGIN_ERROR, "cannot write " + path + ": " + std::strerror(errno));
}

}  // namespace Rvxd
