// SPDX-License-Identifier: Apache-2.0
#include "transport/ntp_packet.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <span>
#include <string>
#include <vector>

namespace skorra {
namespace {

using Bytes = std::array<uint8_t, kNtpPacketSize>;

constexpr int64_t kMinInt64 = std::numeric_limits<int64_t>::min();
constexpr int64_t kMaxInt64 = std::numeric_limits<int64_t>::max();

// Microseconds since 1601 of a Unix time.
constexpr int64_t At(int64_t unix_seconds, int64_t us = 0) {
  return (unix_seconds + 11644473600) * 1000000 + us;
}

constexpr int64_t k1900 = At(-2208988800);
constexpr int64_t kStartOf1970 = At(0);
constexpr int64_t kStartOf1980 = At(315532800);
constexpr int64_t kEndOfWindow = At(4610500096);  // 2116-02-07T06:28:16Z
constexpr int64_t kStartOf2026 = At(1767225600);
constexpr int64_t kEra1 = At(2085978496);       // 2036-02-07T06:28:16Z
constexpr int64_t kAfter2038 = At(2147483648);  // 2038-01-19T03:14:08Z
constexpr int64_t kIn2104 = At(4233462144);     // 2104-02-26T09:42:24Z, the middle of era 1
constexpr int64_t kEra2 = At(6380945792);       // 2172-03-15T12:56:32Z

struct Golden {
  const char* what;
  Bytes bytes;
  NtpPacket packet;
};

const Golden kGolden[] = {
    {"A request: version 4, mode 3 and the nonce, nothing else.",
     {0x23, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
      0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
      0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef},
     {.version = 4, .mode = 3, .transmit_timestamp = 0x0123456789abcdef}},
    {"A stratum 2 server's reply.",
     {0x24, 0x02, 0x06, 0xe8, 0x00, 0x00, 0x0a, 0x1b, 0x00, 0x01, 0x02, 0x03, 0xc0, 0x00, 0x02, 0x09,
      0xe9, 0x3c, 0x8a, 0x00, 0x10, 0x20, 0x30, 0x40, 0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef,
      0xe9, 0x3c, 0x8a, 0x80, 0x40, 0x00, 0x00, 0x00, 0xe9, 0x3c, 0x8a, 0x80, 0x40, 0x00, 0xff, 0x01},
     {.leap_indicator = 0,
      .version = 4,
      .mode = 4,
      .stratum = 2,
      .poll = 6,
      .precision = -24,
      .root_delay = 0x00000a1b,
      .root_dispersion = 0x00010203,
      .reference_id = 0xc0000209,
      .reference_timestamp = 0xe93c8a0010203040,
      .origin_timestamp = 0x0123456789abcdef,
      .receive_timestamp = 0xe93c8a8040000000,
      .transmit_timestamp = 0xe93c8a804000ff01}},
    {"A version 3 reply of a stratum 1 server that announces a leap second, with every number above half.",
     {0x5c, 0x01, 0xfa, 0x80, 0xff, 0xfe, 0xfd, 0xfc, 0x81, 0x82, 0x83, 0x84, 0x47, 0x50, 0x53, 0x00,
      0xf0, 0xf1, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xfe,
      0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x80, 0x00, 0x00, 0x00, 0x80, 0x00, 0x00, 0x00},
     {.leap_indicator = 1,
      .version = 3,
      .mode = 4,
      .stratum = 1,
      .poll = -6,
      .precision = -128,
      .root_delay = 0xfffefdfc,
      .root_dispersion = 0x81828384,
      .reference_id = 0x47505300,
      .reference_timestamp = 0xf0f1f2f3f4f5f6f7,
      .origin_timestamp = 0xfffffffffffffffe,
      .receive_timestamp = 0x8000000000000000,
      .transmit_timestamp = 0x8000000080000000}},
};

const Bytes& GoodReply() { return kGolden[1].bytes; }

TEST(NtpPacketTest, GoldenPacketsEncodeToTheirBytes) {
  for (const Golden& golden : kGolden) {
    EXPECT_EQ(EncodePacket(golden.packet), golden.bytes) << golden.what;
  }
}

TEST(NtpPacketTest, GoldenPacketsDecodeToTheirFields) {
  for (const Golden& golden : kGolden) {
    const auto packet = DecodePacket(golden.bytes);
    ASSERT_TRUE(packet.has_value()) << golden.what;
    EXPECT_EQ(*packet, golden.packet) << golden.what;
  }
}

TEST(NtpPacketTest, ARequestIsAllZeroButVersionModeAndNonce) {
  EXPECT_EQ(MakeRequest(0x0123456789abcdef), kGolden[0].packet);
}

constexpr int64_t kMaxRootDistanceUs = 5000000;

// The reason why the packet itself is rejected.
ReplyRejection Judge(std::span<const uint8_t> bytes) {
  const auto packet = DecodePacket(bytes);
  if (!packet) {
    return ReplyRejection::kShort;
  }
  if (!AreExtensionFields(bytes.subspan(kNtpPacketSize))) {
    return ReplyRejection::kExtension;
  }
  const ReplyRejection rejection = CheckHeader(*packet);
  return rejection == ReplyRejection::kNone ? CheckReply(*packet, kMaxRootDistanceUs) : rejection;
}

TEST(NtpPacketTest, EveryFirstByteIsSplitPutTogetherAndJudged) {
  unsigned first = 0;
  for (uint8_t leap = 0; leap < 4; ++leap) {
    for (uint8_t version = 0; version < 8; ++version) {
      for (uint8_t mode = 0; mode < 8; ++mode, ++first) {
        SCOPED_TRACE("first byte " + std::to_string(first));
        Bytes bytes = GoodReply();
        bytes[0] = static_cast<uint8_t>(first);
        const auto packet = DecodePacket(bytes);
        ASSERT_TRUE(packet.has_value());
        EXPECT_EQ(packet->leap_indicator, leap);
        EXPECT_EQ(packet->version, version);
        EXPECT_EQ(packet->mode, mode);
        EXPECT_EQ(EncodePacket(*packet), bytes);

        ReplyRejection expected = ReplyRejection::kNone;
        if (mode != 4) {
          expected = ReplyRejection::kMode;
        } else if (version != 3 && version != 4) {
          expected = ReplyRejection::kVersion;
        } else if (leap == 3) {
          expected = ReplyRejection::kLeap;
        }
        EXPECT_EQ(Judge(bytes), expected);
      }
    }
  }
  EXPECT_EQ(first, 256u);
}

TEST(NtpPacketTest, BitsThatDoNotFitTheFirstByteAreCutOff) {
  NtpPacket packet;
  packet.leap_indicator = 0xfd;  // 1 in its two bits
  packet.version = 0xfa;         // 2 in its three
  packet.mode = 0xfc;            // 4 in its three
  EXPECT_EQ(EncodePacket(packet)[0], 0x54);
}

TEST(NtpPacketTest, OnlyTheStrataOneToFifteenAreAccepted) {
  for (unsigned stratum = 0; stratum < 256; ++stratum) {
    SCOPED_TRACE("stratum " + std::to_string(stratum));
    Bytes bytes = GoodReply();
    bytes[1] = static_cast<uint8_t>(stratum);
    const auto packet = DecodePacket(bytes);
    ASSERT_TRUE(packet.has_value());
    EXPECT_EQ(packet->stratum, stratum);
    EXPECT_EQ(Judge(bytes), stratum == 0    ? ReplyRejection::kStratumZero
                            : stratum <= 15 ? ReplyRejection::kNone
                                            : ReplyRejection::kStratum);
  }
}

// A good reply, cut or lengthened to `size`, with some bytes changed.
struct Reply {
  const char* what;
  size_t size;
  size_t position;
  std::vector<uint8_t> patch;
  ReplyRejection expected;
};

constexpr size_t kFlags = 0;
constexpr size_t kStratum = 1;
constexpr size_t kRootDelay = 4;
constexpr size_t kReceive = 32;
constexpr size_t kTransmit = 40;
constexpr size_t kAll = kNtpPacketSize;

const Reply kReplies[] = {
    {"Nothing is changed.", kAll, 0, {}, ReplyRejection::kNone},
    {"An empty datagram.", 0, 0, {}, ReplyRejection::kShort},
    {"A single byte, itself in order.", 1, 0, {}, ReplyRejection::kShort},
    {"Cut inside the last field.", 47, 0, {}, ReplyRejection::kShort},
    {"One byte follows the header.", 49, 0, {}, ReplyRejection::kExtension},
    {"Twenty bytes follow, as a key number and a digest would.", 68, 0, {}, ReplyRejection::kExtension},
    {"An extension field of 28 bytes follows.", 76, 48, {0x01, 0x04, 0, 28}, ReplyRejection::kNone},
    {"As long as a datagram can be.", 65507, 0, {}, ReplyRejection::kExtension},
    {"The reserved mode 0.", kAll, kFlags, {0x20}, ReplyRejection::kMode},
    {"Our own request, reflected.", kAll, kFlags, {0x23}, ReplyRejection::kMode},
    {"A broadcast, which answers no request.", kAll, kFlags, {0x25}, ReplyRejection::kMode},
    {"A control message.", kAll, kFlags, {0x26}, ReplyRejection::kMode},
    {"Version 0.", kAll, kFlags, {0x04}, ReplyRejection::kVersion},
    {"Version 2, one below what is spoken.", kAll, kFlags, {0x14}, ReplyRejection::kVersion},
    {"Version 5, one above.", kAll, kFlags, {0x2c}, ReplyRejection::kVersion},
    {"Version 3, the older one that is spoken.", kAll, kFlags, {0x1c}, ReplyRejection::kNone},
    {"A leap second to be removed tonight.", kAll, kFlags, {0xa4}, ReplyRejection::kNone},
    {"The server has not set its clock yet.", kAll, kFlags, {0xe4}, ReplyRejection::kLeap},
    {"Stratum 0.", kAll, kStratum, {0x00}, ReplyRejection::kStratumZero},
    {"Stratum 0 comes before the leap indicator, which kiss codes set too.",
     kAll,
     kFlags,
     {0xe4, 0x00},
     ReplyRejection::kStratumZero},
    {"Stratum 16 means not synchronised.", kAll, kStratum, {0x10}, ReplyRejection::kStratum},
    {"No receive time stamp.", kAll, kReceive, {0, 0, 0, 0, 0, 0, 0, 0}, ReplyRejection::kZeroReceive},
    {"No transmit time stamp.", kAll, kTransmit, {0, 0, 0, 0, 0, 0, 0, 0}, ReplyRejection::kZeroTransmit},
    {"Neither of the two: the first one missing is named.",
     kAll,
     kReceive,
     {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
     ReplyRejection::kZeroReceive},
    {"Answered in the very unit in which it was asked.",
     kAll,
     kTransmit,
     {0xe9, 0x3c, 0x8a, 0x80, 0x40, 0x00, 0x00, 0x00},
     ReplyRejection::kNone},
    {"Answered one unit before it was asked.",
     kAll,
     kTransmit,
     {0xe9, 0x3c, 0x8a, 0x80, 0x3f, 0xff, 0xff, 0xff},
     ReplyRejection::kTransmitBeforeReceive},
    {"Asked in the last unit of era 0, answered in the second one of era 1.",
     kAll,
     kReceive,
     {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0, 0, 0, 0, 0, 0, 0, 1},
     ReplyRejection::kNone},
    {"Asked in the second unit of era 1, answered in the last one of era 0.",
     kAll,
     kReceive,
     {0, 0, 0, 0, 0, 0, 0, 1, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff},
     ReplyRejection::kTransmitBeforeReceive},
    {"One unit less than half an era between the two still counts as later.",
     kAll,
     kReceive,
     {0, 0, 0, 0, 0, 0, 0, 1, 0x80, 0, 0, 0, 0, 0, 0, 0},
     ReplyRejection::kNone},
    {"Half an era between the two counts as earlier.",
     kAll,
     kReceive,
     {0, 0, 0, 0, 0, 0, 0, 1, 0x80, 0, 0, 0, 0, 0, 0, 1},
     ReplyRejection::kTransmitBeforeReceive},
    {"A root delay of 10 s and no dispersion: the limit itself.",
     kAll,
     kRootDelay,
     {0, 10, 0, 0, 0, 0, 0, 0},
     ReplyRejection::kNone},
    {"One unit of 2^-16 s more delay.",
     kAll,
     kRootDelay,
     {0, 10, 0, 1, 0, 0, 0, 0},
     ReplyRejection::kRootDistance},
    {"A dispersion of 5 s and no delay: the limit itself.",
     kAll,
     kRootDelay,
     {0, 0, 0, 0, 0, 5, 0, 0},
     ReplyRejection::kNone},
    {"One unit more dispersion.", kAll, kRootDelay, {0, 0, 0, 0, 0, 5, 0, 1}, ReplyRejection::kRootDistance},
    {"The largest delay and dispersion.", kAll, kRootDelay, std::vector<uint8_t>(8, 0xff),
     ReplyRejection::kRootDistance},
    {"All ones: the mode is named, although everything else is wrong as well.", kAll, 0,
     std::vector<uint8_t>(kAll, 0xff), ReplyRejection::kMode},
};

TEST(NtpPacketTest, MalformedRepliesAreRejectedForTheirReason) {
  for (const Reply& reply : kReplies) {
    SCOPED_TRACE(reply.what);
    std::vector<uint8_t> bytes(GoodReply().begin(), GoodReply().end());
    bytes.resize(reply.size, 0xee);
    std::copy(reply.patch.begin(), reply.patch.end(),
              bytes.begin() + static_cast<std::ptrdiff_t>(reply.position));
    EXPECT_STREQ(ReplyRejectionName(Judge(bytes)), ReplyRejectionName(reply.expected));
  }
}

TEST(NtpPacketTest, AShortDurationIsRoundedUpToWholeMicroseconds) {
  EXPECT_EQ(NtpShortToUs(0), 0);
  EXPECT_EQ(NtpShortToUs(1), 16);        // 15.26
  EXPECT_EQ(NtpShortToUs(0x200), 7813);  // 7812.5
  EXPECT_EQ(NtpShortToUs(0x400), 15625);
  EXPECT_EQ(NtpShortToUs(0x10000), 1000000);
  EXPECT_EQ(NtpShortToUs(0xffffffff), 65535999985);  // 65535999984.74
}

TEST(NtpPacketTest, BytesBehindTheHeaderDoNotChangeItsFields) {
  std::vector<uint8_t> bytes(GoodReply().begin(), GoodReply().end());
  bytes.resize(100, 0xff);
  EXPECT_EQ(DecodePacket(bytes), kGolden[1].packet);
}

// The lengths that the fields after the header tell; the last may tell less or more than there is.
TEST(NtpPacketTest, OnlyWellFormedExtensionFieldsMayFollowTheHeader) {
  const struct {
    const char* what;
    std::vector<size_t> told_lengths;
    size_t size;  // of everything
    bool expected;
  } rows[] = {
      {"Nothing.", {}, 0, true},
      {"The shortest last field.", {28}, 28, true},
      {"A last field that a MAC could be mistaken for.", {24}, 24, false},
      {"Not even a field's own header.", {}, 3, false},
      {"Less than the shortest field.", {12}, 12, false},
      {"A field of length 0 would be walked forever.", {0}, 28, false},
      {"A length that is no multiple of four.", {30}, 30, false},
      {"A field longer than the datagram.", {32}, 28, false},
      {"A field of the smallest length before the last one.", {16, 28}, 44, true},
      {"One of 12 bytes before the last one.", {12, 28}, 40, false},
      {"A good field, and a rest that is none.", {28}, 30, false},
      {"A good field, and after it a MAC of 20 bytes.", {28}, 48, false},
      {"Three fields.", {16, 20, 32}, 68, true},
      {"A length in both of its bytes.", {260}, 260, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    std::vector<uint8_t> bytes(row.size);
    size_t at = 0;
    for (const size_t length : row.told_lengths) {
      bytes[at + 2] = static_cast<uint8_t>(length >> 8);
      bytes[at + 3] = static_cast<uint8_t>(length);
      at += length;
    }
    EXPECT_EQ(AreExtensionFields(bytes), row.expected);
  }
}

TEST(NtpPacketTest, TheRootDistanceIsHalfTheDelayAndTheWholeDispersion) {
  const struct {
    uint32_t root_delay;
    uint32_t root_dispersion;
    int64_t expected_us;
  } rows[] = {
      {0, 0, 0},
      {0x10000, 0, 500000},
      {0, 0x10000, 1000000},
      {0x20000, 0x8000, 1500000},
      {1, 0, 7},   // 7.63
      {3, 0, 22},  // 22.89: half of an odd delay is kept
      {0, 1, 15},  // 15.26
      {0xffffffff, 0xffffffff, 98303999977},
  };
  for (const auto& row : rows) {
    NtpPacket packet;
    packet.root_delay = row.root_delay;
    packet.root_dispersion = row.root_dispersion;
    EXPECT_EQ(RootDistanceUs(packet), row.expected_us);
  }
}

TEST(NtpPacketTest, AKissCodeIsFourLettersAtStratumZero) {
  const auto letters = [](const char* code) {
    return uint32_t{static_cast<uint8_t>(code[0])} << 24 | uint32_t{static_cast<uint8_t>(code[1])} << 16 |
           uint32_t{static_cast<uint8_t>(code[2])} << 8 | static_cast<uint8_t>(code[3]);
  };
  const struct {
    const char* what;
    uint8_t stratum;
    uint32_t reference_id;
    const char* expected;
  } rows[] = {
      {"Asked too often.", 0, letters("RATE"), "rate"},
      {"Denied.", 0, letters("DENY"), "deny"},
      {"Restricted.", 0, letters("RSTR"), "rstr"},
      {"Not synchronised yet.", 0, letters("INIT"), "init"},
      {"Stepped.", 0, letters("STEP"), "step"},
      {"A code of the standard that asks nothing of this client.", 0, letters("DROP"), "unknown"},
      {"One for experiments.", 0, letters("XABC"), "unknown"},
      {"A code in small letters is another one.", 0, letters("rate"), "unknown"},
      {"The first and the last letter that can be printed.", 0, letters("!~!~"), "unknown"},
      {"A space is no letter.", 0, letters("RAT "), "none"},
      {"The character after the last letter.", 0, letters("RAT\x7f"), "none"},
      {"No reference identifier.", 0, 0, "none"},
      {"An address.", 0, 0xc0000201, "none"},
      {"At stratum 1 the letters name a clock.", 1, letters("RATE"), "none"},
      {"At stratum 16 too.", 16, letters("RATE"), "none"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    NtpPacket packet;
    packet.stratum = row.stratum;
    packet.reference_id = row.reference_id;
    EXPECT_STREQ(KissCodeName(ReadKissCode(packet)), row.expected);
  }
}

TEST(NtpPacketTest, EveryRejectionHasItsName) {
  const std::vector<std::pair<ReplyRejection, const char*>> names = {
      {ReplyRejection::kNone, "none"},
      {ReplyRejection::kWrongSource, "wrong_source"},
      {ReplyRejection::kTruncated, "truncated"},
      {ReplyRejection::kShort, "short"},
      {ReplyRejection::kExtension, "extension"},
      {ReplyRejection::kMode, "mode"},
      {ReplyRejection::kVersion, "version"},
      {ReplyRejection::kZeroOrigin, "zero_origin"},
      {ReplyRejection::kUnknownNonce, "unknown_nonce"},
      {ReplyRejection::kDuplicate, "duplicate"},
      {ReplyRejection::kExpired, "expired"},
      {ReplyRejection::kStratumZero, "stratum_zero"},
      {ReplyRejection::kLeap, "leap"},
      {ReplyRejection::kStratum, "stratum"},
      {ReplyRejection::kZeroReceive, "zero_receive"},
      {ReplyRejection::kZeroTransmit, "zero_transmit"},
      {ReplyRejection::kTransmitBeforeReceive, "transmit_before_receive"},
      {ReplyRejection::kRootDistance, "root_distance"},
      {ReplyRejection::kNegativeRoundTrip, "negative_round_trip"},
      {ReplyRejection::kLongRoundTrip, "long_round_trip"},
  };
  for (const auto& [rejection, name] : names) {
    EXPECT_STREQ(ReplyRejectionName(rejection), name);
  }
  EXPECT_STREQ(ReplyRejectionName(static_cast<ReplyRejection>(-1)), "unknown");
}

struct Conversion {
  const char* what;
  NtpTimestamp timestamp;
  int64_t expected_us;
};

const Conversion kConversions[] = {
    {"The start of the window, in era 0.", 0x9679248000000000, kStartOf1980},
    {"One unit before it is the end of the window, in era 1.", 0x9679247fffffffff, kEndOfWindow},
    {"The last second of the window.", 0x9679247f00000000, kEndOfWindow - 1000000},
    {"The start of 2024.", 0xe93c7f0000000000, At(1704067200)},
    {"The start of 2026.", 0xed00378000000000, kStartOf2026},
    {"The last unit of era 0 rounds up to the start of era 1.", ~uint64_t{0}, kEra1},
    {"One microsecond before the end of era 0.", 0xffffffffffffef39, kEra1 - 1},
    {"Zero is the start of era 1.", 0, kEra1},
    {"One microsecond into era 1.", 0x00000000000010c7, kEra1 + 1},
    {"The second in which 32-bit Unix time ends.", 0x03aa7e8000000000, kAfter2038},
    {"The middle of era 1, where its seconds need the top bit.", 0x8000000000000000, kIn2104},
    {"A server that itself woke up in 1970 is a hundred and thirty-six years ahead.", 0x83aa7e8000000000,
     kStartOf1970 + (kEra2 - kEra1)},
    {"A fraction just below half a microsecond is rounded down.", 0xed00378000000000 + 2147, kStartOf2026},
    {"A fraction just above half a microsecond is rounded up.", 0xed00378000000000 + 2148, kStartOf2026 + 1},
    {"Just below half a microsecond before the next second.", 0xed00378100000000 - 2148,
     kStartOf2026 + 999999},
    {"Just above it, the rounding carries into the seconds.", 0xed00378100000000 - 2147,
     kStartOf2026 + 1000000},
    {"Half a second is a fraction of one bit.", 0xed00378080000000, kStartOf2026 + 500000},
};

TEST(NtpTimestampTest, EveryTimeStampStandsForATimeInTheWindow) {
  for (const Conversion& row : kConversions) {
    EXPECT_EQ(NtpTimestampToUs(row.timestamp), row.expected_us) << row.what;
  }
}

TEST(NtpTimestampTest, TheWindowBeginsIn1980AndIsOneEraLong) {
  EXPECT_EQ(kTimeWindowBeginUs, kStartOf1980);
  EXPECT_EQ(kTimeWindowBeginUs + kNtpEraUs, kEndOfWindow);
  EXPECT_EQ(kNtpEraUs, kEra2 - kEra1);
}

TEST(NtpTimestampTest, AServersLaterTimeFollowsTheEarlierOneBeyondTheEndOfTheWindow) {
  NtpPacket reply;
  reply.receive_timestamp = 0x9679247f00000000;   // the window's last second
  reply.transmit_timestamp = 0x9679248100000000;  // two seconds later
  const ServerTimes across = ReadServerTimes(reply);
  EXPECT_EQ(across.receive_ntp_us, kEndOfWindow - 1000000);
  EXPECT_EQ(across.transmit_ntp_us, kEndOfWindow + 1000000);
  reply.transmit_timestamp = reply.receive_timestamp;
  EXPECT_EQ(ReadServerTimes(reply).transmit_ntp_us, kEndOfWindow - 1000000);
}

struct Stamp {
  const char* what;
  int64_t us;
  NtpTimestamp expected;
};

const Stamp kStamps[] = {
    {"The start of era 0.", k1900, 0},
    {"One microsecond before it.", k1900 - 1, 0xffffffffffffef39},
    {"The start of the Unix era.", kStartOf1970, 0x83aa7e8000000000},
    {"The start of 2026.", kStartOf2026, 0xed00378000000000},
    {"The last microsecond of era 0.", kEra1 - 1, 0xffffffffffffef39},
    {"The start of era 1.", kEra1, 0},
    {"One microsecond, 4294.967 units, is rounded up.", kEra1 + 1, 4295},
    {"Two microseconds, 8589.935 units, are rounded up.", kEra1 + 2, 8590},
    {"Fifteen microseconds, 64424.509 units, are rounded up.", kEra1 + 15, 64425},
    {"Sixteen microseconds, 68719.477 units, are rounded down.", kEra1 + 16, 68719},
    {"The end of 32-bit Unix time.", kAfter2038, 0x03aa7e8000000000},
    {"The middle of era 1.", kIn2104, 0x8000000000000000},
    {"The start of era 2.", kEra2, 0},
    {"The start of the count.", 0, 0xcd99ed8000000000},
    {"One microsecond before the count begins.", -1, 0xcd99ed7fffffef39},
    {"The smallest number.", kMinInt64, 0x51c992893964a59c},
    {"The largest number.", kMaxInt64, 0x496a4876c69b499d},
};

TEST(NtpTimestampTest, EveryTimeConvertsToItsNtpTimestamp) {
  for (const Stamp& row : kStamps) {
    EXPECT_EQ(NtpTimestampFromUs(row.us), row.expected) << row.what;
  }
}

TEST(NtpTimestampTest, EveryMicrosecondOfASecondSurvivesTheTimeStamp) {
  for (int64_t us = 0; us < 1000000; ++us) {
    ASSERT_EQ(NtpTimestampToUs(NtpTimestampFromUs(kEra1 - 500000 + us)), kEra1 - 500000 + us);
  }
}

struct Exchange {
  const char* what;
  ExchangeTimes times;
  NtpResultData expected;
};

const Exchange kExchanges[] = {
    {"Clocks that agree, equal ways, an instant answer.", {1000, 1010, 1010, 1020}, {0, 20}},
    {"The server is ahead.", {1000, 6010, 6010, 1020}, {5000, 20}},
    {"The server is behind.", {1000, -3990, -3990, 1020}, {-5000, 20}},
    {"The server takes its time, which is not travel time.", {1000, 1010, 1510, 1520}, {0, 20}},
    {"A slower way out makes the server look ahead by half the difference.", {0, 30, 30, 40}, {10, 40}},
    {"A slower way home makes it look behind.", {0, 10, 10, 40}, {-10, 40}},
    {"An odd sum above zero is truncated toward zero.", {0, 8, 8, 11}, {2, 11}},
    {"An odd sum below zero is truncated toward zero, too.", {0, 3, 3, 11}, {-2, 11}},
    {"A sum of minus one gives no offset.", {0, 5, 5, 11}, {0, 11}},
    {"The server claims to have worked for longer than the exchange took.", {0, 10, 60, 40}, {15, -10}},
    {"The local clock stands in 1970, the server's in 2026.",
     {kStartOf1970, kStartOf2026 + 10, kStartOf2026 + 10, kStartOf1970 + 20},
     {1767225600000000, 20}},
    {"The exchange crosses the change of era.", {kEra1 - 10, kEra1 - 3, kEra1 + 3, kEra1 + 12}, {-1, 16}},
    {"A server as far ahead as can be: sums saturate, and the offset is still none that means \"none\".",
     {kMinInt64, kMaxInt64, kMaxInt64, kMinInt64},
     {kMaxInt64 / 2, 0}},
    {"A server as far behind as can be.", {kMaxInt64, kMinInt64, kMinInt64, kMaxInt64}, {kMinInt64 / 2, 0}},
    {"An exchange as long as can be.", {kMinInt64, 0, 0, kMaxInt64}, {0, kMaxInt64}},
    {"An answer as long as can be.", {0, kMinInt64, kMaxInt64, 0}, {0, -kMaxInt64}},
    {"A local clock that ran back as far as can be, and a server that worked all the time.",
     {kMaxInt64, kMinInt64, kMaxInt64, kMinInt64},
     {0, kMinInt64}},
};

TEST(NtpResultDataTest, SamplesAreEqualWhenOffsetAndRoundTripTimeAre) {
  const NtpResultData sample{1, 2};
  EXPECT_TRUE(sample == (NtpResultData{1, 2}));
  EXPECT_FALSE(sample == (NtpResultData{0, 2}));
  EXPECT_FALSE(sample == (NtpResultData{1, 0}));
  EXPECT_FALSE(sample != (NtpResultData{1, 2}));
  EXPECT_TRUE(sample != (NtpResultData{1, 0}));
}

TEST(ComputeSampleTest, OffsetAndDelayFollowFromTheFourTimes) {
  for (const Exchange& row : kExchanges) {
    const NtpResultData sample = ComputeSample(row.times);
    EXPECT_EQ(sample.offset_us, row.expected.offset_us) << row.what;
    EXPECT_EQ(sample.rtt_us, row.expected.rtt_us) << row.what;
  }
}

TEST(NtpPacketTest, AKissCodeOfNoKnownKindIsNamedUnknown) {
  EXPECT_STREQ(KissCodeName(static_cast<KissCode>(99)), "unknown");
}

}  // namespace
}  // namespace skorra
