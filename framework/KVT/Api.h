#pragma once
/// @file
/// Visibility of the framework's classes, and clang's thread-safety annotations (empty for other compilers).

#define ZQ_API __attribute__((visibility("default")))

#if defined(__clang__)
#define ZQ_TSA(x) __attribute__((x))
#else
#define ZQ_TSA(x)
#endif

#define ZQ_CAPABILITY(name) ZQ_TSA(capability(name))
#define ZQ_SCOPED_CAPABILITY ZQ_TSA(scoped_lockable)
#define ZQ_GUARDED_BY(lock) ZQ_TSA(guarded_by(lock))
#define ZQ_REQUIRES(...) ZQ_TSA(requires_capability(__VA_ARGS__))
#define ZQ_EXCLUDES(...) ZQ_TSA(locks_excluded(__VA_ARGS__))
#define ZQ_ACQUIRE(...) ZQ_TSA(acquire_capability(__VA_ARGS__))
#define ZQ_RELEASE(...) ZQ_TSA(release_capability(__VA_ARGS__))
#define ZQ_ASSERT_CAPABILITY(lock) ZQ_TSA(assert_capability(lock))
#define ZQ_NO_THREAD_SAFETY_ANALYSIS ZQ_TSA(no_thread_safety_analysis)
