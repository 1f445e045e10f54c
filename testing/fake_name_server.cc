// SPDX-License-Identifier: Apache-2.0
#include "testing/fake_name_server.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <utility>

namespace skorra {
namespace {

constexpr size_t kHeaderBytes = 12;
constexpr size_t kRecordHeaderBytes = 12;
constexpr uint8_t kTypeIPv4 = 1;
constexpr uint8_t kTypeAlias = 5;
constexpr uint8_t kTypeIPv6 = 28;

// Where the first question ends, nothing when there is no whole one.
std::optional<size_t> QuestionEnd(const std::vector<uint8_t>& packet) {
  size_t at = kHeaderBytes;
  while (at < packet.size() && packet[at] != 0) {
    at += packet[at] + size_t{1};
  }
  at += 5;  // the empty label, type and class
  return at <= packet.size() ? std::optional(at) : std::nullopt;
}

// The first label of the name in question.
std::string FirstLabel(const std::vector<uint8_t>& packet) {
  const auto begin = packet.begin() + kHeaderBytes + 1;
  return std::string(begin, begin + packet[kHeaderBytes]);
}

// RFC 1035, section 4.1.3; the name of the record is that at `name_offset` of the packet.
void AppendRecord(std::vector<uint8_t>* packet, size_t name_offset, uint8_t type, uint32_t ttl_s,
                  const std::vector<uint8_t>& data) {
  for (const uint64_t number : {uint64_t{0xc000} + name_offset, uint64_t{type}, uint64_t{1}}) {
    packet->push_back(static_cast<uint8_t>(number >> 8));
    packet->push_back(static_cast<uint8_t>(number));
  }
  for (int shift = 24; shift >= 0; shift -= 8) {
    packet->push_back(static_cast<uint8_t>(ttl_s >> shift));
  }
  packet->push_back(0);
  packet->push_back(static_cast<uint8_t>(data.size()));
  packet->insert(packet->end(), data.begin(), data.end());
}

std::vector<uint8_t> Answer(const std::vector<uint8_t>& question, size_t question_end, uint8_t type,
                            const FakeNameServer::Behaviour& behaviour) {
  std::vector<uint8_t> answer(question.begin(), question.begin() + static_cast<std::ptrdiff_t>(question_end));
  const size_t count = behaviour.addresses.size() + (behaviour.alias_ttl_s ? 1 : 0);
  answer[2] = 0x81;  // a response, recursion desired
  answer[3] = static_cast<uint8_t>(0x80 | behaviour.response_code);
  const std::array<uint8_t, 8> counts = {0, 1, 0, static_cast<uint8_t>(count), 0, 0, 0, 0};
  std::copy(counts.begin(), counts.end(), answer.begin() + 4);
  size_t name_offset = kHeaderBytes;
  if (behaviour.alias_ttl_s) {
    AppendRecord(&answer, name_offset, kTypeAlias, *behaviour.alias_ttl_s,
                 {4, 'r', 'e', 'a', 'l', 0xc0, kHeaderBytes});
    name_offset = question_end + kRecordHeaderBytes;
  }
  for (const std::vector<uint8_t>& address : behaviour.addresses) {
    AppendRecord(&answer, name_offset, type, behaviour.ttl_s, address);
  }
  return answer;
}

}  // namespace

FakeNameServer::FakeNameServer(Options options)
    : options_(std::move(options)), fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  local.sin_port = htons(options_.port);
  socklen_t size = sizeof local;
  if (bind(fd_, reinterpret_cast<sockaddr*>(&local), size) != 0) {
    std::perror("FakeNameServer");
    std::abort();
  }
  getsockname(fd_, reinterpret_cast<sockaddr*>(&local), &size);
  address_ = "127.0.0.1:" + std::to_string(ntohs(local.sin_port));
  thread_ = std::thread([this] { Serve(); });
}

FakeNameServer::~FakeNameServer() {
  is_over_ = true;
  thread_.join();
  close(fd_);
}

void FakeNameServer::Serve() {
  while (!is_over_) {
    pollfd readable{fd_, POLLIN, 0};
    if (poll(&readable, 1, 5) != 1) {
      continue;
    }
    std::vector<uint8_t> packet(512);
    sockaddr_in client{};
    socklen_t size = sizeof client;
    const ssize_t got = recvfrom(fd_, packet.data(), packet.size(), MSG_DONTWAIT,
                                 reinterpret_cast<sockaddr*>(&client), &size);
    if (got < 0) {
      continue;
    }
    packet.resize(static_cast<size_t>(got));
    const auto end = QuestionEnd(packet);
    if (!end) {
      continue;
    }
    const uint8_t type = packet[*end - 3];
    if (++question_count_ <= options_.ignored_count || (type != kTypeIPv4 && type != kTypeIPv6)) {
      continue;
    }
    const Behaviour& behaviour = type == kTypeIPv4 ? options_.ipv4 : options_.ipv6;
    if (!behaviour.is_silent && FirstLabel(packet) != options_.silent_label) {
      const auto answer = Answer(packet, *end, type, behaviour);
      sendto(fd_, answer.data(), answer.size(), 0, reinterpret_cast<sockaddr*>(&client), size);
    }
  }
}

}  // namespace skorra
