#pragma once

#include <optional>

namespace base {

// The optional type of the facilities' interfaces.
template <class T>
using Optional = std::optional<T>;

}  // namespace base
