#include <cstdlib>
#include <new>

#include "tests/support/FailingCalls.h"

namespace {

thread_local bool s_NoMemory = false;
thread_local unsigned long s_Left = 0;  ///< allocations until one fails; 0: none does
thread_local bool s_HasFailed = false;

void* Allocate(std::size_t size) {
  if (s_Left != 0 && --s_Left == 0) {
    s_HasFailed = true;
    return nullptr;
  }
  return std::malloc(size == 0 ? 1 : size);
}

void* AllocateOrThrow(std::size_t size) {
  void* const memory = Allocate(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

// All of them, so that each takes what the other gave.
void* operator new(std::size_t size) { return AllocateOrThrow(size); }
void* operator new[](std::size_t size) { return AllocateOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return s_NoMemory ? nullptr : Allocate(size);
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }

namespace NAMESPACE_piRVX {

CFailingAllocation::CFailingAllocation(unsigned long n) {
  s_HasFailed = false;
  s_Left = n;
  s_NoMemory = n == ALL_THAT_DO_NOT_THROW;
}
CFailingAllocation::~CFailingAllocation() {
  s_Left = 0;
  s_NoMemory = false;
}
bool CFailingAllocation::HasFailed() { return s_HasFailed; }

}  // namespace NAMESPACE_piRVX
