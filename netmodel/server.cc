// SPDX-License-Identifier: Apache-2.0
#include "netmodel/server.h"

#include <algorithm>
#include <string_view>

#include "platform/base/time.h"

namespace skorra::netmodel {
namespace {

constexpr int64_t kBillion = 1000000000;

// 16.16 seconds.
uint32_t ShortFromUs(int64_t us) { return static_cast<uint32_t>(us * 65536 / base::kUsPerSecond); }

void MakeKiss(NtpPacket& reply, std::string_view code) {
  reply.leap_indicator = kNtpLeapUnsynchronized;
  reply.stratum = 0;
  reply.reference_id = 0;
  for (size_t i = 0; i < 4; ++i) {
    const auto letter = i < code.size() ? static_cast<uint8_t>(code[i]) : uint8_t{0};
    reply.reference_id = reply.reference_id << 8 | letter;
  }
}

// elapsed_us * ppb / 10^9, split so that no product overflows.
int64_t Gained(int64_t elapsed_us, int64_t ppb) {
  return elapsed_us / kBillion * ppb + elapsed_us % kBillion * ppb / kBillion;
}

}  // namespace

Server::Admission Server::Admit(net::IPEndPoint client, int64_t elapsed_us) {
  const RateLimit& limit = options_.rate_limit;
  if (limit.interval_us <= 0) {
    return Admission::kAnswer;
  }
  const auto& bytes = client.bytes();
  client = client.family() == net::IPEndPoint::Family::kIPv6
               ? net::IPEndPoint::FromIPv6(bytes, 0)
               : net::IPEndPoint::FromIPv4({bytes[0], bytes[1], bytes[2], bytes[3]}, 0);
  Bucket& bucket = buckets_.try_emplace(client, Bucket{limit.burst, elapsed_us}).first->second;
  const int64_t refills = std::max<int64_t>(0, elapsed_us - bucket.refilled_at_us) / limit.interval_us;
  bucket.refilled_at_us += refills * limit.interval_us;
  bucket.tokens = std::min(limit.burst, bucket.tokens + refills);
  if (bucket.tokens > 0) {
    --bucket.tokens;
    return Admission::kAnswer;
  }
  ++bucket.refused;
  return limit.kiss_every > 0 && bucket.refused % limit.kiss_every == 0 ? Admission::kKiss
                                                                        : Admission::kSilence;
}

std::optional<ServerReply> Server::Answer(std::span<const uint8_t> request, const net::IPEndPoint& client,
                                          int64_t true_us, int64_t elapsed_us, Random& random) {
  const std::optional<NtpPacket> packet = DecodePacket(request);
  if (!packet || packet->mode != kNtpModeClient || options_.is_silent) {
    return std::nullopt;
  }
  const Admission admission = Admit(client, elapsed_us);
  if (admission == Admission::kSilence) {
    return std::nullopt;
  }
  int64_t error_us = options_.clock_error_us + Gained(elapsed_us, options_.drift_ppb);
  if (const int64_t noise_us = DrawDelay(random, options_.noise, options_.noise_us); noise_us != 0) {
    error_us += random.Chance(500) ? noise_us : -noise_us;
  }
  Exchange exchange{.index = request_count_++,
                    .clock_error_us = error_us,
                    .reply = {.leap_indicator = options_.leap_indicator,
                              .version = packet->version,
                              .mode = kNtpModeServer,
                              .stratum = options_.stratum,
                              .poll = packet->poll,
                              .precision = -20,
                              .root_delay = ShortFromUs(options_.root_delay_us),
                              .root_dispersion = ShortFromUs(options_.root_dispersion_us),
                              .origin_timestamp = packet->transmit_timestamp}};
  if (!options_.kiss_code.empty()) {
    MakeKiss(exchange.reply, options_.kiss_code);
  } else if (admission == Admission::kKiss) {
    MakeKiss(exchange.reply, "RATE");
  }
  if (options_.script) {
    options_.script(exchange);
  }
  if (!exchange.is_answered) {
    return std::nullopt;
  }
  const int64_t server_wall_us = true_us + exchange.clock_error_us;
  if (exchange.reply.receive_timestamp == 0) {
    exchange.reply.receive_timestamp = NtpTimestampFromUs(server_wall_us);
  }
  if (exchange.reply.transmit_timestamp == 0) {
    exchange.reply.transmit_timestamp = NtpTimestampFromUs(server_wall_us + options_.processing_us);
  }
  const auto bytes = EncodePacket(exchange.reply);
  return ServerReply{{bytes.begin(), bytes.end()}, options_.processing_us};
}

}  // namespace skorra::netmodel
