// The NTPv4 client's packet codec (RFC 5905): bytes and times in, values out.
//
//   const auto bytes = EncodePacket(MakeRequest(nonce));
//   ...
//   const std::optional<NtpPacket> reply = DecodePacket(datagram);
//   if (reply && CheckReply(*reply, max_root_distance_us) == ReplyRejection::kNone) {
//     const int64_t t2_us = NtpTimestampToUs(reply->receive_timestamp, t4_us);
//     const int64_t t3_us = NtpTimestampToUs(reply->transmit_timestamp, t2_us);
//     const NtpResultData sample = ComputeSample({t1_us, t2_us, t3_us, t4_us});
//   }
//
// Everything here is a pure function of its arguments: any thread, no clock, no random number, no lock. No
// input, however hostile, is out of bounds.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "ntp/ntp_sync_records.h"
#include "platform/base/time.h"

namespace skorra {

inline constexpr size_t kNtpPacketSize = 48;  // the header; RFC 5905, section 7.3

inline constexpr uint8_t kNtpVersion = 4;
inline constexpr uint8_t kNtpModeClient = 3;
inline constexpr uint8_t kNtpModeServer = 4;
inline constexpr uint8_t kNtpLeapUnsynchronized = 3;
inline constexpr uint8_t kNtpMaxStratum = 15;  // 16 and above: not synchronised; 0: a kiss code

// Seconds in the high 32 bits, their binary fraction in the low ones, counted from the start of an era that
// the number itself does not tell (RFC 5905, section 6). Era 0 began 1900-01-01, era 1 begins
// 2036-02-07T06:28:16Z. Zero means "not known". Differences are taken modulo 2^64.
using NtpTimestamp = uint64_t;

// The header's fields in the order of the wire. A value; a fresh one is all zero.
struct NtpPacket {
  uint8_t leap_indicator = 0;  // 2 bits
  uint8_t version = 0;         // 3 bits
  uint8_t mode = 0;            // 3 bits
  uint8_t stratum = 0;
  int8_t poll = 0;               // log2 seconds
  int8_t precision = 0;          // log2 seconds
  uint32_t root_delay = 0;       // 16.16 seconds
  uint32_t root_dispersion = 0;  // 16.16 seconds
  uint32_t reference_id = 0;     // at stratum 0 the kiss code, at stratum 1 the clock's four letters
  NtpTimestamp reference_timestamp = 0;
  NtpTimestamp origin_timestamp = 0;
  NtpTimestamp receive_timestamp = 0;
  NtpTimestamp transmit_timestamp = 0;

  friend bool operator==(const NtpPacket&, const NtpPacket&) = default;
};

// Of the three fields that are narrower than their type, the bits that do not fit are cut off.
std::array<uint8_t, kNtpPacketSize> EncodePacket(const NtpPacket& packet);

// Nothing when there are fewer than 48 bytes. What follows them is not looked at.
std::optional<NtpPacket> DecodePacket(std::span<const uint8_t> bytes);

// Whether `bytes`, what follows the header, is nothing or a row of well-formed extension fields (RFC 7822):
// each says its own length, a multiple of 4 and at least 16 bytes, the last one at least 28, and the last one
// ends where the datagram does. What they hold does not matter to a client that sent none. A MAC is no
// extension field, and nobody asked for one.
bool AreExtensionFields(std::span<const uint8_t> bytes);

// A request that tells nothing about the host: version 4, mode 3, and the nonce in the place of the transmit
// time stamp, from where the server copies it into the origin time stamp of its reply.
NtpPacket MakeRequest(NtpTimestamp nonce);

// What a packet of stratum 0 says instead of the time (RFC 5905, section 7.4).
enum class KissCode {
  kNone,     // the packet is of another stratum, or its reference identifier is no code
  kRate,     // asked too often
  kDeny,     // access denied
  kRstr,     // access restricted
  kInit,     // not synchronised yet: no refusal
  kStep,     // its clock was set and is not synchronised again yet: no refusal
  kUnknown,  // four printable letters, none of them a space, of another meaning
};

KissCode ReadKissCode(const NtpPacket& reply);

// A stable name for counters: "rate", "deny", "rstr", "init", "step", "unknown".
const char* KissCodeName(KissCode code);

// Why a reply is dropped. In the order in which the checks are made, but that the server of a nonce is
// compared when the nonce is known, before kDuplicate.
enum class ReplyRejection {
  kNone,
  kWrongSource,            // it came from, or its nonce was sent to, another server
  kTruncated,              // longer than any reply
  kShort,                  // fewer than 48 bytes
  kExtension,              // what follows the header are no well-formed extension fields
  kMode,                   // not a server's answer to a client
  kVersion,                // neither 3 nor 4
  kZeroOrigin,             // it names no request
  kUnknownNonce,           // the origin time stamp is not that of a request
  kDuplicate,              // that request has had its reply
  kExpired,                // that request is too old
  kStratumZero,            // stratum 0 without a kiss code
  kLeap,                   // the server says that its clock is not synchronised
  kStratum,                // above 15: not synchronised
  kZeroReceive,            // no receive time stamp
  kZeroTransmit,           // no transmit time stamp
  kTransmitBeforeReceive,  // answered before it was asked
  kRootDistance,           // the server is too far from its reference clock
  kNegativeRoundTrip,      // it worked on the request for longer than the whole exchange took
  kLongRoundTrip,          // the exchange took too long for its offset to mean much
};

// A stable name for counters, the enumerator in snake case: "short", "transmit_before_receive", ...
const char* ReplyRejectionName(ReplyRejection rejection);

// kMode or kVersion when the reply is none that a server sends to a client; kNone otherwise.
ReplyRejection CheckHeader(const NtpPacket& reply);

// The first failing check of what the server says about itself and its times, kStratumZero to kRootDistance;
// kNone when the reply can be used. A kiss code is no failure of kStratumZero, so ask for it first.
ReplyRejection CheckReply(const NtpPacket& reply, int64_t max_root_distance_us);

// How far the server's clock may be from its reference clock: half the root delay plus the root dispersion,
// in whole microseconds, rounded down (RFC 5905, section 11.2; without the terms that only grow between
// polls).
int64_t RootDistanceUs(const NtpPacket& reply);

// The pivot is never older than this, 2026-01-01 UTC: a machine whose clock woke up in 1970 must still place
// the server's time in the right era, and no server can genuinely tell a time before this code was written.
inline constexpr int64_t kEarliestPivotUs =
    base::kWindowsToUnixEpochUs + int64_t{1767225600} * base::kUsPerSecond;

// Microseconds since 1601 from a time stamp: of the times that it may stand for, one per era of 136 years,
// the nearest to `pivot_us` (the local timestamp; of two as near the earlier), which is first brought into
// the range from kEarliestPivotUs to one era before the largest number. Rounded to the nearest microsecond.
int64_t NtpTimestampToUs(NtpTimestamp timestamp, int64_t pivot_us);

// The time stamp of microseconds since 1601, without the era, rounded to the nearest unit of 2^-32 s.
// `NtpTimestampToUs` with a pivot nearby gives the same microsecond back.
NtpTimestamp NtpTimestampFromUs(int64_t us);

// The four times of one exchange, microseconds since 1601 (RFC 5905, section 8): T1 and T4 by the local
// clock, T2 and T3 by the server's.
struct ExchangeTimes {
  int64_t send_us;             // T1
  int64_t server_receive_us;   // T2
  int64_t server_transmit_us;  // T3
  int64_t receive_us;          // T4
};

// offset = ((T2 - T1) + (T3 - T4)) / 2, truncated toward zero, and delay = (T4 - T1) - (T3 - T2). Every sum
// and difference saturates; therefore the offset is never kNoOffsetUs. The delay is negative when the
// server claims to have worked on the request for longer than the whole exchange took.
NtpResultData ComputeSample(const ExchangeTimes& times);

}  // namespace skorra
