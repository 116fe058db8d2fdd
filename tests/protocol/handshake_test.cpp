// The digest, and the readers of the server's hello, hello acknowledgement
// and event acknowledgement, on messages built in memory.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "protocol/delivery.h"
#include "tests/protocol/tls_test_support.h"

namespace lindqvar::testing {
namespace {

TEST(ComputeResponse, KnownVectors) {
  struct Vector {
    uint8_t challenge[16];
    uint8_t key[16];
    const char* digest;
  };
  Vector zero = {{}, {}, "4ae71336e44bf9bf79d2752e234818a5"};  // MD5 of 16 zero bytes
  Vector counting = {{}, {}, "5f39f63d02ffcd9f51773f3efce1a9ab"};
  for (int i = 0; i < 16; ++i) counting.challenge[i] = static_cast<uint8_t>(i);
  std::memcpy(counting.key, "0123456789abcdef", 16);
  Vector shortKey = {{0xf0, 0xe1, 0xd2, 0xc3, 0xb4, 0xa5, 0x96, 0x87, 0x78, 0x69, 0x5a, 0x4b, 0x3c,
                      0x2d, 0x1e, 0x0f},
                     {},
                     "9fbcbbdc70ae384990510492bee2f6b8"};
  preshared_key_block("secret", shortKey.key);
  for (Vector* v : {&zero, &counting, &shortKey}) {
    uint8_t digest[16];
    compute_response(v->challenge, v->key, digest);
    EXPECT_EQ(v->digest, Hex(digest, 16));
  }
}

TEST(PresharedKeyBlock, PadsShortKeysAndCutsLongOnesAt16Bytes) {
  uint8_t key[16];
  preshared_key_block("abc", key);
  EXPECT_EQ("61626300000000000000000000000000", Hex(key, 16));
  preshared_key_block("0123456789abcdef", key);
  EXPECT_EQ(0, std::memcmp(key, "0123456789abcdef", 16));
  preshared_key_block("0123456789abcdefWXYZ", key);
  EXPECT_EQ(0, std::memcmp(key, "0123456789abcdef", 16));
  preshared_key_block("", key);
  EXPECT_EQ(std::string(32, '0'), Hex(key, 16));
}

// A message copied out of an encoder, for a decoder to walk (the walk
// rewrites lengths in place).
struct Received {
  explicit Received(const CEncoder& e) {
    uint32_t n = 0;
    const uint8_t* p = e.get_buffer(&n);
    bytes.assign(p, p + n);
    decoder.attach(bytes.data(), n);
  }
  std::vector<uint8_t> bytes;
  CDecoder decoder;
};

struct Hello {
  uint32_t id = 77;
  uint32_t flags = 1;
  std::string version = "Brannock 9";
  std::vector<uint8_t> challenge = std::vector<uint8_t>(16, 0x3C);
  bool extra = false;
};

void WriteHello(const Hello& h, CEncoder& e) {
  e.begin_message(MSG_HELLO);
  if (h.extra) e.add_string(99, std::string("ignored"), 0);
  e.add_u32(ATTR_ID, h.id);
  e.add_u32(ATTR_HELLO_FLAGS, h.flags);
  e.add_string(ATTR_VERSION_TEXT, h.version, 0);
  e.add_bytes(ATTR_DIGEST, h.challenge.data(), static_cast<uint32_t>(h.challenge.size()));
  e.end_group(MSG_HELLO);
}

// The agent's reply, read back.
struct Reply {
  uint32_t id = 0, flags = 0;
  std::string version, guid;
  std::vector<uint8_t> digest;
  bool hasGuid = false;
};

Reply ReadReply(const CEncoder& reply) {
  Received r(reply);
  Reply out;
  EXPECT_NE(nullptr, r.decoder.next());
  EXPECT_EQ(MSG_HELLO, r.decoder.code());
  while (r.decoder.next()) {
    const CDecoder& d = r.decoder;
    switch (d.code()) {
      case ATTR_ID: out.id = d.value_u32(); break;
      case ATTR_HELLO_FLAGS: out.flags = d.value_u32(); break;
      case ATTR_VERSION_TEXT:
        out.version.assign(reinterpret_cast<const char*>(d.value_data()), d.value_size());
        break;
      case ATTR_DIGEST: out.digest.assign(d.value_data(), d.value_data() + d.value_size()); break;
      case ATTR_CLIENT_GUID:
        out.hasGuid = true;
        out.guid.assign(reinterpret_cast<const char*>(d.value_data()), d.value_size());
        break;
    }
  }
  return out;
}

std::vector<uint8_t> ExpectedDigest(std::vector<uint8_t> challenge, const std::string& key) {
  challenge.resize(16, 0);
  uint8_t block[16], digest[16];
  preshared_key_block(key, block);
  compute_response(challenge.data(), block, digest);
  return std::vector<uint8_t>(digest, digest + 16);
}

class HandshakeTest : public ::testing::Test {
 protected:
  CDeliveryHarness agent{"s3cret-key"};

  uint32_t ProcessHello(const Hello& h, CEncoder& reply) {
    CEncoder e;
    WriteHello(h, e);
    Received r(e);
    return agent.client->process_hello(r.decoder, reply);
  }
};

TEST_F(HandshakeTest, HelloReplyEchoesIdAndFlagsAndProvesTheKey) {
  agent.support.guid = u"{0C1A5E00-1234-4321-ABCD-00AA00BB00CC}";
  Hello h;
  h.extra = true;  // an unknown attribute first: ignored
  CEncoder reply(kReplyEncoderCapacity);
  ASSERT_EQ(1u, ProcessHello(h, reply));
  const Reply r = ReadReply(reply);
  EXPECT_EQ(77u, r.id);
  EXPECT_EQ(1u, r.flags);
  EXPECT_EQ("Velmora Extension 1.1", r.version);
  EXPECT_EQ(ExpectedDigest(h.challenge, "s3cret-key"), r.digest);
  EXPECT_TRUE(r.hasGuid);
  EXPECT_EQ("{0C1A5E00-1234-4321-ABCD-00AA00BB00CC}", r.guid);
  // Fits the 256-byte reply encoder without growth.
  EXPECT_EQ(kReplyEncoderCapacity, reply.capacity());
}

TEST_F(HandshakeTest, WithoutAGuidTheReplyHasNoGuidAttribute) {
  CEncoder reply(kReplyEncoderCapacity);
  ASSERT_EQ(1u, ProcessHello(Hello{}, reply));
  EXPECT_FALSE(ReadReply(reply).hasGuid);
}

TEST_F(HandshakeTest, FlagBitZeroClearGivesSixteenZeroBytes) {
  Hello h;
  h.flags = 0xFFFFFFFE;
  CEncoder reply(kReplyEncoderCapacity);
  ASSERT_EQ(1u, ProcessHello(h, reply));
  const Reply r = ReadReply(reply);
  EXPECT_EQ(0xFFFFFFFEu, r.flags);
  EXPECT_EQ(std::vector<uint8_t>(16, 0), r.digest);
}

TEST_F(HandshakeTest, AShortChallengeIsPaddedWithZeroBytes) {
  Hello h;
  h.challenge = {1, 2, 3, 4, 5, 6, 7, 8};
  CEncoder reply(kReplyEncoderCapacity);
  ASSERT_EQ(1u, ProcessHello(h, reply));
  EXPECT_EQ(ExpectedDigest(h.challenge, "s3cret-key"), ReadReply(reply).digest);
}

TEST_F(HandshakeTest, ALongerKeyCountsWithItsFirstSixteenBytes) {
  agent.presharedKey = "0123456789abcdefWXYZ";
  CEncoder reply(kReplyEncoderCapacity);
  ASSERT_EQ(1u, ProcessHello(Hello{}, reply));
  EXPECT_EQ(ExpectedDigest(Hello{}.challenge, "0123456789abcdef"), ReadReply(reply).digest);
}

TEST_F(HandshakeTest, AMessageThatIsNotAHelloIsRefused) {
  CEncoder e;
  e.begin_message(MSG_HELLO_ACK);
  e.add_u32(ATTR_HELLO_RESULT, 1);
  e.end_group(MSG_HELLO_ACK);
  Received r(e);
  CEncoder reply(kReplyEncoderCapacity);
  EXPECT_EQ(0u, agent.client->process_hello(r.decoder, reply));
  EXPECT_EQ(0u, reply.length());
  CDecoder empty;
  EXPECT_EQ(0u, agent.client->process_hello(empty, reply));
}

TEST_F(HandshakeTest, AVersionTextOf31BytesFitsAndALongerOneRefusesTheHello) {
  // A text that does not fit is a malformed hello: refused, nothing to send.
  for (size_t size : {31u, 32u, 4096u}) {
    Hello h;
    h.version = std::string(size, 'v');
    CEncoder reply(kReplyEncoderCapacity);
    EXPECT_EQ(size < 32 ? 1u : 0u, ProcessHello(h, reply)) << size;
    EXPECT_EQ(size < 32, reply.length() > 0) << size;
  }
}

TEST_F(HandshakeTest, AHelloWhoseDigestLengthRunsPastTheEndIsReadWithoutIt) {
  CEncoder e;
  WriteHello(Hello{}, e);
  Received r(e);
  // The digest is the last attribute: claim far more bytes than there are.
  uint8_t* digest = r.bytes.data() + r.bytes.size() - 22;
  digest[0] = 0x7F;
  CEncoder reply(kReplyEncoderCapacity);
  ASSERT_EQ(1u, agent.client->process_hello(r.decoder, reply));
  EXPECT_EQ(ExpectedDigest(std::vector<uint8_t>(16, 0), "s3cret-key"), ReadReply(reply).digest);
}

uint32_t HelloAck(CAuthenticatorClient& client, std::initializer_list<uint32_t> results,
                  uint8_t code = MSG_HELLO_ACK) {
  CEncoder e;
  e.begin_message(code);
  for (uint32_t r : results) e.add_u32(ATTR_HELLO_RESULT, r);
  e.end_group(code);
  Received r(e);
  return client.process_hello_ack(r.decoder);
}

TEST_F(HandshakeTest, HelloAckAcceptsOnlyALastResultOfOne) {
  EXPECT_EQ(1u, HelloAck(*agent.client, {1}));
  EXPECT_EQ(1u, HelloAck(*agent.client, {0, 1}));
  EXPECT_EQ(0u, HelloAck(*agent.client, {1, 0}));
  EXPECT_EQ(0u, HelloAck(*agent.client, {2}));
  EXPECT_EQ(0u, HelloAck(*agent.client, {}));
  EXPECT_EQ(0u, HelloAck(*agent.client, {1}, MSG_EVENT_ACK));
}

uint32_t EventAck(CAuthenticatorClient& client, uint32_t result, int64_t keepAlive,
                  uint8_t code = MSG_EVENT_ACK) {
  CEncoder e;
  e.begin_message(code);
  e.add_u32(ATTR_EVENT_RESULT, result);
  if (keepAlive >= 0) e.add_u32(ATTR_KEEPALIVE_INTERVAL, static_cast<uint32_t>(keepAlive));
  e.end_group(code);
  Received r(e);
  return client.process_event_ack(r.decoder);
}

TEST_F(HandshakeTest, EventAckGivesTheResultAndTakesANonZeroKeepAliveInterval) {
  EXPECT_EQ(1u, EventAck(*agent.client, 1, -1));
  EXPECT_EQ(180u, agent.keepAlive.load());
  EXPECT_EQ(2u, EventAck(*agent.client, 2, 60));
  EXPECT_EQ(60u, agent.keepAlive.load());
  EXPECT_EQ(0u, EventAck(*agent.client, 0, 0));
  EXPECT_EQ(60u, agent.keepAlive.load());
  // Another message in its place: 0, and nothing taken from it.
  EXPECT_EQ(0u, EventAck(*agent.client, 1, 30, MSG_HELLO_ACK));
  EXPECT_EQ(60u, agent.keepAlive.load());
}

}  // namespace
}  // namespace lindqvar::testing
