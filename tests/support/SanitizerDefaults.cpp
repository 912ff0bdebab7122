/// @file
/// What the sanitizers are told where a test program is built with them.

#if defined(__SANITIZE_ADDRESS__)

// A cancelled thread is unwound by the C library, and the address sanitizer takes the stack that it left for
// one that is still guarded when it sets the thread's signal stack aside at the end.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_suppressions();
const char* __asan_default_suppressions() { return "interceptor_name:sigaltstack\n"; }

#endif
