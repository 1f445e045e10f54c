// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>

namespace base {
inline namespace skorra_ntp {

// The optional type in the interfaces of the facilities.
template <class T>
using Optional = std::optional<T>;

}  // namespace skorra_ntp
}  // namespace base
