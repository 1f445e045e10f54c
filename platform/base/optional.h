#pragma once

#include <optional>

namespace base {
inline namespace skorra_ntp {

// The optional type of the facilities' interfaces.
template <class T>
using Optional = std::optional<T>;

}  // namespace skorra_ntp
}  // namespace base
