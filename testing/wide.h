// SPDX-License-Identifier: Apache-2.0

// A whole number of 128 bits with a sign, for references that must not overflow.
#pragma once

#ifndef __SIZEOF_INT128__
#include <boost/multiprecision/cpp_int.hpp>
#endif

namespace skorra {

#ifdef __SIZEOF_INT128__
__extension__ using Wide = __int128;
#else
using Wide = boost::multiprecision::int128_t;
#endif

}  // namespace skorra
