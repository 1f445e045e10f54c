// SPDX-License-Identifier: Apache-2.0

// A name server on the loopback interface that answers as a test wants.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace skorra {

class FakeNameServer {
 public:
  static constexpr uint32_t kTtlS = 60;

  // What it does with questions of one type.
  struct Behaviour {
    bool is_silent = false;
    uint8_t response_code = 0;  // RFC 1035, section 4.1.1; 3 means that the name is unknown
    std::vector<std::vector<uint8_t>> addresses = {};  // 4 bytes each for IPv4, 16 for IPv6
    uint32_t ttl_s = kTtlS;                            // of the addresses
    std::optional<uint32_t> alias_ttl_s = {};          // the name is an alias, and this is that record's
  };
  struct Options {
    Behaviour ipv4;
    Behaviour ipv6;
    int ignored_count = 0;  // so many of the first questions get no answer, as if they were lost
    uint16_t port = 0;      // 0: any that is free; another one only in a network namespace of the test's own
    std::string silent_label = {};  // names that begin with this label get no answer
  };

  explicit FakeNameServer(Options options);
  ~FakeNameServer();
  FakeNameServer(const FakeNameServer&) = delete;
  FakeNameServer& operator=(const FakeNameServer&) = delete;

  // "127.0.0.1:port"
  const std::string& address() const { return address_; }
  int question_count() const { return question_count_; }

 private:
  void Serve();

  const Options options_;
  int fd_ = -1;
  std::string address_;
  std::atomic<int> question_count_{0};
  std::atomic<bool> is_over_{false};
  std::thread thread_;
};

}  // namespace skorra
