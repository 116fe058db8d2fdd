// The messages of the dialogue: the bytes each type writes, pinned, and
// what its reader takes from what a server (or an agent) sends; the digest
// and the agent's answer to a server's hello.
#include <gtest/gtest.h>

#include <cstring>
#include <list>
#include <string>
#include <vector>

#include "protocol/delivery/server_dialogue.h"
#include "protocol/messages/event.h"
#include "protocol/messages/ntlm_messages.h"
#include "tests/protocol/tls_test_support.h"

namespace lindqvar::testing {
namespace {

TEST(ComputeResponse, KnownVectors) {
  struct Row {
    uint8_t challenge[16];
    const char* key;  // cut or padded to 16 bytes
    const char* digest;
  };
  Row rows[] = {
      {{}, "", "4ae71336e44bf9bf79d2752e234818a5"},  // MD5 of 16 zero bytes
      {{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}, "0123456789abcdef",
       "5f39f63d02ffcd9f51773f3efce1a9ab"},
      {{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}, "0123456789abcdefWXYZ",
       "5f39f63d02ffcd9f51773f3efce1a9ab"},
      {{0xf0, 0xe1, 0xd2, 0xc3, 0xb4, 0xa5, 0x96, 0x87, 0x78, 0x69, 0x5a, 0x4b, 0x3c, 0x2d, 0x1e,
        0x0f},
       "secret", "9fbcbbdc70ae384990510492bee2f6b8"},
  };
  for (Row& row : rows) {
    uint8_t key[16], digest[16];
    std::memset(key, 0xAA, sizeof key);  // whatever was there before is overwritten
    PresharedKeyBlock(row.key, key);
    compute_response(row.challenge, key, digest);
    EXPECT_EQ(row.digest, Hex(digest, 16)) << row.key;
  }
}

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
// digest when flag bit 0 asks for it (16 zero bytes otherwise), the GUID
// when there is one.
TEST(AnswerHello, EchoesIdAndFlagsAndProvesTheKey) {
  struct Row {
    const char* name;
    uint32_t flags;
    std::string key;
    std::string guid;
  };
  const Row rows[] = {
      {"with a GUID", 1, "s3cret-key", "{0C1A5E00-1234-4321-ABCD-00AA00BB00CC}"},
      {"without a GUID", 1, "s3cret-key", ""},
      {"flag bit 0 clear: sixteen zero bytes", 0xFFFFFFFE, "s3cret-key", ""},
      {"longer key counts with its first 16 bytes", 1, "0123456789abcdefWXYZ", ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const Hello hello{77, row.flags, "Brannock 9", Counting()};
    const Hello answer = AnswerHello(hello, row.key, row.guid);
    std::array<uint8_t, 16> digest{};
    if (row.flags & 1) {
      std::array<uint8_t, 16> challenge = Counting();
      uint8_t key[16];
      PresharedKeyBlock(row.key.substr(0, 16), key);
      compute_response(challenge.data(), key, digest.data());
    }
    EXPECT_EQ(Hello({77, row.flags, kAgentVersionText, digest, 0, row.guid}), answer);
  }
}

}  // namespace
}  // namespace lindqvar::testing
