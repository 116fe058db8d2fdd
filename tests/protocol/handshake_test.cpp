// The digest, and the readers of the server's hello, hello acknowledgement
// and event acknowledgement, on messages built in memory.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "platform/os.h"
#include "protocol/delivery.h"
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
    preshared_key_block(row.key, key);
    compute_response(row.challenge, key, digest);
    EXPECT_EQ(row.digest, Hex(digest, 16)) << row.key;
  }
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
};

TEST_F(HandshakeTest, HelloReplyEchoesIdAndFlagsAndProvesTheKey) {
  struct Row {
    const char* name;
    Hello hello{};
    std::string key = "s3cret-key";
    std::u16string guid{};
    std::vector<uint8_t> challenge{};  // the digest's input; empty: the hello's
    bool digestOverrun = false;      // the digest's length claims far more bytes than there are
  };
  auto with = [](auto change) {
    Hello h;
    change(h);
    return h;
  };
  const Row rows[] = {
      {.name = "unknown attribute first, with a GUID",
       .hello = with([](Hello& h) { h.extra = true; }),
       .guid = u"{0C1A5E00-1234-4321-ABCD-00AA00BB00CC}"},
      {.name = "without a GUID"},
      {.name = "flag bit 0 clear: sixteen zero bytes",
       .hello = with([](Hello& h) { h.flags = 0xFFFFFFFE; })},
      {.name = "short challenge padded with zero bytes",
       .hello = with([](Hello& h) { h.challenge = {1, 2, 3, 4, 5, 6, 7, 8}; })},
      {.name = "longer key counts with its first 16 bytes", .key = "0123456789abcdefWXYZ"},
      {.name = "31-byte version text", .hello = with([](Hello& h) { h.version = std::string(31, 'v'); })},
      {.name = "digest running past the end is not read",
       .challenge = std::vector<uint8_t>(16, 0),
       .digestOverrun = true},
  };

  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    agent.presharedKey = row.key;
    agent.support.guid = row.guid;
    CEncoder e;
    WriteHello(row.hello, e);
    Received hello(e);
    if (row.digestOverrun) hello.bytes[hello.bytes.size() - 22] = 0x7F;  // the last attribute
    CEncoder reply(kReplyEncoderCapacity);
    agent.Publish();
    ASSERT_EQ(1u, agent.client->process_hello(hello.decoder, reply));
    const Reply r = ReadReply(reply);
    EXPECT_EQ(row.hello.id, r.id);
    EXPECT_EQ(row.hello.flags, r.flags);
    EXPECT_EQ("Velmora Extension 1.1", r.version);
    std::vector<uint8_t> digest(16, 0);
    if (row.hello.flags & 1) {
      digest = ExpectedDigest(row.challenge.empty() ? row.hello.challenge : row.challenge,
                              row.key.substr(0, 16));
    }
    EXPECT_EQ(digest, r.digest);
    EXPECT_EQ(!row.guid.empty(), r.hasGuid);
    EXPECT_EQ(WideToUtf8(row.guid), r.guid);
    EXPECT_EQ(kReplyEncoderCapacity, reply.capacity());  // fits without growth
  }
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
  // A version text that does not fit its 32 bytes is a malformed hello:
  // refused, nothing to send, the process goes on.
  for (size_t size : {32u, 4096u}) {
    Hello h;
    h.version = std::string(size, 'v');
    CEncoder long_version;
    WriteHello(h, long_version);
    Received hello(long_version);
    EXPECT_EQ(0u, agent.client->process_hello(hello.decoder, reply)) << size;
    EXPECT_EQ(0u, reply.length()) << size;
  }
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
  EXPECT_EQ(180u, agent.client->KeepAliveInterval());
  EXPECT_EQ(2u, EventAck(*agent.client, 2, 60));
  EXPECT_EQ(60u, agent.client->KeepAliveInterval());
  EXPECT_EQ(0u, EventAck(*agent.client, 0, 0));
  EXPECT_EQ(60u, agent.client->KeepAliveInterval());
  // Another message in its place: 0, and nothing taken from it.
  EXPECT_EQ(0u, EventAck(*agent.client, 1, 30, MSG_HELLO_ACK));
  EXPECT_EQ(60u, agent.client->KeepAliveInterval());
}

}  // namespace
}  // namespace lindqvar::testing
