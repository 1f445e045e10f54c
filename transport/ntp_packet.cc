// SPDX-License-Identifier: Apache-2.0
#include "transport/ntp_packet.h"

#include "platform/base/int_math.h"
#include "platform/base/time.h"

namespace skorra {
namespace {

using base::kUsPerSecond;
using base::SaturatingAdd;
using base::SaturatingSubtract;

// From 1601-01-01 to 1900-01-01: 109207 days.
constexpr int64_t kWindowsToNtpEpochSeconds = int64_t{109207} * 86400;

// Write and read numbers in network order, one after the other.
class Writer {
 public:
  explicit Writer(std::span<uint8_t, kNtpPacketSize> bytes) : bytes_(bytes) {}

  void Put8(uint8_t value) { bytes_[position_++] = value; }
  void Put32(uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) {
      Put8(static_cast<uint8_t>(value >> shift));
    }
  }
  void Put64(uint64_t value) {
    Put32(static_cast<uint32_t>(value >> 32));
    Put32(static_cast<uint32_t>(value));
  }

 private:
  std::span<uint8_t, kNtpPacketSize> bytes_;
  size_t position_ = 0;
};

class Reader {
 public:
  explicit Reader(std::span<const uint8_t, kNtpPacketSize> bytes) : bytes_(bytes) {}

  uint8_t Get8() { return bytes_[position_++]; }
  uint32_t Get32() {
    uint32_t value = 0;
    for (int i = 0; i < 4; ++i) {
      value = value << 8 | Get8();
    }
    return value;
  }
  uint64_t Get64() {
    const uint64_t high = Get32();
    return high << 32 | Get32();
  }

 private:
  std::span<const uint8_t, kNtpPacketSize> bytes_;
  size_t position_ = 0;
};

constexpr uint32_t Letters(const char (&code)[5]) {
  uint32_t letters = 0;
  for (int i = 0; i < 4; ++i) {
    letters = letters << 8 | static_cast<uint8_t>(code[i]);
  }
  return letters;
}

}  // namespace

std::array<uint8_t, kNtpPacketSize> EncodePacket(const NtpPacket& packet) {
  std::array<uint8_t, kNtpPacketSize> bytes;
  Writer writer(bytes);
  writer.Put8(
      static_cast<uint8_t>((packet.leap_indicator & 3) << 6 | (packet.version & 7) << 3 | (packet.mode & 7)));
  writer.Put8(packet.stratum);
  writer.Put8(static_cast<uint8_t>(packet.poll));
  writer.Put8(static_cast<uint8_t>(packet.precision));
  writer.Put32(packet.root_delay);
  writer.Put32(packet.root_dispersion);
  writer.Put32(packet.reference_id);
  writer.Put64(packet.reference_timestamp);
  writer.Put64(packet.origin_timestamp);
  writer.Put64(packet.receive_timestamp);
  writer.Put64(packet.transmit_timestamp);
  return bytes;
}

std::optional<NtpPacket> DecodePacket(std::span<const uint8_t> bytes) {
  if (bytes.size() < kNtpPacketSize) {
    return std::nullopt;
  }
  Reader reader(bytes.first<kNtpPacketSize>());
  NtpPacket packet;
  const uint8_t flags = reader.Get8();
  packet.leap_indicator = flags >> 6;
  packet.version = flags >> 3 & 7;
  packet.mode = flags & 7;
  packet.stratum = reader.Get8();
  packet.poll = static_cast<int8_t>(reader.Get8());
  packet.precision = static_cast<int8_t>(reader.Get8());
  packet.root_delay = reader.Get32();
  packet.root_dispersion = reader.Get32();
  packet.reference_id = reader.Get32();
  packet.reference_timestamp = reader.Get64();
  packet.origin_timestamp = reader.Get64();
  packet.receive_timestamp = reader.Get64();
  packet.transmit_timestamp = reader.Get64();
  return packet;
}

bool AreExtensionFields(std::span<const uint8_t> bytes) {
  constexpr size_t kMinFieldSize = 16;
  constexpr size_t kMinLastFieldSize = 28;  // a shorter field could be taken for a MAC
  while (!bytes.empty()) {
    if (bytes.size() < kMinFieldSize) {
      return false;
    }
    const size_t size = static_cast<size_t>(bytes[2]) << 8 | bytes[3];
    const bool is_last = size == bytes.size();
    if (size % 4 != 0 || size > bytes.size() || size < (is_last ? kMinLastFieldSize : kMinFieldSize)) {
      return false;
    }
    bytes = bytes.subspan(size);
  }
  return true;
}

NtpPacket MakeRequest(NtpTimestamp nonce) {
  NtpPacket request;
  request.version = kNtpVersion;
  request.mode = kNtpModeClient;
  request.transmit_timestamp = nonce;
  return request;
}

KissCode ReadKissCode(const NtpPacket& reply) {
  if (reply.stratum != 0) {
    return KissCode::kNone;
  }
  switch (reply.reference_id) {
    case Letters("RATE"):
      return KissCode::kRate;
    case Letters("DENY"):
      return KissCode::kDeny;
    case Letters("RSTR"):
      return KissCode::kRstr;
    case Letters("INIT"):
      return KissCode::kInit;
    case Letters("STEP"):
      return KissCode::kStep;
  }
  for (int shift = 24; shift >= 0; shift -= 8) {
    const uint32_t letter = reply.reference_id >> shift & 0xff;
    if (letter <= ' ' || letter > '~') {
      return KissCode::kNone;
    }
  }
  return KissCode::kUnknown;
}

const char* KissCodeName(KissCode code) {
  switch (code) {
    case KissCode::kNone:
      return "none";
    case KissCode::kRate:
      return "rate";
    case KissCode::kDeny:
      return "deny";
    case KissCode::kRstr:
      return "rstr";
    case KissCode::kInit:
      return "init";
    case KissCode::kStep:
      return "step";
    case KissCode::kUnknown:
      return "unknown";
  }
  return "unknown";
}

const char* ReplyRejectionName(ReplyRejection rejection) {
  switch (rejection) {
    case ReplyRejection::kNone:
      return "none";
    case ReplyRejection::kWrongSource:
      return "wrong_source";
    case ReplyRejection::kTruncated:
      return "truncated";
    case ReplyRejection::kShort:
      return "short";
    case ReplyRejection::kExtension:
      return "extension";
    case ReplyRejection::kMode:
      return "mode";
    case ReplyRejection::kVersion:
      return "version";
    case ReplyRejection::kZeroOrigin:
      return "zero_origin";
    case ReplyRejection::kUnknownNonce:
      return "unknown_nonce";
    case ReplyRejection::kDuplicate:
      return "duplicate";
    case ReplyRejection::kExpired:
      return "expired";
    case ReplyRejection::kStratumZero:
      return "stratum_zero";
    case ReplyRejection::kLeap:
      return "leap";
    case ReplyRejection::kStratum:
      return "stratum";
    case ReplyRejection::kZeroReceive:
      return "zero_receive";
    case ReplyRejection::kZeroTransmit:
      return "zero_transmit";
    case ReplyRejection::kTransmitBeforeReceive:
      return "transmit_before_receive";
    case ReplyRejection::kRootDistance:
      return "root_distance";
    case ReplyRejection::kNegativeRoundTrip:
      return "negative_round_trip";
    case ReplyRejection::kLongRoundTrip:
      return "long_round_trip";
  }
  return "unknown";
}

ReplyRejection CheckHeader(const NtpPacket& reply) {
  if (reply.mode != kNtpModeServer) {
    return ReplyRejection::kMode;
  }
  // A server of version 3 answers a request of version 4 with its own number.
  if (reply.version != kNtpVersion && reply.version != 3) {
    return ReplyRejection::kVersion;
  }
  return ReplyRejection::kNone;
}

ReplyRejection CheckReply(const NtpPacket& reply, int64_t max_root_distance_us) {
  if (reply.stratum == 0) {
    return ReplyRejection::kStratumZero;
  }
  if (reply.leap_indicator == kNtpLeapUnsynchronized) {
    return ReplyRejection::kLeap;
  }
  if (reply.stratum > kNtpMaxStratum) {
    return ReplyRejection::kStratum;
  }
  if (reply.receive_timestamp == 0) {
    return ReplyRejection::kZeroReceive;
  }
  if (reply.transmit_timestamp == 0) {
    return ReplyRejection::kZeroTransmit;
  }
  // Modulo 2^64, so that an exchange across the change of era passes.
  if (static_cast<int64_t>(reply.transmit_timestamp - reply.receive_timestamp) < 0) {
    return ReplyRejection::kTransmitBeforeReceive;
  }
  if (RootDistanceUs(reply) > max_root_distance_us) {
    return ReplyRejection::kRootDistance;
  }
  return ReplyRejection::kNone;
}

int64_t RootDistanceUs(const NtpPacket& reply) {
  // In units of 2^-17 s, so that half of an odd root delay is kept.
  const int64_t distance = int64_t{reply.root_delay} + 2 * int64_t{reply.root_dispersion};
  return (distance * kUsPerSecond) >> 17;
}

int64_t NtpShortToUs(uint32_t duration) { return (duration * kUsPerSecond + 0xffff) >> 16; }

int64_t NtpTimestampToUs(NtpTimestamp timestamp) {
  constexpr auto kBeginSeconds =
      static_cast<uint32_t>(kTimeWindowBeginUs / kUsPerSecond - kWindowsToNtpEpochSeconds);
  // Modulo 2^32: the seconds since the window began.
  const uint32_t seconds = static_cast<uint32_t>(timestamp >> 32) - kBeginSeconds;
  const uint64_t fraction = timestamp & 0xffffffff;
  const auto fraction_us =
      static_cast<int64_t>((fraction * kUsPerSecond + (uint64_t{1} << 31)) >> 32);  // may be a whole second
  return kTimeWindowBeginUs + seconds * kUsPerSecond + fraction_us;
}

NtpTimestamp NtpTimestampFromUs(int64_t ntp_us) {
  int64_t seconds = ntp_us / kUsPerSecond;
  int64_t fraction_us = ntp_us % kUsPerSecond;
  if (fraction_us < 0) {
    fraction_us += kUsPerSecond;
    --seconds;
  }
  const auto era_seconds = static_cast<uint64_t>(seconds - kWindowsToNtpEpochSeconds);
  const uint64_t fraction = ((static_cast<uint64_t>(fraction_us) << 32) + kUsPerSecond / 2) / kUsPerSecond;
  return era_seconds << 32 | fraction;
}

ServerTimes ReadServerTimes(const NtpPacket& reply) {
  ServerTimes times{NtpTimestampToUs(reply.receive_timestamp), NtpTimestampToUs(reply.transmit_timestamp)};
  if (times.transmit_ntp_us < times.receive_ntp_us) {
    times.transmit_ntp_us += kNtpEraUs;
  }
  return times;
}

NtpResultData ComputeSample(const ExchangeTimes& times) {
  const int64_t t2_minus_t1 = SaturatingSubtract(times.server_receive_ntp_us, times.send_local_us);
  const int64_t t3_minus_t4 = SaturatingSubtract(times.server_transmit_ntp_us, times.receive_local_us);
  const int64_t t4_minus_t1 = SaturatingSubtract(times.receive_local_us, times.send_local_us);
  const int64_t t3_minus_t2 = SaturatingSubtract(times.server_transmit_ntp_us, times.server_receive_ntp_us);
  return {SaturatingAdd(t2_minus_t1, t3_minus_t4) / 2, SaturatingSubtract(t4_minus_t1, t3_minus_t2)};
}

}  // namespace skorra
