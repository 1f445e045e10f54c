// SPDX-License-Identifier: Apache-2.0
#include "sim/attacker.h"

#include <optional>

#include "transport/ntp_packet.h"

namespace skorra::sim {

Attacker::Attacker(World& world, Network& network, AttackerOptions options)
    : world_(world), options_(options) {
  network.AddListener([this](const SentDatagram& sent) { Attack(sent); });
}

void Attacker::Attack(const SentDatagram& sent) {
  for (int i = 0; i < options_.replies_per_request; ++i) {
    const int64_t arrival_ticks_us = sent.sent_ticks_us + options_.after_us + i * options_.spacing_us;
    NtpPacket reply{.version = kNtpVersion, .mode = kNtpModeServer, .stratum = 1, .precision = -20};
    if (options_.nonce == AttackerOptions::Nonce::kGuessed) {
      reply.origin_timestamp = world_.NextRandom();
    } else if (options_.nonce == AttackerOptions::Nonce::kKnown) {
      reply.origin_timestamp = DecodePacket(sent.bytes).value_or(NtpPacket()).transmit_timestamp;
    }
    reply.receive_timestamp = NtpTimestampFromUs(world_.TrueAt(arrival_ticks_us) + options_.lie_us);
    reply.transmit_timestamp = reply.receive_timestamp;
    const auto bytes = EncodePacket(reply);
    const auto delay = base::TimeDelta::FromMicroseconds(arrival_ticks_us - world_.steady_ticks_us());
    if (options_.source.address_empty()) {
      world_.Deliver(sent.server, sent.client, {bytes.begin(), bytes.end()}, delay);
    } else {
      world_.DeliverFromAnywhere(options_.source, sent.client, {bytes.begin(), bytes.end()}, delay);
    }
    ++sent_count_;
  }
}

}  // namespace skorra::sim
