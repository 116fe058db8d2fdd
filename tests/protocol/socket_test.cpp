// The portable socket wrapper. The same file runs natively and, built for
// Windows, under Wine (tests/win32/protocol/).
#include <gtest/gtest.h>

#include <cstring>

#include "platform/socket.h"

namespace lindqvar {
namespace {

class SocketTest : public ::testing::TestWithParam<const char*> {
 protected:
  CSocketLibraryScope m_library;
};

// A listener on the loopback address of the parameter's family.
CSocket Listen(const char* address, SocketAddress& bound) {
  SocketAddress at;
  EXPECT_TRUE(SocketAddress::FromLiteral(address, 0, at));
  CSocket s = CSocket::Open(at.family);
  EXPECT_TRUE(s.Valid());
  EXPECT_TRUE(s.Bind(at));
  EXPECT_TRUE(s.Listen(4));
  EXPECT_TRUE(s.LocalAddress(bound));
  EXPECT_NE(0, bound.port);
  return s;
}

ConnectWait WaitRounds(CSocket& s, int rounds) {
  ConnectWait w = ConnectWait::kPending;
  for (int i = 0; i < rounds && w == ConnectWait::kPending; ++i) w = s.WaitConnected(100000);
  return w;
}

TEST_P(SocketTest, NonBlockingConnectAcceptAndStreamBothWays) {
  SocketAddress bound;
  CSocket listener = Listen(GetParam(), bound);
  CSocket client = CSocket::Open(bound.family);
  ASSERT_TRUE(client.SetNonBlocking(true));
  ASSERT_TRUE(client.SetTimeouts(2000));
  client.Connect(bound);
  ASSERT_EQ(ConnectWait::kConnected, WaitRounds(client, 20));
  ASSERT_TRUE(client.SetNonBlocking(false));

  SocketAddress peer;
  CSocket server = listener.Accept(2000, &peer);
  ASSERT_TRUE(server.Valid());
  EXPECT_EQ(bound.family, peer.family);
  EXPECT_EQ(bound.AddressText(), peer.AddressText());

  char buffer[16] = {};
  EXPECT_FALSE(server.WaitReadable(20));  // nothing sent yet
  ASSERT_TRUE(client.WaitWritable(2000));
  EXPECT_EQ(5, client.Send("hello", 5));
  ASSERT_TRUE(server.WaitReadable(2000));
  EXPECT_EQ(5, server.Receive(buffer, sizeof buffer));
  EXPECT_STREQ("hello", buffer);
  EXPECT_EQ(2, server.Send("ok", 2));
  EXPECT_EQ(2, client.Receive(buffer, sizeof buffer));

  // A receive limit ends a read on a silent peer.
  ASSERT_TRUE(server.SetTimeouts(50));
  EXPECT_LT(server.Receive(buffer, sizeof buffer), 1);

  client.ShutdownBoth();
  client.Close();
  EXPECT_FALSE(client.Valid());
  EXPECT_EQ(0, server.Receive(buffer, sizeof buffer));
}

TEST_P(SocketTest, AConnectionToAClosedPortIsReportedAsFailed) {
  SocketAddress bound;
  {
    CSocket listener = Listen(GetParam(), bound);
  }  // closed: nothing listens on the port now
  CSocket client = CSocket::Open(bound.family);
  ASSERT_TRUE(client.SetNonBlocking(true));
  client.Connect(bound);
  const ConnectWait w = WaitRounds(client, 30);
  EXPECT_EQ(ConnectWait::kFailed, w);
}

TEST_P(SocketTest, AcceptWithoutACallerTimesOut) {
  SocketAddress bound;
  CSocket listener = Listen(GetParam(), bound);
  EXPECT_FALSE(listener.Accept(20).Valid());
}

INSTANTIATE_TEST_SUITE_P(Loopback, SocketTest, ::testing::Values("127.0.0.1", "::1"));

TEST(SocketAddressText, FormsAndLiterals) {
  SocketAddress a;
  ASSERT_TRUE(SocketAddress::FromLiteral("192.0.2.1", 8001, a));
  EXPECT_EQ(kFamilyIPv4, a.family);
  EXPECT_EQ("192.0.2.1:8001", a.Text());
  ASSERT_TRUE(SocketAddress::FromLiteral("2001:db8::1", 443, a));
  EXPECT_EQ(kFamilyIPv6, a.family);
  EXPECT_EQ("[2001:db8::1]:443", a.Text());
  EXPECT_EQ(0x20, a.bytes[0]);
  EXPECT_FALSE(SocketAddress::FromLiteral("host.example", 1, a));
  EXPECT_FALSE(SocketAddress::FromLiteral("[::1]", 1, a));
}

TEST(ResolveName, LiteralsResolveWithoutALookup) {
  CSocketLibraryScope library;
  std::vector<ResolvedAddress> out;
  ASSERT_EQ(0, ResolveName("127.0.0.1", out));
  ASSERT_FALSE(out.empty());
  EXPECT_EQ(kFamilyIPv4, out[0].family);
  EXPECT_EQ(127, out[0].bytes[0]);
  ASSERT_EQ(0, ResolveName("::1", out));
  ASSERT_FALSE(out.empty());
  EXPECT_EQ(kFamilyIPv6, out[0].family);
  EXPECT_EQ(1, out[0].bytes[15]);
}

}  // namespace
}  // namespace lindqvar
