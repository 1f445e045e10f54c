// SPDX-License-Identifier: Apache-2.0

// The NTPv4 client's packet codec (RFC 5905): bytes and times in, values out.
//
//   const auto bytes = EncodePacket(MakeRequest(nonce));
//   ...
//   const std::optional<NtpPacket> reply = DecodePacket(datagram);
//   if (reply && CheckReply(*reply, max_root_distance_us) == ReplyRejection::kNone) {
//     const ServerTimes server = ReadServerTimes(*reply);
//     const NtpResultData sample =
//         ComputeSample({t1_local_us, server.receive_ntp_us, server.transmit_ntp_us, t4_local_us});
//   }
//
// Everything here is a pure function of its arguments: any thread, no clock, no random number, no lock. Every
// input is allowed, however hostile.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "../platform/base/time.h"
#include "../transport/ntp_exchange.h"

namespace skorra {

inline constexpr uint16_t kNtpPort = 123;     // RFC 5905, section 16
inline constexpr size_t kNtpPacketSize = 48;  // the header; RFC 5905, section 7.3

inline constexpr uint8_t kNtpVersion = 4;
inline constexpr uint8_t kNtpModeClient = 3;
inline constexpr uint8_t kNtpModeServer = 4;
inline constexpr uint8_t kNtpLeapUnsynchronized = 3;
inline constexpr uint8_t kNtpMaxStratum = 15;  // 16 and above: not synchronised; 0: a kiss code

// The high 32 bits hold seconds, the low 32 bits their binary fraction. They count from the start of an era,
// and the number does not tell which era (RFC 5905, section 6). Era 0 began 1900-01-01, era 1 begins
// 2036-02-07T06:28:16Z. Zero means "not known". Differences are taken modulo 2^64.
using NtpTimestamp = uint64_t;

// The header's fields in the order of the wire. A plain value; a fresh one is all zero.
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

// Cuts off the bits that do not fit of the three fields that are narrower than their type.
std::array<uint8_t, kNtpPacketSize> EncodePacket(const NtpPacket& packet);

// Returns nothing when there are fewer than 48 bytes. Ignores all bytes after the 48th.
std::optional<NtpPacket> DecodePacket(std::span<const uint8_t> bytes);

// Whether `bytes`, the bytes after the header, are none at all or a row of well-formed extension fields
// (RFC 7822). Each field tells its own length, a multiple of 4 and at least 16 bytes; the last one has at
// least 28 bytes and ends where the datagram ends. Their content does not matter to a client that sent none.
// A MAC is not an extension field, and no request asks for one.
bool AreExtensionFields(std::span<const uint8_t> bytes);

// A request that tells nothing about the host: version 4, mode 3, and the nonce as its transmit time stamp.
// The server copies that into the origin time stamp of its reply.
NtpPacket MakeRequest(NtpTimestamp nonce);

// The message that a packet of stratum 0 carries instead of the time (RFC 5905, section 7.4).
enum class KissCode {
  kNone,     // the packet has another stratum, or its reference identifier is not a code
  kRate,     // the client asks too often
  kDeny,     // access denied
  kRstr,     // access restricted
  kInit,     // the server is not synchronised yet; not a refusal
  kStep,     // its clock was stepped and is not synchronised again yet; not a refusal
  kUnknown,  // four other printable letters, none of them a space
};

KissCode ReadKissCode(const NtpPacket& reply);

// A stable name for counters: "rate", "deny", "rstr", "init", "step", "unknown".
const char* KissCodeName(KissCode code);

// Why a reply is dropped, in the order of the checks. One check is made twice: kWrongSource again when the
// nonce is known, before kDuplicate.
enum class ReplyRejection {
  kNone,
  kWrongSource,            // it came from another server, or its nonce was sent to another server
  kTruncated,              // longer than any reply
  kShort,                  // fewer than 48 bytes
  kExtension,              // the bytes after the header are not well-formed extension fields
  kMode,                   // not a server's answer to a client
  kVersion,                // neither 3 nor 4
  kZeroOrigin,             // it names no request
  kUnknownNonce,           // no request has this origin time stamp
  kDuplicate,              // that request has had its reply
  kExpired,                // that request is too old
  kStratumZero,            // stratum 0 without a kiss code
  kLeap,                   // the server says that its clock is not synchronised
  kStratum,                // above 15: not synchronised
  kZeroReceive,            // no receive time stamp
  kZeroTransmit,           // no transmit time stamp
  kTransmitBeforeReceive,  // answered before it was asked
  kRootDistance,           // the server is too far from its reference clock
  kNegativeRoundTrip,      // the server worked on the request for longer than the whole exchange took
  kLongRoundTrip,          // the exchange took too long for its offset to mean much
};

// A stable name for counters, the enumerator in snake case: "short", "transmit_before_receive", ...
const char* ReplyRejectionName(ReplyRejection rejection);

// kMode or kVersion when the packet is not a server's reply to a client; kNone otherwise.
ReplyRejection CheckHeader(const NtpPacket& reply);

// The first check, from kStratumZero to kRootDistance, that the server's description of itself and of its
// times fails; kNone when the reply can be used. Call `ReadKissCode` first: this function takes a kiss code
// for kStratumZero.
ReplyRejection CheckReply(const NtpPacket& reply, int64_t max_root_distance_us);

// How far the server's clock may be from its reference clock: half the root delay plus the root dispersion,
// in whole microseconds, rounded down (RFC 5905, section 11.2, without the terms that only grow between
// polls).
int64_t RootDistanceUs(const NtpPacket& reply);

// A duration in the short format of root delay and root dispersion (RFC 5905, section 6: 16.16 seconds), in
// microseconds, rounded up.
int64_t NtpShortToUs(uint32_t duration);

// A time stamp counts from the start of an era and does not tell which one. Every time stamp is placed into
// the one window of 2^32 s that begins here, 1980-01-01 UTC, and ends 2116-02-07T06:28:16Z. The local clock
// does not matter: it may show any time at all before it is corrected.
inline constexpr int64_t kTimeWindowBeginUs =
    base::kWindowsToUnixEpochUs + int64_t{315532800} * base::kUsPerSecond;
inline constexpr int64_t kNtpEraUs = (int64_t{1} << 32) * base::kUsPerSecond;

// The time that a time stamp stands for within the window, in microseconds since 1601, rounded to the
// nearest.
int64_t NtpTimestampToUs(NtpTimestamp timestamp);

// The time stamp of a time in microseconds since 1601, without the era, rounded to the nearest unit of 2^-32
// s. `NtpTimestampToUs` gives the same microsecond back for a time within the window.
NtpTimestamp NtpTimestampFromUs(int64_t ntp_us);

// The four times of one exchange, microseconds since 1601 (RFC 5905, section 8): T1 and T4 by the local
// clock, T2 and T3 by the server's.
struct ExchangeTimes {
  int64_t send_local_us = 0;           // T1
  int64_t server_receive_ntp_us = 0;   // T2
  int64_t server_transmit_ntp_us = 0;  // T3
  int64_t receive_local_us = 0;        // T4
};

// What a reply that passed `CheckReply` says of the server's clock: T2 and T3. The later one may lie beyond
// the window, when its end falls between the two.
struct ServerTimes {
  int64_t receive_ntp_us = 0;
  int64_t transmit_ntp_us = 0;
};

ServerTimes ReadServerTimes(const NtpPacket& reply);

// offset = ((T2 - T1) + (T3 - T4)) / 2, truncated toward zero, and delay = (T4 - T1) - (T3 - T2). Every sum
// and difference saturates, so the offset is never kNoOffsetUs. The delay is negative when the server claims
// to have worked on the request for longer than the whole exchange took.
NtpResultData ComputeSample(const ExchangeTimes& times);

}  // namespace skorra
