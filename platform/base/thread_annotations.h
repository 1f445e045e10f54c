// SPDX-License-Identifier: Apache-2.0

// Clang's thread-safety annotations: with -Wthread-safety the compiler finds accesses to a member without its
// lock. Other compilers see nothing.
//
//   void Prune() SKORRA_REQUIRES(lock_);
//   std::vector<Entry> entries_ SKORRA_GUARDED_BY(lock_);
#pragma once

#ifdef __clang__
#define SKORRA_THREAD_ANNOTATION(text) __attribute__((text))
#else
#define SKORRA_THREAD_ANNOTATION(text)
#endif

#define SKORRA_CAPABILITY(name) SKORRA_THREAD_ANNOTATION(capability(name))
#define SKORRA_SCOPED_CAPABILITY SKORRA_THREAD_ANNOTATION(scoped_lockable)
#define SKORRA_GUARDED_BY(lock) SKORRA_THREAD_ANNOTATION(guarded_by(lock))
#define SKORRA_REQUIRES(...) SKORRA_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define SKORRA_ACQUIRE(...) SKORRA_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define SKORRA_TRY_ACQUIRE(...) SKORRA_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define SKORRA_RELEASE(...) SKORRA_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define SKORRA_NO_THREAD_SAFETY_ANALYSIS SKORRA_THREAD_ANNOTATION(no_thread_safety_analysis)
