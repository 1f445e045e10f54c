// SPDX-License-Identifier: Apache-2.0
#include "tests/model/surroundings.h"

#include <algorithm>
#include <utility>

#include "testing/addresses.h"

namespace skorra::model {
namespace {

constexpr uint16_t kOtherPort = 1123;
constexpr int64_t kLookUpLimitUs = 2000000;
// Requests whose replies can end in the same list are fewer than this apart.
constexpr int64_t kDistinctOffsets = 64;

using Addresses = std::array<net::IPEndPoint, kAddressCount>;

Addresses MakeAddresses() {
  Addresses addresses;
  for (size_t i = 0; i < 7; ++i) {
    addresses[i] = net::IPEndPoint::FromIPv4({203, 0, 113, static_cast<uint8_t>(i + 1)}, kNtpPort);
  }
  addresses[7] = Address("198.51.100.7");
  addresses[8] = net::IPEndPoint::FromIPv4({203, 0, 113, 2}, kOtherPort);
  addresses[9] = net::IPEndPoint::FromIPv4({203, 0, 113, 3}, kOtherPort);
  addresses[10] = Address("2001:db8::7");
  return addresses;
}

const Addresses& AllAddresses() {
  static const Addresses& addresses = *new Addresses(MakeAddresses());
  return addresses;
}

}  // namespace

uint64_t Mix(uint64_t state) {
  state += 0x9E3779B97F4A7C15u;
  state = (state ^ (state >> 30)) * 0xBF58476D1CE4E5B9u;
  state = (state ^ (state >> 27)) * 0x94D049BB133111EBu;
  return state ^ (state >> 31);
}

Surroundings::Surroundings(uint64_t seed, int64_t offset_from_steady_us)
    : true_offset_us(offset_from_steady_us),
      wall_offset_us(offset_from_steady_us),
      seed_(seed),
      hosts_{Host{"one.test", {0}, 0, 300000000},
             Host{"two.test", {1, 2}, 0, 300000000},
             Host{"three.test", {3, 4, 5}},
             Host{"shared.test", {1, 0}, 0, 86400000000},
             Host{"none.test", {}},
             Host{"One.test", {6}},
             Host{"slow.test", {0, 6}, 700000, 600000000}} {}

const net::IPEndPoint& Surroundings::Address(int index) { return AllAddresses()[static_cast<size_t>(index)]; }

int Surroundings::IndexOf(const net::IPEndPoint& address) {
  const auto found = std::find(AllAddresses().begin(), AllAddresses().end(), address);
  return found == AllAddresses().end() ? -1 : static_cast<int>(found - AllAddresses().begin());
}

const std::string& Surroundings::Name(int index) {
  static const auto& names = *new std::array<std::string, kNameCount>{
      "one.test",  "two.test", "three.test",   "shared.test",   "none.test", "One.test",
      "slow.test", "bad name", "198.51.100.7", "two.test:1123", "",          "[2001:db8::7]:123"};
  return names[static_cast<size_t>(index)];
}

Fate Surroundings::FateOf(int address, uint64_t request) const {
  const Server& server = servers[static_cast<size_t>(address)];
  const uint64_t bits = Mix(seed_ ^ Mix(static_cast<uint64_t>(address) + (request << 8)));
  const auto draw = [&](int shift, uint64_t limit) {
    return static_cast<int64_t>(((bits >> shift) & 0xffff) * limit >> 16);
  };
  int64_t to_server_us = 4000 + draw(0, 300);
  int64_t asymmetry_us = 2 * draw(16, 100);
  int64_t error_us = server.clock_error_us;
  Fate fate;
  fate.arrival_count = 1;
  switch (server.behaviour) {
    case Behaviour::kSilent:
      return Fate();
    case Behaviour::kLossy:
      fate.arrival_count = draw(32, 3) == 0 ? 1 : 0;
      break;
    case Behaviour::kScattered:
      error_us += draw(32, 90000) - 45000;
      break;
    case Behaviour::kJittery:
      to_server_us += draw(32, 40000);
      asymmetry_us += 2 * draw(48, 1000);
      break;
    case Behaviour::kSlow:
      to_server_us += 50000 * (1 + static_cast<int64_t>(Mix(seed_ + static_cast<uint64_t>(address)) % 30));
      break;
    case Behaviour::kHostile:
      fate.arrival_count = static_cast<size_t>(draw(48, 3));
      break;
    case Behaviour::kRefusing:
      fate.arrival_count = draw(48, 4) == 0 ? 0 : 1;
      break;
    default:
      break;
  }
  // Samples with the same offset have no order; which of them are trimmed would be a matter of taste. Thus
  // half of the asymmetry and the error together differ from one request to the next.
  const int64_t wanted = static_cast<int64_t>(request % kDistinctOffsets);
  const int64_t sum = error_us - asymmetry_us / 2;
  error_us += ((wanted - sum) % kDistinctOffsets + kDistinctOffsets) % kDistinctOffsets;

  const int64_t working_us = draw(8, 500);
  fate.server_receive_us = to_server_us + error_us;
  fate.server_transmit_us = fate.server_receive_us + working_us;
  const int64_t delay_us = 2 * to_server_us + asymmetry_us + working_us;
  fate.arrivals = {Arrival{ArrivalKind::kGenuine, delay_us}, Arrival{ArrivalKind::kGenuine, delay_us + 1500}};
  if (server.behaviour == Behaviour::kClosed) {
    fate.arrivals[0].kind = ArrivalKind::kPortClosed;
  } else if (server.behaviour == Behaviour::kHostile) {
    fate.arrivals[0].kind = static_cast<ArrivalKind>(draw(32, 4));
  } else if (server.behaviour == Behaviour::kRefusing) {
    const int64_t drawn = draw(32, 100);
    fate.arrivals[0].kind = drawn < 8    ? ArrivalKind::kRate
                            : drawn == 8 ? ArrivalKind::kDeny
                                         : ArrivalKind::kGenuine;
  }
  return fate;
}

Surroundings::Answer Surroundings::LookUp(const std::string& name) const {
  for (const int literal : {7, 10}) {
    if (name == (literal == 7 ? "198.51.100.7" : "[2001:db8::7]:123")) {
      return {{Address(literal)}};
    }
  }
  const bool has_port = name == "two.test:1123";
  const std::string host_name = has_port ? "two.test" : name;
  for (const Host& candidate : hosts_) {
    if (candidate.name != host_name) {
      continue;
    }
    if (candidate.delay_us > kLookUpLimitUs) {
      return {{}, kLookUpLimitUs, candidate.ttl_us};
    }
    Answer answer{{}, candidate.delay_us, candidate.ttl_us};
    for (const int address : candidate.addresses) {
      const auto& bytes = Address(address).bytes();
      answer.addresses.push_back(net::IPEndPoint::FromIPv4({bytes[0], bytes[1], bytes[2], bytes[3]},
                                                           has_port ? kOtherPort : kNtpPort));
    }
    return answer;
  }
  return {};
}

// Up to three of the first seven addresses; the "two" family keeps to those that also have the other port.
void Surroundings::SetHost(int host, uint64_t choice, int64_t delay_us, int64_t ttl_us) {
  Host& changed = hosts_[static_cast<size_t>(host)];
  const uint64_t count = choice % 4;
  changed.addresses.clear();
  for (uint64_t i = 0; i < count; ++i) {
    const uint64_t drawn = Mix(choice + i);
    const int address = host == 1 ? 1 + static_cast<int>(drawn % 2) : static_cast<int>(drawn % 7);
    changed.addresses.push_back(address);
  }
  changed.delay_us = delay_us;
  changed.ttl_us = ttl_us;
}

sim::HostEntry Surroundings::EntryOf(int host) const {
  sim::HostEntry entry;
  for (const int address : hosts_[static_cast<size_t>(host)].addresses) {
    entry.addresses.push_back(Address(address));
  }
  entry.delay_us = hosts_[static_cast<size_t>(host)].delay_us;
  entry.ttl = base::TimeDelta::FromMicroseconds(hosts_[static_cast<size_t>(host)].ttl_us);
  return entry;
}

}  // namespace skorra::model
