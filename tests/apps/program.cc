// SPDX-License-Identifier: Apache-2.0
#include "tests/apps/program.h"

namespace skorra {

Arguments Command(Arguments arguments) {
  arguments.insert(arguments.begin(), SKORRA_NTP_PROGRAM);
  return arguments;
}

}  // namespace skorra
