#include "tests/support/NoMemory.h"

#include <atomic>
#include <new>

namespace {
std::atomic<bool> s_NoMemory{false};
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return s_NoMemory ? nullptr : ::operator new(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

namespace NAMESPACE_piRVX {

CNoMemory::CNoMemory() { s_NoMemory = true; }
CNoMemory::~CNoMemory() { s_NoMemory = false; }

}  // namespace NAMESPACE_piRVX
