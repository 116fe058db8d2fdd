#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <list>
#include <random>
#include <string>
#include <vector>

#include "protocol/delivery/server_dialogue.h"
#include "protocol/messages/event.h"
#include "protocol/messages/ntlm_messages.h"
#include "protocol/wire/base64.h"
#include "protocol/wire/decoder.h"
#include "protocol/wire/encoder.h"
#include "tests/protocol/tls_test_support.h"

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

// --- encoder -------------------------------------------------------------------

// Headers are big-endian length, code, type; every message type's bytes
// are pinned by the Messages tests below.
TEST(EncoderTest, WireFormatIsByteExact) {
  CEncoder sizes;
  sizes.add_string(ATTR_USER, "", 0, 1);
  sizes.add_u16(7, 0xABCD);
  sizes.begin_group(9);
  sizes.end_group(9);
  sizes.begin_group(10);
  sizes.add_u32(11, 0xDEADBEEF);
  sizes.end_group(10);
  EXPECT_EQ(Contents(sizes), (Bytes{0, 0, 0, 6,  ATTR_USER, 5,         // empty string
                                    0, 0, 0, 8,  7,  2, 0xAB, 0xCD,    // u16
                                    0, 0, 0, 6,  9,  6,                // empty group
                                    0, 0, 0, 16, 10, 6, 0, 0, 0, 10, 11, 3, 0xDE, 0xAD, 0xBE, 0xEF}));
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
  EXPECT_EQ(Bytes(b.end() - 10 - (1 << 20), b.end() - 10), big);
}

// Group nesting: each op is +code (begin_group), -code (end_group) or kU32
// (a 10-byte u32); code 0 is written +256 / -256. The rows give how many
// end_group calls fail and the length field of every group header, in the
// order they were begun.
TEST(EncoderTest, GroupNesting) {
  constexpr int kU32 = 1000;
  struct Row {
    const char* name;
    std::vector<int> ops;
    int failedEnds;
    std::vector<uint32_t> lengths;
  };
  const Row rows[] = {
      // The ninth open group is written but finds no slot: it cannot be closed.
      {"nine open", {1, 2, 3, 4, 5, 6, 7, 8, 9, kU32, -9, -8, -7, -6, -5, -4, -3, -2, -1}, 1,
       {64, 58, 52, 46, 40, 34, 28, 22, 0}},
      {"same code closes innermost first", {5, kU32, 5, kU32, -5, kU32, -5}, 0, {42, 16}},
      // Slot 0 freed and reused by the inner 2: searching from the top slot
      // down, the outer 2 (slot 1) closes first.
      {"freed slot reused lowest first", {1, 2, -1, 2, kU32, -2, kU32, -2}, 0, {12, 22, 26}},
      {"unknown code", {-132}, 1, {}},
      // Code 0 marks free slots: written, never registered, never closed.
      {"code zero", {256, -256}, 1, {0}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    CEncoder e;
    std::vector<uint32_t> headers;
    int failed = 0;
    for (int op : row.ops) {
      if (op == kU32) {
        e.add_u32(20, 7);
      } else if (op > 0) {
        headers.push_back(e.Length());
        EXPECT_EQ(e.begin_group(static_cast<uint8_t>(op % 256)), 0);
      } else {
        failed += e.end_group(static_cast<uint8_t>(-op % 256)) != 0;
      }
    }
    EXPECT_EQ(failed, row.failedEnds);
    const Bytes b = Contents(e);
    std::vector<uint32_t> lengths;
    for (uint32_t at : headers) lengths.push_back(BE32At(b, at));
    EXPECT_EQ(lengths, row.lengths);
  }
}

TEST(EncoderTest, NullArgumentsFailWithoutWriting) {
  CEncoder e;
  EXPECT_EQ(e.add_string(ATTR_USER, nullptr, 3, 0), -1);
  EXPECT_EQ(e.add_bytes(ATTR_DIGEST, nullptr, 16), -1);
  EXPECT_EQ(e.Length(), 0u);
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
  EXPECT_EQ(e.add_u32(ATTR_ID, 1), 0);
  EXPECT_EQ(Contents(e), (Bytes{0, 0, 0, 10, ATTR_ID, TYPE_U32, 0, 0, 0, 1}));
  e.reset();  // with a buffer: emptied
  EXPECT_EQ(e.Length(), 0u);
}

// --- upper-casing ----------------------------------------------------------------

TEST(UpperCaseTest, StringsKeepTheirByteCount) {
  struct Row {
    std::string text;  // passed NUL-terminated, as the encoder reads it
    uint32_t count;
    std::string expected;
    uint32_t upper = 1;
  };
  const Row rows[] = {
      {"corp-01.example", 15, "CORP-01.EXAMPLE"},
      {"m\xC3\xBCller", 7, "M\xC3\x9CLLER"},              // ü -> Ü
      {"m\xC3\xBCller", 7, "m\xC3\xBCller", 0},           // flag off: as given
      {"\xC3\xBF", 2, "\xC5\xB8"},                        // ÿ -> Ÿ
      {"\xE1\xBE\x80", 3, "\xE1\xBE\x88"},                // ᾀ -> ᾈ
      // ı (2 bytes) upper-cases to I (1 byte), ɐ (2) to Ɐ (3): the whole
      // text is then upper-cased byte by byte, non-ASCII bytes untouched.
      {"x\xC4\xB1y\xC3\xBC", 6, "X\xC4\xB1Y\xC3\xBC"},
      {"a\xC9\x90", 3, "A\xC9\x90"},
      // Malformed UTF-8 converts to U+FFFD, which changes the length too.
      {"a\xFF" "b", 3, "A\xFF" "B"},
      {"\xC3", 1, "\xC3"},
      // The conversion covers the whole C string: an embedded NUL ends it
      // early, a count shorter than the text only matches by chance (ſ, 2
      // bytes, upper-cases to S).
      {std::string("a\xC3\xBC\0b", 5), 5, std::string("A\xC3\xBC\0B", 5)},
      {"abcdef", 3, "ABC"},
      {"\xC5\xBF", 1, "S"},
      {"\xC3\xBC" "abc", 2, "\xC3\xBC"},
      // Upper-casing works on UTF-16 units: characters outside the BMP keep
      // their case (Deseret small letter long I stays small).
      {"\xF0\x90\x90\xA8x", 5, "\xF0\x90\x90\xA8X"},
      // The table's runs and gaps: µ, ß (no one-unit upper case), ÷ (between
      // two runs), ā and Ā (alternating), ǅ (title case), ς (final sigma), ѐ,
      // circled and full-width a, U+FFFF.
      {"z{\xC2\xB5\xC3\x9F\xC3\xB7\xC4\x81\xC4\x80\xC7\x85\xCF\x82\xD1\x90\xE2\x93\x90\xEF\xBD\x81\xEF\xBF\xBF", 27,
       "Z{\xCE\x9C\xC3\x9F\xC3\xB7\xC4\x80\xC4\x80\xC7\x84\xCE\xA3\xD0\x80\xE2\x92\xB6\xEF\xBC\xA1\xEF\xBF\xBF"},
  };
  for (const Row& row : rows) {
    CEncoder e;
    ASSERT_EQ(e.add_string(ATTR_USER, row.text.c_str(), row.count, row.upper), 0);
    const Bytes b = Contents(e);
    ASSERT_EQ(b.size(), 6u + row.count) << row.expected;
    EXPECT_EQ(BE32At(b, 0), 6u + row.count) << row.expected;
    EXPECT_EQ(std::string(b.begin() + 6, b.end()), row.expected);
  }
}

// --- decoder -------------------------------------------------------------------

TEST(DecoderTest, WalksFlatThroughNestedGroupsWithValuesInPlace) {
  const uint8_t v6[16] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  CEncoder e;
  e.begin_message(MSG_EVENT);
  e.begin_group(MSG_SESSION_INFO);
  e.add_u32(ATTR_LOGON, 1);
  e.add_string(ATTR_TENANT_ID, std::string("t-1"), 1);
  e.add_bytes(ATTR_IPV6, v6, sizeof v6);
  e.end_group(MSG_SESSION_INFO);
  const uint32_t second = e.Length();
  e.begin_group(MSG_SESSION_INFO);
  e.add_u32(ATTR_LOGON, 0x102);
  e.add_u16(3, 0x1234);
  e.end_group(MSG_SESSION_INFO);
  e.end_group(MSG_EVENT);
  Bytes b = Contents(e);
  // The walk descends into every group and never uses a group's length:
  // 0xFFFFFFFF for the envelope's and 0 for the second group's change nothing.
  std::fill_n(b.begin(), 4, 0xFF);
  std::fill_n(b.begin() + second, 4, 0);

  CDecoder d(b.data(), static_cast<uint32_t>(b.size()));
  EXPECT_EQ(std::make_tuple(d.message_code(), d.peek_code()), std::make_tuple(MSG_EVENT, MSG_EVENT));
  // Each item as code/type=value; 132 is both the envelope's code and the
  // tenant id's: the type tells them apart. Values are read in place.
  std::vector<std::string> seen;
  uint8_t* header;
  while ((header = d.next()) != nullptr) {
    uint32_t hostLength;
    std::memcpy(&hostLength, header, 4);
    EXPECT_EQ(hostLength, d.Length());  // rewritten in host order
    std::string item = std::to_string(d.Code()) + "/" + std::to_string(d.Type()) + "=";
    if (d.Type() == TYPE_U32) item += std::to_string(d.ValueU32());
    if (d.Type() == TYPE_U16) item += std::to_string(d.ValueU16());
    if (d.Type() == TYPE_STRING || d.Type() == TYPE_BYTES) {
      EXPECT_EQ(d.ValueData(), header + 6);
      item += std::string(reinterpret_cast<const char*>(d.ValueData()), d.ValueSize());
    }
    seen.push_back(item);
  }
  const std::string ipv6(reinterpret_cast<const char*>(v6), 16);
  EXPECT_EQ(seen, (std::vector<std::string>{"132/6=", "80/6=", "81/3=1", "132/5=T-1", "94/1=" + ipv6,
                                            "80/6=", "81/3=258", "3/2=4660"}));
  EXPECT_EQ(d.peek_code(), 0);
  EXPECT_EQ(d.next(), nullptr);
  // A u32 taken without byte-order conversion: the wire bytes as stored.
  uint8_t u32[10] = {0, 0, 0, 10, ATTR_NTLM_STATUS, TYPE_U32, 0, 0, 1, 2};
  CDecoder raw(u32, sizeof u32);
  ASSERT_NE(raw.next(), nullptr);
  uint32_t asStored;
  std::memcpy(&asStored, u32 + 6, 4);
  EXPECT_EQ(raw.ValueRawU32(), asStored);
}

TEST(DecoderTest, EmptyAndTinyBuffers) {
  CDecoder empty;
  EXPECT_EQ(empty.next(), nullptr);
  EXPECT_EQ(std::make_tuple(empty.message_code(), empty.peek_code()), std::make_tuple(0, 0));
  CDecoder nullBuffer(nullptr, 100);
  EXPECT_EQ(nullBuffer.TotalLength(), 0u);
  EXPECT_EQ(nullBuffer.next(), nullptr);

  uint8_t five[5] = {0, 0, 0, 5, 128};
  CDecoder d(five, 5);
  EXPECT_EQ(std::make_tuple(d.message_code(), d.peek_code()), std::make_tuple(128, 128));
  EXPECT_EQ(d.next(), nullptr);  // no room for a header
}

// Hostile attributes end the walk; the attributes before them are returned.
TEST(DecoderTest, HostileAttributesEndTheWalkInsideTheBuffer) {
  const std::pair<const char*, Bytes> rows[] = {  // each follows a well-formed u32
      {"length past the end", {0, 0, 0, 20, 2, TYPE_BYTES, 1, 2, 3}},
      {"huge length", {0xFF, 0xFF, 0xFF, 0xFF, 2, TYPE_STRING, 'a'}},
      {"length 0", {0, 0, 0, 0, 2, TYPE_BYTES, 0, 0}},
      {"length below the header", {0, 0, 0, 5, 2, TYPE_STRING, 0}},
      {"u32 value past the end", {0, 0, 0, 6, 2, TYPE_U32, 0xAA}},
      {"u16 value past the end", {0, 0, 0, 6, 2, TYPE_U16, 0xAA}},
      {"type 0", {0, 0, 0, 6, 2, 0}},
      {"type 4", {0, 0, 0, 10, 2, 4, 0, 0, 0, 0}},
      {"type 7", {0, 0, 0, 6, 2, 7}},
      {"truncated header", {0, 0, 0}}};
  for (const auto& [name, tail] : rows) {
    SCOPED_TRACE(name);
    Bytes b = {0, 0, 0, 10, 1, TYPE_U32, 0, 0, 0, 7};
    b.insert(b.end(), tail.begin(), tail.end());
    // Exactly sized, so that any read past the end trips the sanitizers.
    std::unique_ptr<uint8_t[]> exact(new uint8_t[b.size()]);
    std::memcpy(exact.get(), b.data(), b.size());
    CDecoder d(exact.get(), static_cast<uint32_t>(b.size()));
    ASSERT_NE(d.next(), nullptr);
    EXPECT_EQ(d.ValueU32(), 7u);
    EXPECT_EQ(d.next(), nullptr);
    EXPECT_EQ(d.next(), nullptr);
    EXPECT_EQ(d.peek_code(), 0);
    EXPECT_EQ(d.Code(), 0);
  }
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
  ASSERT_EQ(d.TotalLength(), first.size());
  EXPECT_EQ(Bytes(d.Buffer(), d.Buffer() + d.TotalLength()), first);
  ASSERT_NE(d.next(), nullptr);
  EXPECT_EQ(d.Code(), MSG_EVENT_ACK);

  ASSERT_EQ(ReceiveMessage(d, s.Reader()), 1u);
  ASSERT_NE(d.next(), nullptr);
  ASSERT_NE(d.next(), nullptr);
  EXPECT_EQ(d.ValueU32(), 2u);
  EXPECT_EQ(s.at, s.data.size());
}

// A message header claiming `total` bytes, followed by `present` bytes in all.
Bytes Frame(uint32_t total, size_t present) {
  Bytes b(present, 0);
  for (size_t i = 0; i < 4 && i < present; ++i) b[i] = static_cast<uint8_t>(total >> (24 - 8 * i));
  if (present > 5) b[5] = TYPE_GROUP;
  return b;
}

TEST(ReceiveTest, WhatIsTakenAndWhatIsRefused) {
  struct Row {
    std::string name;
    Bytes data;
    uint32_t maxLength;  // 0: the default
    uint32_t result;
    size_t consumed;     // bytes read off the stream
    int endResult = 0;
  };
  const Bytes ack = SampleAck(1);
  std::vector<Row> rows = {
      // 1 MiB is the documented limit: one byte more is refused before it
      // is read, even when the whole message is there.
      {"1 MiB", Frame(1048576, 1048576), 0, 1, 1048576},
      {"1 MiB + 1", Frame(1048577, 1048577), 0, 0, 4},
      {"above a given limit", Frame(0x7FFFFFFF, 4), 1 << 16, 0, 4},
      {"exactly a given limit", Frame(6, 6), 6, 1, 6},
  };
  for (uint8_t small : {0, 3, 4, 5}) {
    rows.push_back({"length " + std::to_string(small), Frame(small, 10), 0, 0, 4});
  }
  // A stream that fails or ends early fails the receive at the first failed read.
  for (int endResult : {0, -1}) {
    for (size_t cut : {size_t{0}, size_t{2}, size_t{4}, size_t{10}, ack.size() - 1}) {
      rows.push_back({"cut at " + std::to_string(cut) + " then " + std::to_string(endResult),
                      Bytes(ack.begin(), ack.begin() + static_cast<std::ptrdiff_t>(cut)), 0, 0,
                      cut, endResult});
    }
  }
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    FakeStream s;
    s.data = row.data;
    s.endResult = row.endResult;
    CDecoder d;
    const uint32_t result = row.maxLength ? ReceiveMessage(d, s.Reader(), row.maxLength)
                                          : ReceiveMessage(d, s.Reader());
    EXPECT_EQ(result, row.result);
    EXPECT_EQ(s.at, row.consumed);
    if (row.result) {
      EXPECT_EQ(d.TotalLength(), row.consumed);
      ASSERT_NE(d.next(), nullptr);
    } else {
      EXPECT_LE(s.reads, static_cast<int>(row.consumed) + 2);  // gave up at once
      EXPECT_EQ(d.TotalLength(), 0u);                         // kept no half message
      EXPECT_EQ(d.next(), nullptr);
    }
  }
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

std::string Encode(const std::string& in) {
  std::string out(Base64EncodedSize(static_cast<uint32_t>(in.size())), '#');
  const uint32_t n = Base64Encode(reinterpret_cast<const uint8_t*>(in.data()),
                                   static_cast<uint32_t>(in.size()), out.data());
  EXPECT_EQ(out[n], '\0');
  EXPECT_EQ(n + 1, out.size());
  out.resize(n);
  return out;
}

std::string Decode(const std::string& text) {
  int32_t length = -2;
  auto out = Base64Decode(text.data(), static_cast<uint32_t>(text.size()), &length);
  EXPECT_NE(out, nullptr);
  EXPECT_GE(length, 0);
  if (!out || length < 0) return "<null>";
  EXPECT_EQ(out[static_cast<size_t>(length)], 0) << text;  // NUL-terminated
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

TEST(Base64Test, DecodeOfLooseText) {
  const std::pair<std::string, std::string> rows[] = {
      // What is not base64 is skipped.
      {"Zm 9v\r\n-Y\tg==", "foob"},
      {std::string("Zm\0" "9v", 5), "foo"},
      {"Z*m!9.v", "foo"},
      // "=" before any byte is ignored; after one it ends decoding.
      {"==Zg==", "f"},
      {"Zg==Zm8=", "f"},
      {"====", ""},
      // An unpadded last group is dropped.
      {"Zm9vYg", "foo"},
      {"Zm9vYmE", "foo"},
      {"Zm9vY", "foo"},
      {"Zg", ""},
      // A "begin" line is skipped; five characters or fewer are not one.
      {"begin-base64 644 token\r\n\r\nZm9v", "foo"},
      {"begin\nZm9v", "foo"},
      {"begin", "\x6d\xe8\x22"},
  };
  for (const auto& [text, plain] : rows) EXPECT_EQ(Decode(text), plain) << text;
}

// --- the messages of the dialogue ---------------------------------------------------

// The bytes each type writes, pinned, and what its reader takes from what a
// server (or an agent) sends; the agent's answer to a server's hello.

// A message copied out of an encoder, for a decoder to walk (the walk
// rewrites lengths in place; read texts point into `bytes`).
struct Received {
  template <typename Message>
  explicit Received(const Message& message) {
    CEncoder e;
    message.Write(e);
    uint32_t n = 0;
    const uint8_t* p = e.get_buffer(&n);
    bytes.assign(p, p + n);
    decoder.attach(bytes.data(), n);
  }
  std::string Hex() const { return testing::Hex(bytes.data(), bytes.size()); }
  std::vector<uint8_t> bytes;
  CDecoder decoder;
};

std::array<uint8_t, 16> Counting() {
  std::array<uint8_t, 16> d;
  for (uint8_t i = 0; i < 16; ++i) d[i] = i;
  return d;
}

// The bytes of every message as the agent and the lab authenticator wrote
// them before their writers became these types.
TEST(Messages, WriteTheWireBytesAndReadThemBack) {
  Received helloReply(Hello{0x01020304, 1, kAgentVersionText, Counting(), 0, "{G}"});
  EXPECT_EQ(helloReply.Hex(),
            "0000005480060000000a0103010203040000000a1003000000010000001b110556656c6d6f726120"
            "457874656e73696f6e20312e31000000161201000102030405060708090a0b0c0d0e0f0000000913"
            "017b477d");
  Hello hello;
  ASSERT_TRUE(hello.Read(helloReply.decoder));
  EXPECT_EQ(Hello({0x01020304, 1, kAgentVersionText, Counting(), 16, "{G}"}), hello);

  Received serverHello(Hello{7, 1, "Lab", Counting()});
  EXPECT_EQ(serverHello.Hex(),
            "0000003980060000000a0103000000070000000a1003000000010000000911054c616200000016120100"
            "0102030405060708090a0b0c0d0e0f");

  Received helloAck(HelloAck{1});
  EXPECT_EQ(helloAck.Hex(), "0000001087060000000a900300000001");
  HelloAck ack;
  ASSERT_TRUE(ack.Read(helloAck.decoder));
  EXPECT_EQ(1u, ack.result);

  Received eventAck(EventAck{2, 90});
  EXPECT_EQ(eventAck.Hex(), "0000001ab8060000000ac003000000020000000ac1030000005a");
  EventAck eack;
  ASSERT_TRUE(eack.Read(eventAck.decoder));
  EXPECT_EQ(std::make_tuple(2u, 90u), std::tie(eack.result, eack.keepAliveInterval));
  EXPECT_EQ(Received(EventAck{1}).Hex(), "00000010b8060000000ac00300000001");

  Received negotiate(NtlmToken{MSG_NTLM_NEGOTIATE, 100001, "TkVH"});
  EXPECT_EQ(negotiate.Hex(), "0000001a88060000000a0103000186a10000000aa001546b5648");
  NtlmToken token{MSG_NTLM_NEGOTIATE};
  ASSERT_TRUE(token.Read(negotiate.decoder));
  EXPECT_EQ(std::make_tuple(100001u, "TkVH"), std::tie(token.id, token.token));

  // The result word goes out so that the agent, reading it without
  // byte-order conversion, sees 1 (on the little-endian machines it runs on).
  Received result(NtlmResult{1});
  const uint16_t probe = 1;
  if (*reinterpret_cast<const uint8_t*>(&probe) == 1) {
    EXPECT_EQ(result.Hex(), "000000108d060000000aa10301000000");
  }
  NtlmResult status;
  ASSERT_TRUE(status.Read(result.decoder));
  EXPECT_EQ(1, status.status);

  // Two records: the fixed attribute order, the logon flag as 0 or 1,
  // upper-cased strings, empty strings and addresses skipped.
  SessionRecord withdrawn{.logon = 0, .domain = "corp", .user = "m\xC3\xBCller", .workstation = "ws1.corp",
                          .ipv4 = {0x0500000A, 0, 0, 0}, .time = 1700000000};
  SessionRecord current{.logon = 7, .domain = "corp", .user = "alice", .workstation = "ws1.corp",
                        .azureAccount = "a@corp", .deviceUuid = "d-1", .vrxSerial = "s-1",
                        .tenantId = "t-1", .ipv4 = {0x0600000A, 0, 0x0700000A, 0},
                        .ipv6 = {{}, {0x20, 0x01, 0x0d, 0xb8}, {}, {0, 0, 0xff}}, .time = 1700000001};
  Received event(EventMessage{{withdrawn, current}});
  EXPECT_EQ(event.Hex(),
            "000000f184060000005350060000000a5103000000000000000a5903000010000000000a5405434f52"
            "500000000d55054dc39c4c4c45520000000e53055753312e434f52500000000a52030a0000050000"
            "000a57036553f1000000009850060000000a5103000000010000000a5903000010000000000a5405"
            "434f52500000000b5505414c4943450000000e53055753312e434f52500000000c5f054140434f52"
            "50000000098205442d31000000098305532d31000000098405542d310000000a52030a000006000000"
            "0a52030a000007000000165e0120010db80000000000000000000000000000000a57036553f101");
  EventMessage read;
  ASSERT_TRUE(read.Read(event.decoder));
  ASSERT_EQ(2u, read.records.size());
  EXPECT_EQ("M\xC3\x9CLLER", read.records[0].user);
  const SessionRecord& r = read.records[1];
  EXPECT_EQ(std::make_tuple(std::vector<std::string>{"10.0.0.6", "10.0.0.7"}, std::vector<std::string>{"2001:db8::"},
                            "S-1", 1u, kSessionRecordFixedValue),
            std::make_tuple(r.IPv4Text(), r.IPv6Text(), r.vrxSerial, r.logon, r.fixedValue));
}

// What the readers take from a message: rows of hand-written attributes.
// Unknown codes are skipped, later attributes win, values count only from
// the types the format gives them.
struct Attribute {
  uint8_t code;
  uint8_t type;
  std::vector<uint8_t> value;
};

std::vector<uint8_t> Message(uint8_t code, const std::vector<Attribute>& attributes) {
  std::vector<uint8_t> out(6, 0);
  out[4] = code;
  out[5] = TYPE_GROUP;
  for (const Attribute& a : attributes) {
    const auto n = static_cast<uint32_t>(a.value.size() + 6);
    out.insert(out.end(), {uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n), a.code, a.type});
    out.insert(out.end(), a.value.begin(), a.value.end());
  }
  const auto n = static_cast<uint32_t>(out.size());
  out[0] = uint8_t(n >> 24), out[1] = uint8_t(n >> 16), out[2] = uint8_t(n >> 8), out[3] = uint8_t(n);
  return out;
}
std::vector<uint8_t> U32(uint32_t v) { return {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)}; }
std::vector<uint8_t> Text(const std::string& s) { return std::vector<uint8_t>(s.begin(), s.end()); }

TEST(Messages, ReadersTakeWhatTheFormatGives) {
  std::list<std::vector<uint8_t>> messages;  // what read texts point into
  auto read = [&messages](auto message, std::vector<uint8_t> bytes) {
    std::vector<uint8_t>& kept = messages.emplace_back(std::move(bytes));
    CDecoder d(kept.data(), static_cast<uint32_t>(kept.size()));
    const bool ok = message.Read(d);
    return std::make_pair(ok, message);
  };
  // Hello: unknown codes skipped, a short challenge padded with zero bytes,
  // a version text of 32 bytes or more refused.
  auto [helloOk, hello] = read(Hello{}, Message(MSG_HELLO, {{99, TYPE_STRING, Text("x")},
                                                            {ATTR_ID, TYPE_U32, U32(77)},
                                                            {ATTR_DIGEST, TYPE_BYTES, {9, 9, 9}},
                                                            {ATTR_VERSION_TEXT, TYPE_STRING, Text(std::string(31, 'v'))}}));
  EXPECT_EQ(std::make_tuple(true, 77u, std::array<uint8_t, 16>{9, 9, 9}, 3u),
            std::tie(helloOk, hello.id, hello.digest, hello.digestLength));
  for (size_t size : {32u, 4096u})
    EXPECT_FALSE(read(Hello{}, Message(MSG_HELLO, {{ATTR_VERSION_TEXT, TYPE_STRING, Text(std::string(size, 'v'))}})).first) << size;
  EXPECT_FALSE(read(Hello{}, Message(MSG_HELLO_ACK, {{ATTR_HELLO_RESULT, TYPE_U32, U32(1)}})).first);
  CDecoder empty;
  EXPECT_FALSE(Hello{}.Read(empty));

  // Acknowledgements: the last result wins; a keep-alive interval of 0
  // does not replace one given before it; another message is refused.
  EXPECT_EQ(0u, read(HelloAck{}, Message(MSG_HELLO_ACK, {{ATTR_HELLO_RESULT, TYPE_U32, U32(1)},
                                                         {ATTR_HELLO_RESULT, TYPE_U32, U32(0)}})).second.result);
  EXPECT_EQ(0u, read(HelloAck{}, Message(MSG_HELLO_ACK, {})).second.result);
  auto [ackOk, ack] = read(EventAck{}, Message(MSG_EVENT_ACK, {{ATTR_EVENT_RESULT, TYPE_U32, U32(2)},
                                                               {ATTR_KEEPALIVE_INTERVAL, TYPE_U32, U32(60)},
                                                               {ATTR_KEEPALIVE_INTERVAL, TYPE_U32, U32(0)}}));
  EXPECT_EQ(std::make_tuple(true, 2u, 60u), std::tie(ackOk, ack.result, ack.keepAliveInterval));
  EXPECT_FALSE(read(EventAck{}, Message(MSG_HELLO_ACK, {{ATTR_EVENT_RESULT, TYPE_U32, U32(1)}})).first);

  // NTLM: a token only from bytes or a string, the result only from a u32
  // (-1 without one).
  auto [tokenOk, token] = read(NtlmToken{MSG_NTLM_CHALLENGE},
                               Message(MSG_NTLM_CHALLENGE, {{ATTR_NTLM_TOKEN, TYPE_STRING, Text("Q0g=")},
                                                            {ATTR_NTLM_TOKEN, TYPE_U32, U32(5)}}));
  EXPECT_EQ(std::make_tuple(true, "Q0g="), std::tie(tokenOk, token.token));
  EXPECT_FALSE(read(NtlmToken{MSG_NTLM_CHALLENGE}, Message(MSG_NTLM_RESULT, {})).first);
  EXPECT_EQ(-1, read(NtlmResult{}, Message(MSG_NTLM_RESULT, {{ATTR_NTLM_STATUS, TYPE_BYTES, U32(1)}})).second.status);

  // Event: attributes before the first record are skipped; an address
  // counts only with its type and size.
  auto [eventOk, event] = read(EventMessage{}, Message(MSG_EVENT, {{ATTR_USER, TYPE_STRING, Text("LOST")},
                                                                   {MSG_SESSION_INFO, TYPE_GROUP, {}},
                                                                   {ATTR_USER, TYPE_STRING, Text("BOB")},
                                                                   {ATTR_IPV4, TYPE_BYTES, U32(1)},
                                                                   {ATTR_IPV6, TYPE_BYTES, U32(1)}}));
  ASSERT_TRUE(eventOk && event.records.size() == 1u);
  EXPECT_EQ("BOB", event.records[0].user);
  EXPECT_TRUE(event.records[0].ipv4.empty() && event.records[0].ipv6.empty());
  EXPECT_EQ(0u, event.records[0].fixedValue);  // as received
}

// The agent's answer: the server's id and flags back, the version text, the
// GUID when there is one, and the digest when flag bit 0 asks for it (16 zero
// bytes otherwise): MD5 of the challenge XOR the key, cut or padded to 16
// bytes. The digests are known vectors.
TEST(AnswerHello, EchoesIdAndFlagsAndProvesTheKey) {
  struct Row {
    std::array<uint8_t, 16> challenge;
    uint32_t flags;
    const char* key;
    std::string guid;
    const char* digest;
  };
  const Row rows[] = {
      {{}, 1, "", "", "4ae71336e44bf9bf79d2752e234818a5"},  // MD5 of 16 zero bytes
      {Counting(), 1, "0123456789abcdef", "{0C1A5E00-1234-4321-ABCD-00AA00BB00CC}",
       "5f39f63d02ffcd9f51773f3efce1a9ab"},
      {Counting(), 1, "0123456789abcdefWXYZ", "", "5f39f63d02ffcd9f51773f3efce1a9ab"},
      {{0xf0, 0xe1, 0xd2, 0xc3, 0xb4, 0xa5, 0x96, 0x87, 0x78, 0x69, 0x5a, 0x4b, 0x3c, 0x2d, 0x1e, 0x0f},
       1, "secret", "", "9fbcbbdc70ae384990510492bee2f6b8"},
      {Counting(), 0xFFFFFFFE, "secret", "", "00000000000000000000000000000000"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.key);
    const Hello answer = AnswerHello(Hello{77, row.flags, "Brannock 9", row.challenge}, row.key, row.guid);
    EXPECT_EQ(std::make_tuple(77u, row.flags, std::string_view(kAgentVersionText), std::string_view(row.guid), 0u,
                              std::string(row.digest)),
              std::make_tuple(answer.id, answer.flags, answer.version, answer.clientGuid, answer.digestLength,
                              testing::Hex(answer.digest.data(), 16)));
  }
  // The key block pads with zero bytes whatever its buffer held before.
  uint8_t block[16];
  std::memset(block, 0xAA, sizeof block);
  PresharedKeyBlock("secret", block);
  EXPECT_EQ("736563726574" + std::string(20, '0'), testing::Hex(block, 16));
}

}  // namespace
}  // namespace lindqvar
