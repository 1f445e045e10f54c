// SPDX-License-Identifier: Apache-2.0
// Marks what a host program may link of the library when it is built as a shared one.
//
//   class SKORRA_EXPORT KeyMetrics { ... };
//
// Everything of ours is hidden unless it carries this mark. In a static library the mark is empty, so that a
// host's own shared library does not pass our symbols on. A host never defines SKORRA_SHARED.
//
// A marked class or function keeps its state in a source file: an inline variable, or a static variable of an
// inline function, would exist twice, once in the library and once in a host that hides its symbols.
#pragma once

#ifdef SKORRA_SHARED
#define SKORRA_EXPORT __attribute__((visibility("default")))
#else
#define SKORRA_EXPORT
#endif
