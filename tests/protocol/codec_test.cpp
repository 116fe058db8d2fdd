#include "protocol/codec.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "protocol/wide_upper.h"

namespace lindqvar {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes Contents(const CEncoder& e) {
  uint32_t n = 0;
  const uint8_t* p = e.get_buffer(&n);
  return p ? Bytes(p, p + n) : Bytes{};
}

uint32_t BE32At(const Bytes& b, size_t at) {
  return (uint32_t{b[at]} << 24) | (uint32_t{b[at + 1]} << 16) | (uint32_t{b[at + 2]} << 8) | b[at + 3];
}

std::string UpperCased(const char* text, uint32_t byteCount) {
  CEncoder e;
  EXPECT_EQ(e.add_string(ATTR_USER, text, byteCount, 1), 0);
  const Bytes b = Contents(e);
  return std::string(b.begin() + 6, b.end());
}

// One session record as the event message lays it out.
void AddSessionRecord(CEncoder& e, uint32_t logon, uint32_t ipv4) {
  e.begin_group(MSG_SESSION_INFO);
  e.add_u32(ATTR_LOGON, logon);
  e.add_u32(ATTR_FIXED_VALUE, 4096);
  e.add_string(ATTR_DOMAIN, std::string("corp"), 1);
  e.add_string(ATTR_USER, std::string("alice"), 1);
  e.add_string(ATTR_WORKSTATION, std::string("ws1.corp.example"), 1);
  e.add_string(ATTR_TENANT_ID, std::string("t-1"), 1);
  e.add_u32(ATTR_IPV4, ipv4);
  const uint8_t v6[16] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  e.add_bytes(ATTR_IPV6, v6, sizeof v6);
  e.add_u32(ATTR_TIME, 1700000000);
  e.end_group(MSG_SESSION_INFO);
}

// --- encoder -------------------------------------------------------------------

TEST(EncoderTest, HelloReplyIsByteExact) {
  CEncoder e(kReplyEncoderCapacity);
  const uint8_t digest[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
  EXPECT_EQ(e.begin_message(MSG_HELLO), 0);
  EXPECT_EQ(e.add_u32(ATTR_ID, 0x01020304), 0);
  EXPECT_EQ(e.add_u32(ATTR_HELLO_FLAGS, 1), 0);
  EXPECT_EQ(e.add_string(ATTR_VERSION_TEXT, std::string("Velmora Extension 1.1"), 0), 0);
  EXPECT_EQ(e.add_bytes(ATTR_DIGEST, digest, 16), 0);
  EXPECT_EQ(e.end_group(MSG_HELLO), 0);

  Bytes expected = {0, 0, 0, 75, 128, 6,                 // envelope
                    0, 0, 0, 10, 1,   3, 1, 2, 3, 4,     // ATTR_ID
                    0, 0, 0, 10, 16,  3, 0, 0, 0, 1,     // ATTR_HELLO_FLAGS
                    0, 0, 0, 27, 17,  5};                // ATTR_VERSION_TEXT
  const std::string version = "Velmora Extension 1.1";
  expected.insert(expected.end(), version.begin(), version.end());
  expected.insert(expected.end(), {0, 0, 0, 22, 18, 1});  // ATTR_DIGEST
  expected.insert(expected.end(), digest, digest + 16);
  EXPECT_EQ(Contents(e), expected);
  EXPECT_EQ(e.capacity(), kReplyEncoderCapacity);
}

TEST(EncoderTest, AttributeSizes) {
  CEncoder e;
  e.add_string(ATTR_USER, "", 0, 1);
  e.add_u16(7, 0xABCD);
  e.begin_group(9);
  e.end_group(9);
  e.begin_group(10);
  e.add_u32(11, 0xDEADBEEF);
  e.end_group(10);
  const Bytes expected = {0, 0, 0, 6,  ATTR_USER, 5,                        // empty string
                          0, 0, 0, 8,  7,  2, 0xAB, 0xCD,                   // u16
                          0, 0, 0, 6,  9,  6,                               // empty group
                          0, 0, 0, 16, 10, 6, 0, 0, 0, 10, 11, 3, 0xDE, 0xAD, 0xBE, 0xEF};
  EXPECT_EQ(Contents(e), expected);
}

TEST(EncoderTest, GrowthDoublesOrAddsTheShortfall) {
  CEncoder e;  // capacity 0 means 256
  EXPECT_EQ(e.capacity(), 256u);
  std::vector<uint8_t> data(2000, 0x5A);
  e.begin_group(1);
  e.add_bytes(2, data.data(), 244);  // 6 + 6 + 244 = 256: fits exactly
  EXPECT_EQ(e.length(), 256u);
  EXPECT_EQ(e.capacity(), 256u);
  e.add_bytes(2, data.data(), 0);    // one attribute more doubles
  EXPECT_EQ(e.capacity(), 512u);
  // 262 + 1006 = 1268 exceeds twice 512: the new size is that plus 512.
  e.add_bytes(2, data.data(), 1000);
  EXPECT_EQ(e.length(), 1268u);
  EXPECT_EQ(e.capacity(), 1268u + 512u);
  e.end_group(1);
  EXPECT_EQ(BE32At(Contents(e), 0), 1268u);
}

TEST(EncoderTest, OpenGroupsFollowTheBufferWhenItMoves) {
  CEncoder e(16);
  e.begin_message(MSG_EVENT);
  e.begin_group(MSG_SESSION_INFO);
  e.add_u32(ATTR_LOGON, 1);
  e.begin_group(MSG_SESSION_INFO);
  // Far beyond the first block: the block is moved, not extended.
  std::vector<uint8_t> big(1 << 20, 0xA5);
  ASSERT_EQ(e.add_bytes(ATTR_NTLM_TOKEN, big.data(), static_cast<uint32_t>(big.size())), 0);
  e.add_u32(ATTR_TIME, 2);
  ASSERT_EQ(e.end_group(MSG_SESSION_INFO), 0);
  ASSERT_EQ(e.end_group(MSG_SESSION_INFO), 0);
  ASSERT_EQ(e.end_group(MSG_EVENT), 0);

  const Bytes b = Contents(e);
  const uint32_t inner = 6 + (6 + (1u << 20)) + 10;
  EXPECT_EQ(BE32At(b, 0), b.size());
  EXPECT_EQ(BE32At(b, 6), 6 + 10 + inner);
  EXPECT_EQ(BE32At(b, 22), inner);
}

TEST(EncoderTest, NinthOpenGroupIsWrittenButCannotBeClosed) {
  CEncoder e;
  for (uint8_t code = 1; code <= 9; ++code) EXPECT_EQ(e.begin_group(code), 0);
  for (size_t slot = 0; slot < CEncoder::kGroupSlots; ++slot)
    EXPECT_EQ(e.group_slot_code(slot), slot + 1);
  e.add_u32(20, 7);
  EXPECT_EQ(e.end_group(9), -1);
  for (uint8_t code = 8; code >= 1; --code) EXPECT_EQ(e.end_group(code), 0);

  const Bytes b = Contents(e);
  ASSERT_EQ(b.size(), 9u * 6 + 10);
  EXPECT_EQ(b[8 * 6 + 4], 9);
  EXPECT_EQ(BE32At(b, 8 * 6), 0u);  // the ninth header keeps length 0
  for (uint32_t i = 0; i < 8; ++i) EXPECT_EQ(BE32At(b, i * 6), b.size() - i * 6) << i;
}

TEST(EncoderTest, SameCodeGroupsCloseInnermostFirst) {
  CEncoder e;
  e.begin_group(5);
  e.add_u32(1, 1);
  e.begin_group(5);
  e.add_u32(2, 2);
  e.end_group(5);
  e.add_u32(3, 3);
  e.end_group(5);
  const Bytes b = Contents(e);
  EXPECT_EQ(BE32At(b, 0), 6u + 10 + 16 + 10);
  EXPECT_EQ(BE32At(b, 16), 16u);
}

TEST(EncoderTest, SlotsAreReusedLowestFirst) {
  CEncoder e;
  e.begin_group(1);
  e.begin_group(2);
  e.end_group(1);  // slot 0 freed while slot 1 stays open
  e.begin_group(3);
  EXPECT_EQ(e.group_slot_code(0), 3);
  EXPECT_EQ(e.group_slot_code(1), 2);
  EXPECT_EQ(e.end_group(1), -1);
}

TEST(EncoderTest, UnknownOrZeroCodeCannotBeClosed) {
  CEncoder e;
  EXPECT_EQ(e.end_group(MSG_EVENT), -1);
  // Code 0 marks free slots: such a group is written but never registered,
  // and closing code 0 must not touch a free slot.
  EXPECT_EQ(e.begin_group(0), 0);
  EXPECT_EQ(e.group_slot_code(0), 0);
  EXPECT_EQ(e.end_group(0), -1);
  EXPECT_EQ(Contents(e), (Bytes{0, 0, 0, 0, 0, 6}));
}

TEST(EncoderTest, NullArgumentsFailWithoutWriting) {
  CEncoder e;
  EXPECT_EQ(e.add_string(ATTR_USER, nullptr, 3, 0), -1);
  EXPECT_EQ(e.add_bytes(ATTR_DIGEST, nullptr, 16), -1);
  EXPECT_EQ(e.length(), 0u);
  EXPECT_EQ(e.add_u32(ATTR_ID, 1), 0);  // the encoder is still usable
}

TEST(EncoderTest, FailedGrowthLosesTheMessageUntilReset) {
  CEncoder e;
  e.begin_message(MSG_EVENT);
  const uint8_t byte = 0;
  // With the envelope already written, the message's length would no
  // longer fit its 32-bit field: the buffer cannot grow to it.
  EXPECT_EQ(e.add_bytes(ATTR_NTLM_TOKEN, &byte, 0xFFFFFFFFu - 6), -1);
  uint32_t length = 1;
  EXPECT_EQ(e.get_buffer(&length), nullptr);
  EXPECT_EQ(length, 0u);
  EXPECT_EQ(e.add_u32(ATTR_ID, 1), -1);
  EXPECT_EQ(e.begin_group(1), -1);
  EXPECT_EQ(e.end_group(MSG_EVENT), -1);

  e.reset();
  EXPECT_EQ(e.capacity(), 256u);
  EXPECT_EQ(e.add_u32(ATTR_ID, 1), 0);
  EXPECT_EQ(e.length(), 10u);
}

TEST(EncoderTest, ResetEmptiesAndZeroes) {
  CEncoder e(64);
  e.begin_group(1);
  e.add_u32(2, 0xFFFFFFFF);
  e.reset();
  EXPECT_EQ(e.length(), 0u);
  EXPECT_EQ(e.group_slot_code(0), 0);
  uint32_t n = 0;
  const uint8_t* p = e.get_buffer(&n);
  for (uint32_t i = 0; i < e.capacity(); ++i) ASSERT_EQ(p[i], 0) << i;
  EXPECT_EQ(e.end_group(1), -1);
}

// --- upper-casing ----------------------------------------------------------------

TEST(UpperCaseTest, AsciiAndSameLengthCharacters) {
  EXPECT_EQ(UpperCased("corp-01.example", 15), "CORP-01.EXAMPLE");
  EXPECT_EQ(UpperCased("m\xC3\xBCller", 7), "M\xC3\x9CLLER");                // ü -> Ü
  EXPECT_EQ(UpperCased("\xC3\xBF", 2), "\xC5\xB8");                          // ÿ -> Ÿ
  EXPECT_EQ(UpperCased("\xE1\xBE\x80", 3), "\xE1\xBE\x88");                  // ᾀ -> ᾈ
  CEncoder e;
  e.add_string(ATTR_USER, "m\xC3\xBCller", 7, 0);  // flag off: as given
  EXPECT_EQ(Contents(e), (Bytes{0, 0, 0, 13, ATTR_USER, 5, 'm', 0xC3, 0xBC, 'l', 'l', 'e', 'r'}));
}

TEST(UpperCaseTest, LengthChangeFallsBackToBytewise) {
  // ı (2 bytes) upper-cases to I (1 byte), ɐ (2 bytes) to Ɐ (3 bytes): the
  // whole text is then upper-cased byte by byte, non-ASCII bytes untouched.
  EXPECT_EQ(UpperCased("x\xC4\xB1y\xC3\xBC", 6), "X\xC4\xB1Y\xC3\xBC");
  EXPECT_EQ(UpperCased("a\xC9\x90", 3), "A\xC9\x90");
  // Malformed UTF-8 converts to U+FFFD, which changes the length too.
  EXPECT_EQ(UpperCased("a\xFF" "b", 3), "A\xFF" "B");
  EXPECT_EQ(UpperCased("\xC3", 1), "\xC3");
}

TEST(UpperCaseTest, ConversionCoversTheWholeCString) {
  // An embedded NUL ends the conversion early: the length check fails.
  const char embedded[] = {'a', '\xC3', '\xBC', '\0', 'b', '\0'};
  EXPECT_EQ(UpperCased(embedded, 5), std::string("A\xC3\xBC\0B", 5));
  // A count shorter than the text: the whole text is converted, so only a
  // text whose upper-case form happens to have exactly `count` bytes is
  // taken from the conversion (ſ, 2 bytes, upper-cases to S).
  EXPECT_EQ(UpperCased("abcdef", 3), "ABC");
  EXPECT_EQ(UpperCased("\xC5\xBF", 1), "S");
  EXPECT_EQ(UpperCased("\xC3\xBC" "abc", 2), "\xC3\xBC");
}

TEST(UpperCaseTest, SurrogatePairsAreLeftAlone) {
  // Upper-casing works on UTF-16 units, so characters outside the BMP keep
  // their case (Deseret small letter long I stays small).
  EXPECT_EQ(UpperCased("\xF0\x90\x90\xA8x", 5), "\xF0\x90\x90\xA8X");
}

TEST(UpperCaseTest, WideUnitTable) {
  EXPECT_EQ(WideToUpperTable(u'a'), u'A');
  EXPECT_EQ(WideToUpperTable(u'z'), u'Z');
  EXPECT_EQ(WideToUpperTable(u'A'), u'A');
  EXPECT_EQ(WideToUpperTable(u'{'), u'{');
  EXPECT_EQ(WideToUpperTable(u'\u00B5'), u'\u039C');  // micro sign
  EXPECT_EQ(WideToUpperTable(u'\u00DF'), u'\u00DF');  // ß has no one-unit upper case
  EXPECT_EQ(WideToUpperTable(u'\u00F7'), u'\u00F7');  // ÷ sits between two runs
  EXPECT_EQ(WideToUpperTable(u'\u0101'), u'\u0100');  // alternating upper/lower
  EXPECT_EQ(WideToUpperTable(u'\u0100'), u'\u0100');
  EXPECT_EQ(WideToUpperTable(u'\u0131'), u'I');
  EXPECT_EQ(WideToUpperTable(u'\u01C5'), u'\u01C4');  // title case Dž
  EXPECT_EQ(WideToUpperTable(u'\u03C2'), u'\u03A3');  // final sigma
  EXPECT_EQ(WideToUpperTable(u'\u0450'), u'\u0400');
  EXPECT_EQ(WideToUpperTable(u'\u24D0'), u'\u24B6');  // circled a
  EXPECT_EQ(WideToUpperTable(u'\uFF41'), u'\uFF21');  // full-width a
  EXPECT_EQ(WideToUpperTable(char16_t{0xD801}), char16_t{0xD801});  // a surrogate unit
  EXPECT_EQ(WideToUpperTable(u'\uFFFF'), u'\uFFFF');
  EXPECT_EQ(WideToUpperTable(u'\0'), u'\0');
}

// --- decoder -------------------------------------------------------------------

TEST(DecoderTest, EventWalksFlatThroughNestedRecords) {
  CEncoder e(kEventEncoderCapacity);
  e.begin_message(MSG_EVENT);
  AddSessionRecord(e, 0, 0x0100000A);
  AddSessionRecord(e, 1, 0x0200000A);
  e.end_group(MSG_EVENT);
  EXPECT_EQ(e.capacity(), kEventEncoderCapacity);  // two records fit without growth
  Bytes b = Contents(e);

  CDecoder d(b.data(), static_cast<uint32_t>(b.size()));
  EXPECT_EQ(d.message_code(), MSG_EVENT);
  EXPECT_EQ(d.peek_code(), MSG_EVENT);
  const std::vector<uint8_t> record = {MSG_SESSION_INFO, ATTR_LOGON, ATTR_FIXED_VALUE, ATTR_DOMAIN,
                                       ATTR_USER, ATTR_WORKSTATION, ATTR_TENANT_ID, ATTR_IPV4,
                                       ATTR_IPV6, ATTR_TIME};
  std::vector<uint8_t> expected = {MSG_EVENT};
  expected.insert(expected.end(), record.begin(), record.end());
  expected.insert(expected.end(), record.begin(), record.end());

  std::vector<uint8_t> seen;
  std::vector<uint32_t> logons;
  int tenants = 0;
  uint8_t* header;
  while ((header = d.next()) != nullptr) {
    seen.push_back(d.code());
    EXPECT_EQ(header[4], d.code());
    uint32_t hostLength;
    std::memcpy(&hostLength, header, 4);
    EXPECT_EQ(hostLength, d.length());  // rewritten in host order
    if (d.code() == ATTR_LOGON) logons.push_back(d.value_u32());
    // 132 is also the envelope's code: the type tells them apart.
    if (d.code() == ATTR_TENANT_ID && d.type() != TYPE_GROUP) {
      ++tenants;
      EXPECT_EQ(d.type(), TYPE_STRING);
      EXPECT_EQ(std::string(reinterpret_cast<const char*>(d.value_data()), d.value_size()), "T-1");
      EXPECT_EQ(d.value_data(), header + 6);  // a pointer into the buffer
    }
    if (d.code() == ATTR_IPV4) {
      EXPECT_EQ(d.value_u32(), 0x0100000Au + (logons.size() - 1) * 0x01000000u);
    }
    if (d.code() == ATTR_TIME) {
      EXPECT_EQ(d.value_u32(), 1700000000u);
    }
  }
  EXPECT_EQ(seen, expected);
  EXPECT_EQ(logons, (std::vector<uint32_t>{0, 1}));
  EXPECT_EQ(tenants, 2);
  EXPECT_EQ(d.peek_code(), 0);
  EXPECT_EQ(d.next(), nullptr);
}

TEST(DecoderTest, ValuesOfEachType) {
  CEncoder e;
  e.begin_message(MSG_EVENT_ACK);
  e.add_u16(3, 0x1234);
  e.add_u32(ATTR_EVENT_RESULT, 0x00000102);
  const uint8_t raw[3] = {9, 8, 7};
  e.add_bytes(ATTR_NTLM_TOKEN, raw, 3);
  e.end_group(MSG_EVENT_ACK);
  Bytes b = Contents(e);
  CDecoder d(b.data(), static_cast<uint32_t>(b.size()));
  ASSERT_NE(d.next(), nullptr);
  EXPECT_EQ(d.type(), TYPE_GROUP);
  EXPECT_EQ(d.value_data(), b.data() + 6);
  ASSERT_NE(d.next(), nullptr);
  EXPECT_EQ(d.value_u16(), 0x1234);
  ASSERT_NE(d.next(), nullptr);
  EXPECT_EQ(d.value_u32(), 0x102u);
  uint32_t asStored;
  const uint8_t wire[4] = {0, 0, 1, 2};
  std::memcpy(&asStored, wire, 4);
  EXPECT_EQ(d.value_raw_u32(), asStored);
  ASSERT_NE(d.next(), nullptr);
  EXPECT_EQ(d.value_size(), 3u);
  EXPECT_EQ(std::memcmp(d.value_data(), raw, 3), 0);
  EXPECT_EQ(d.next(), nullptr);
}

TEST(DecoderTest, SecondWalkReadsRewrittenLengths) {
  CEncoder e;
  e.begin_message(MSG_HELLO_ACK);
  e.add_u32(ATTR_HELLO_RESULT, 1);
  e.end_group(MSG_HELLO_ACK);
  Bytes b = Contents(e);
  CDecoder d(b.data(), static_cast<uint32_t>(b.size()));
  int first = 0;
  while (d.next()) ++first;
  EXPECT_EQ(first, 2);

  d.attach(b.data(), static_cast<uint32_t>(b.size()));
  ASSERT_NE(d.next(), nullptr);
  const uint16_t probe = 1;
  const bool littleEndian = *reinterpret_cast<const uint8_t*>(&probe) == 1;
  if (littleEndian) {
    EXPECT_EQ(d.length(), 0x10000000u);  // 16, byte-swapped
    // The child's length now reads 0x0A000000: past the end, the walk stops.
    EXPECT_EQ(d.next(), nullptr);
  }
}

TEST(DecoderTest, EmptyAndTinyBuffers) {
  CDecoder empty;
  EXPECT_EQ(empty.next(), nullptr);
  EXPECT_EQ(empty.message_code(), 0);
  EXPECT_EQ(empty.peek_code(), 0);
  CDecoder nullBuffer(nullptr, 100);
  EXPECT_EQ(nullBuffer.total_length(), 0u);
  EXPECT_EQ(nullBuffer.next(), nullptr);

  uint8_t five[5] = {0, 0, 0, 5, 128};
  CDecoder d(five, 5);
  EXPECT_EQ(d.message_code(), 128);
  EXPECT_EQ(d.peek_code(), 128);
  EXPECT_EQ(d.next(), nullptr);  // no room for a header
}

// Hostile attributes end the walk; the attributes before them are returned.
struct HostileCase {
  const char* name;
  Bytes tail;  // follows a well-formed u32 attribute
};

class HostileAttributeTest : public ::testing::TestWithParam<HostileCase> {};

TEST_P(HostileAttributeTest, EndsTheWalkInsideTheBuffer) {
  Bytes b = {0, 0, 0, 10, 1, TYPE_U32, 0, 0, 0, 7};
  b.insert(b.end(), GetParam().tail.begin(), GetParam().tail.end());
  // Exactly sized, so that any read past the end trips the sanitizers.
  std::unique_ptr<uint8_t[]> exact(new uint8_t[b.size()]);
  std::memcpy(exact.get(), b.data(), b.size());
  CDecoder d(exact.get(), static_cast<uint32_t>(b.size()));
  ASSERT_NE(d.next(), nullptr);
  EXPECT_EQ(d.value_u32(), 7u);
  EXPECT_EQ(d.next(), nullptr);
  EXPECT_EQ(d.next(), nullptr);
  EXPECT_EQ(d.peek_code(), 0);
  EXPECT_EQ(d.code(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, HostileAttributeTest,
    ::testing::Values(
        HostileCase{"LengthPastTheEnd", {0, 0, 0, 20, 2, TYPE_BYTES, 1, 2, 3}},
        HostileCase{"HugeLength", {0xFF, 0xFF, 0xFF, 0xFF, 2, TYPE_STRING, 'a'}},
        HostileCase{"LengthZero", {0, 0, 0, 0, 2, TYPE_BYTES, 0, 0}},
        HostileCase{"LengthBelowHeader", {0, 0, 0, 5, 2, TYPE_STRING, 0}},
        HostileCase{"U32ValuePastTheEnd", {0, 0, 0, 6, 2, TYPE_U32, 0xAA}},
        HostileCase{"U16ValuePastTheEnd", {0, 0, 0, 6, 2, TYPE_U16, 0xAA}},
        HostileCase{"TypeZero", {0, 0, 0, 6, 2, 0}},
        HostileCase{"TypeFour", {0, 0, 0, 10, 2, 4, 0, 0, 0, 0}},
        HostileCase{"TypeSeven", {0, 0, 0, 6, 2, 7}},
        HostileCase{"TruncatedHeader", {0, 0, 0}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(DecoderTest, GroupLengthIsNotUsedByTheWalk) {
  // The walk descends into every group, so a group length that is wrong
  // changes nothing: the children are still returned.
  Bytes b = {0xFF, 0xFF, 0xFF, 0xFF, MSG_EVENT_ACK, TYPE_GROUP,
             0, 0, 0, 0, 7, TYPE_GROUP,
             0, 0, 0, 10, ATTR_EVENT_RESULT, TYPE_U32, 0, 0, 0, 2};
  CDecoder d(b.data(), static_cast<uint32_t>(b.size()));
  int n = 0;
  uint32_t result = 0;
  while (d.next()) {
    ++n;
    if (d.code() == ATTR_EVENT_RESULT) result = d.value_u32();
  }
  EXPECT_EQ(n, 3);
  EXPECT_EQ(result, 2u);
}

TEST(DecoderTest, WalkOfRandomBytesEndsWithinBounds) {
  // Every attribute returned moves the cursor by at least a header, so a
  // walk of n bytes returns at most n / 6 attributes.
  std::mt19937 rng(12345);
  for (int round = 0; round < 20000; ++round) {
    const size_t n = rng() % 64;
    std::unique_ptr<uint8_t[]> b(new uint8_t[n + 1]);
    for (size_t i = 0; i < n; ++i) {
      // Small lengths and valid types often enough to walk several steps.
      const uint32_t r = rng();
      b[i] = static_cast<uint8_t>((i % 6 == 3) ? r % 24 : (i % 6 == 5) ? r % 8 : (r & 1) ? 0 : r);
    }
    CDecoder d(b.get(), static_cast<uint32_t>(n));
    size_t steps = 0;
    while (d.next()) ASSERT_LE(++steps, n / 6);
  }
}

TEST(DecoderTest, AllocateGivesAnOwnedZeroedBuffer) {
  CDecoder d;
  uint8_t* p = d.allocate(32);
  ASSERT_NE(p, nullptr);
  for (int i = 0; i < 32; ++i) EXPECT_EQ(p[i], 0);
  EXPECT_EQ(d.total_length(), 32u);
  EXPECT_EQ(d.allocate(0), nullptr);
  EXPECT_EQ(d.total_length(), 0u);
  EXPECT_NE(d.allocate(8), nullptr);  // the owned block is replaced, and freed by the destructor
}

// --- receive framing -----------------------------------------------------------

// A stream over fixed bytes that hands out at most `chunk` bytes per read,
// then reports `endResult` once the bytes are used up.
struct FakeStream {
  Bytes data;
  size_t chunk = 1 << 20;
  int endResult = 0;
  size_t at = 0;
  int reads = 0;
  int Read(void* out, int count) {
    ++reads;
    if (at >= data.size()) return endResult;
    size_t n = std::min({static_cast<size_t>(count), chunk, data.size() - at});
    std::memcpy(out, data.data() + at, n);
    at += n;
    return static_cast<int>(n);
  }
  StreamRead Reader() {
    return [this](void* out, int count) { return Read(out, count); };
  }
};

Bytes SampleAck(uint32_t result) {
  CEncoder e;
  e.begin_message(MSG_EVENT_ACK);
  e.add_u32(ATTR_EVENT_RESULT, result);
  e.add_u32(ATTR_KEEPALIVE_INTERVAL, 60);
  e.end_group(MSG_EVENT_ACK);
  return Contents(e);
}

TEST(ReceiveTest, MessagesArriveInPiecesAndBackToBack) {
  FakeStream s;
  const Bytes first = SampleAck(1);
  const Bytes second = SampleAck(2);
  s.data = first;
  s.data.insert(s.data.end(), second.begin(), second.end());
  s.chunk = 3;  // the length prefix itself is split across reads

  CDecoder d;
  ASSERT_EQ(ReceiveMessage(d, s.Reader()), 1u);
  ASSERT_EQ(d.total_length(), first.size());
  EXPECT_EQ(Bytes(d.buffer(), d.buffer() + d.total_length()), first);
  ASSERT_NE(d.next(), nullptr);
  EXPECT_EQ(d.code(), MSG_EVENT_ACK);
  ASSERT_NE(d.next(), nullptr);
  EXPECT_EQ(d.value_u32(), 1u);

  ASSERT_EQ(ReceiveMessage(d, s.Reader()), 1u);
  ASSERT_NE(d.next(), nullptr);
  ASSERT_NE(d.next(), nullptr);
  EXPECT_EQ(d.value_u32(), 2u);
  EXPECT_EQ(s.at, s.data.size());
}

TEST(ReceiveTest, StreamFailuresFailTheReceive) {
  const Bytes full = SampleAck(1);
  for (int endResult : {0, -1}) {
    for (size_t cut : {size_t{0}, size_t{2}, size_t{4}, size_t{10}, full.size() - 1}) {
      FakeStream s;
      s.data.assign(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(cut));
      s.endResult = endResult;
      CDecoder d;
      EXPECT_EQ(ReceiveMessage(d, s.Reader()), 0u) << cut;
      EXPECT_LE(s.reads, static_cast<int>(cut) + 2);  // gave up at the first failed read
      EXPECT_EQ(d.next(), nullptr);                   // and kept no half message
    }
  }
}

TEST(ReceiveTest, LengthsTooSmallOrAboveTheLimitAreRefused) {
  for (uint8_t small : {0, 3, 4, 5}) {
    FakeStream s;
    s.data = {0, 0, 0, small, 0, 0, 0, 0, 0, 0};
    CDecoder d;
    EXPECT_EQ(ReceiveMessage(d, s.Reader()), 0u);
    EXPECT_EQ(s.at, 4u);  // nothing read past the length
  }
  FakeStream big;
  big.data = {0x7F, 0xFF, 0xFF, 0xFF};
  CDecoder d;
  EXPECT_EQ(ReceiveMessage(d, big.Reader(), 1 << 16), 0u);
  EXPECT_EQ(d.total_length(), 0u);  // nothing allocated

  // By default up to 1 MiB is taken; one byte more is refused before it is
  // read, even when the whole message is there.
  for (const uint32_t total : {kMaxMessageLength, kMaxMessageLength + 1}) {
    FakeStream s;
    s.data.assign(total, 0);
    s.data[0] = static_cast<uint8_t>(total >> 24);
    s.data[1] = static_cast<uint8_t>(total >> 16);
    s.data[2] = static_cast<uint8_t>(total >> 8);
    s.data[3] = static_cast<uint8_t>(total);
    s.data[5] = TYPE_GROUP;
    CDecoder m;
    EXPECT_EQ(ReceiveMessage(m, s.Reader()), total == kMaxMessageLength ? 1u : 0u) << total;
    EXPECT_EQ(s.at, total == kMaxMessageLength ? total : 4u) << total;
  }

  FakeStream six;
  six.data = {0, 0, 0, 6, MSG_HELLO_ACK, TYPE_GROUP};
  EXPECT_EQ(ReceiveMessage(d, six.Reader(), 6), 1u);
  EXPECT_EQ(d.message_code(), MSG_HELLO_ACK);
}

TEST(ReceiveTest, ReadReportingMoreThanAskedFails) {
  CDecoder d;
  int calls = 0;
  StreamRead liar = [&](void* out, int count) {
    ++calls;
    std::memset(out, 0, static_cast<size_t>(count));
    if (calls == 1) {
      static_cast<uint8_t*>(out)[3] = 16;
      return count;
    }
    return count + 1;
  };
  EXPECT_EQ(ReceiveMessage(d, liar), 0u);
  EXPECT_EQ(ReceiveMessage(d, StreamRead()), 0u);
}

// --- base64 --------------------------------------------------------------------

std::string Encode(const std::string& in, bool breaks = false) {
  std::string out(base64_encoded_size(static_cast<uint32_t>(in.size()), breaks), '#');
  const uint32_t n = base64_encode(reinterpret_cast<const uint8_t*>(in.data()),
                                   static_cast<uint32_t>(in.size()), out.data(), breaks);
  EXPECT_EQ(out[n], '\0');
  EXPECT_EQ(n + 1, out.size());
  out.resize(n);
  return out;
}

std::string Decode(const std::string& text, uint32_t* consumed = nullptr) {
  int32_t length = -2;
  auto out = base64_decode(text.data(), static_cast<uint32_t>(text.size()), &length, consumed);
  EXPECT_NE(out, nullptr);
  EXPECT_GE(length, 0);
  if (!out || length < 0) return "<null>";
  return std::string(reinterpret_cast<const char*>(out.get()), static_cast<size_t>(length));
}

TEST(Base64Test, KnownVectorsRoundTrip) {
  const std::pair<std::string, std::string> vectors[] = {
      {"", ""},         {"f", "Zg=="},         {"fo", "Zm8="},         {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"},
      {std::string("\xFB\xFF\x00", 3), "+/8A"}};
  for (const auto& [plain, text] : vectors) {
    EXPECT_EQ(Encode(plain), text);
    EXPECT_EQ(Decode(text), plain) << text;
  }
  std::mt19937 rng(7);
  for (size_t n = 0; n < 200; ++n) {
    std::string plain(n, '\0');
    for (char& c : plain) c = static_cast<char>(rng());
    ASSERT_EQ(Decode(Encode(plain)), plain) << n;
  }
}

TEST(Base64Test, LineBreaksEvery76Characters) {
  const std::string encoded57 = Encode(std::string(57, 'x'), true);
  ASSERT_EQ(encoded57.size(), 78u);
  EXPECT_EQ(encoded57.substr(76), "\r\n");
  const std::string encoded58 = Encode(std::string(58, 'x'), true);
  EXPECT_EQ(encoded58.size(), 82u);
  EXPECT_EQ(encoded58.find("\r\n"), 76u);
  EXPECT_EQ(Encode(std::string(200, 'x')).find('\r'), std::string::npos);
  EXPECT_EQ(Decode(Encode(std::string(200, 'y'), true)), std::string(200, 'y'));
}

TEST(Base64Test, DecodeSkipsWhatIsNotBase64) {
  EXPECT_EQ(Decode("Zm 9v\r\n-Y\tg=="), "foob");
  EXPECT_EQ(Decode(std::string("Zm\0" "9v", 5)), "foo");
  EXPECT_EQ(Decode("Z*m!9.v"), "foo");
  // "=" before any byte is ignored; after one it ends decoding.
  EXPECT_EQ(Decode("==Zg=="), "f");
  EXPECT_EQ(Decode("Zg==Zm8="), "f");
  EXPECT_EQ(Decode("===="), "");
}

TEST(Base64Test, UnpaddedTailIsDropped) {
  int32_t length = 0;
  auto out = base64_decode("Zm9vYg", 6, &length);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(length, 3);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(out.get())), "foo");  // NUL-terminated
  EXPECT_EQ(Decode("Zm9vYmE"), "foo");
  EXPECT_EQ(Decode("Zm9vY"), "foo");
  EXPECT_EQ(Decode("Zg"), "");
}

TEST(Base64Test, BeginLineIsSkipped) {
  EXPECT_EQ(Decode("begin-base64 644 token\r\n\r\nZm9v"), "foo");
  EXPECT_EQ(Decode("begin\nZm9v"), "foo");
  // Five characters or fewer are not a "begin" line: decoded as text.
  EXPECT_EQ(Decode("begin").size(), 3u);
}

TEST(Base64Test, ConsumedCountsCharactersReadPlusOne) {
  uint32_t consumed = 0;
  Decode("Zm9v", &consumed);
  EXPECT_EQ(consumed, 5u);
  Decode("Zg==Zm8=", &consumed);
  EXPECT_EQ(consumed, 4u);  // stopped at the first "=" that ends decoding
}

TEST(Base64Test, ResultBlockSize) {
  // count * 3 / 4 + 11 bytes, zero-filled: room for any result plus a NUL.
  int32_t length = 0;
  const std::string text(100, 'B');
  auto out = base64_decode(text.data(), 100, &length);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(length, 75);
  for (int i = 75; i < 100 * 3 / 4 + 11; ++i) EXPECT_EQ(out[i], 0) << i;
  EXPECT_NE(base64_decode(nullptr, 0, &length), nullptr);
  EXPECT_EQ(length, 0);
}

// --- code names ------------------------------------------------------------------

TEST(CodeNameTest, CodesAreScopedByPosition) {
  EXPECT_STREQ(MessageCodeName(MSG_EVENT), "MSG_EVENT");
  EXPECT_STREQ(AttributeCodeName(MSG_SESSION_INFO, 132), "ATTR_TENANT_ID");
  EXPECT_STREQ(AttributeCodeName(MSG_EVENT, 80), "MSG_SESSION_INFO");
  EXPECT_STREQ(AttributeCodeName(MSG_NTLM_CHALLENGE, 1), "ATTR_ID");
  EXPECT_EQ(AttributeCodeName(MSG_HELLO_ACK, 1), nullptr);
  EXPECT_EQ(MessageCodeName(0), nullptr);
}

}  // namespace
}  // namespace lindqvar
