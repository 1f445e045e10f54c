// SPDX-License-Identifier: Apache-2.0
// The host program's own end points, under a name and a path that the library has too.
#pragma once

#include <string>

namespace net {

class IPEndPoint {
 public:
  explicit IPEndPoint(std::string text) : text_(std::move(text)) {}
  std::string ToString() const;

 private:
  std::string text_;
};

}  // namespace net
