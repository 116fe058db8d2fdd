#include "tools/lab_authenticator/lab_server.h"

#include <openssl/err.h>
#include <openssl/rand.h>
#include <openssl/x509.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <ctime>

#include "protocol/messages/event.h"
#include "protocol/messages/hello.h"
#include "protocol/messages/ntlm_messages.h"
#include "protocol/wire/base64.h"

namespace lindqvar::lab {

namespace {

// The version text of the lab's hello, and one of exactly 32 bytes for the
// fault that the agent cannot take.
constexpr char kLabVersion[] = "Lindqvar Lab Authenticator";
constexpr char kLongVersion[] = "Lindqvar Lab Authenticator v32.0";
static_assert(sizeof kLongVersion - 1 == 32);

std::string OpenSslError() {
  const unsigned long e = ERR_get_error();
  if (!e) return "unknown TLS error";
  char text[256];
  ERR_error_string_n(e, text, sizeof text);
  ERR_clear_error();
  return text;
}

uint32_t ReadMessage(SSL* ssl, CDecoder& decoder, uint32_t maxLength) {
  return ReceiveMessage(
      decoder, [ssl](void* buffer, int count) { return SSL_read(ssl, buffer, count); }, maxLength);
}

// The raw NTLM message of a token's base64 text; false when there is none.
bool DecodeToken(std::string_view text, std::string& raw) {
  int32_t length = 0;
  auto bytes = Base64Decode(text.data(), static_cast<uint32_t>(text.size()), &length);
  if (!bytes || length <= 0) return false;
  raw.assign(reinterpret_cast<const char*>(bytes.get()), static_cast<size_t>(length));
  return true;
}

// Every fault with its name on the command line.
constexpr std::pair<Fault, const char*> kFaultNames[] = {
    {Fault::kNone, "none"},
    {Fault::kRejectHello, "reject-hello"},
    {Fault::kCloseAfterHelloAck, "close-after-hello-ack"},
    {Fault::kStall, "stall"},
    {Fault::kStallTls, "stall-tls"},
    {Fault::kOversizedFrame, "oversized-frame"},
    {Fault::kMalformedFrame, "malformed-frame"},
    {Fault::kShortFrame, "short-frame"},
    {Fault::kLongVersion, "long-version"},
    {Fault::kDribble, "dribble"},
    {Fault::kDribbleTls, "dribble-tls"},
    {Fault::kNtlmNoChallenge, "ntlm-no-challenge"},
    {Fault::kNtlmWrongReply, "ntlm-wrong-reply"},
    {Fault::kNtlmBadChallenge, "ntlm-bad-challenge"},
    {Fault::kNtlmNoResult, "ntlm-no-result"},
    {Fault::kRefuseLogoff, "refuse-logoff"},
};

}  // namespace

const char* FaultName(Fault fault) {
  for (const auto& [f, name] : kFaultNames)
    if (f == fault) return name;
  return "none";
}

bool ParseFault(const std::string& text, Fault& out) {
  for (const auto& [f, name] : kFaultNames) {
    if (text == name) {
      out = f;
      return true;
    }
  }
  return false;
}

const char* DigestCheckName(DigestCheck check) {
  static const char* const kNames[] = {"not-checked", "correct", "wrong", "zero", "not-required"};
  return kNames[static_cast<size_t>(check)];
}

CLabAuthenticator::CLabAuthenticator(LabOptions options, ILabSink* sink)
    : m_options(std::move(options)), m_sink(sink), m_keepAlive(m_options.keepAliveInterval) {}

CLabAuthenticator::~CLabAuthenticator() {
  Stop();
  if (m_ctx) SSL_CTX_free(m_ctx);
}

bool CLabAuthenticator::Start(std::string& error) {
  if (m_options.listen.empty()) {
    error = "no address to listen on";
    return false;
  }
  m_ctx = SSL_CTX_new(TLS_server_method());
  if (!m_ctx) {
    error = "cannot create a TLS context: " + OpenSslError();
    return false;
  }
  if (SSL_CTX_use_certificate_chain_file(m_ctx, m_options.certFile.c_str()) != 1) {
    error = "cannot load the server certificate " + m_options.certFile + ": " + OpenSslError();
    return false;
  }
  if (SSL_CTX_use_PrivateKey_file(m_ctx, m_options.keyFile.c_str(), SSL_FILETYPE_PEM) != 1 ||
      SSL_CTX_check_private_key(m_ctx) != 1) {
    error = "cannot load the server key " + m_options.keyFile + ": " + OpenSslError();
    return false;
  }
  if (SSL_CTX_load_verify_locations(m_ctx, m_options.caFile.c_str(), nullptr) != 1) {
    error = "cannot load the client CA " + m_options.caFile + ": " + OpenSslError();
    return false;
  }
  if (STACK_OF(X509_NAME)* names = SSL_load_client_CA_file(m_options.caFile.c_str()))
    SSL_CTX_set_client_CA_list(m_ctx, names);
  // No session tickets: agents never resume, and a ticket written ahead of
  // the hello would hold the hello back behind Nagle's algorithm.
  SSL_CTX_set_num_tickets(m_ctx, 0);
  // Every agent must present a certificate from the configured CA.
  SSL_CTX_set_verify(m_ctx, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);

  for (const SocketAddress& at : m_options.listen) {
    CSocket s = CSocket::Open(at.family);
    if (!s.Valid()) {
      error = "cannot create a socket for " + at.Text();
      return false;
    }
    s.SetReuseAddress();
    if (!s.Bind(at) || !s.Listen(64)) {
      error =
          "cannot listen on " + at.Text() + " (error " + std::to_string(LastSocketError()) + ")";
      return false;
    }
    SocketAddress bound;
    s.LocalAddress(bound);
    m_bound.push_back(bound);
    m_listeners.push_back(std::move(s));
  }
  for (size_t i = 0; i < m_listeners.size(); ++i) {
    if (m_sink) {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_sink->OnListening(m_bound[i]);
    }
    m_acceptThreads.emplace_back([this, i] { AcceptLoop(i); });
  }
  return true;
}

void CLabAuthenticator::Stop() {
  if (m_stopping.exchange(true)) return;
  for (auto& t : m_acceptThreads) t.join();
  m_acceptThreads.clear();
  {
    // Wake connections blocked in a read.
    std::lock_guard<std::mutex> lock(m_mutex);
    for (NativeSocket s : m_open) {
      CSocket borrowed(s);
      borrowed.ShutdownBoth();
      borrowed.release();
    }
  }
  std::list<Worker> workers;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    workers.swap(m_workers);
  }
  for (auto& w : workers) w.thread.join();
  m_listeners.clear();
}

std::vector<SocketAddress> CLabAuthenticator::Listening() const { return m_bound; }

uint64_t CLabAuthenticator::Finished() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_finished;
}

bool CLabAuthenticator::WaitFinished(uint64_t count, uint32_t timeoutMs) {
  std::unique_lock<std::mutex> lock(m_mutex);
  return m_finishedChanged.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                    [&] { return m_finished >= count; });
}

std::vector<ConnectionReport> CLabAuthenticator::Reports() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_reports;
}

CLogonTable CLabAuthenticator::Table() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_table;
}

void CLabAuthenticator::ReapWorkers() {
  // Called with m_mutex held.
  for (auto it = m_workers.begin(); it != m_workers.end();) {
    if (it->done->load()) {
      it->thread.join();
      it = m_workers.erase(it);
    } else {
      ++it;
    }
  }
}

void CLabAuthenticator::AcceptLoop(size_t listener) {
  const std::string where = m_bound[listener].Text();
  while (!m_stopping.load()) {
    SocketAddress peer;
    CSocket s = m_listeners[listener].Accept(100, &peer);
    if (!s.Valid()) continue;
    std::lock_guard<std::mutex> lock(m_mutex);
    ReapWorkers();
    const uint64_t number = ++m_accepted;
    m_open.push_back(s.Native());
    auto done = std::make_shared<std::atomic<bool>>(false);
    Worker w;
    w.done = done;
    w.thread = std::thread([this, sock = std::move(s), peer, where, number, done]() mutable {
      Serve(std::move(sock), peer, where, number);
      done->store(true);
    });
    m_workers.push_back(std::move(w));
  }
}

void CLabAuthenticator::Serve(CSocket socket, SocketAddress peer, std::string listener,
                              uint64_t number) {
  ConnectionReport report;
  report.number = number;
  report.peer = peer.Text();
  report.listener = listener;
  // refuse-logoff counts the logoffs it refuses, not the connections.
  const bool faulty = m_options.faultConnections == 0 || number <= m_options.faultConnections ||
                      m_options.fault == Fault::kRefuseLogoff;
  const Fault fault = faulty ? m_options.fault : Fault::kNone;
  report.fault = fault == Fault::kRefuseLogoff ? Fault::kNone : fault;
  socket.SetTimeouts(m_options.ioTimeoutMs);

  if (fault == Fault::kStallTls) {
    Linger(socket, m_options.stallMs);
    report.end = "stalled before TLS";
  } else if (SSL* ssl = SSL_new(m_ctx)) {
    SSL_set_fd(ssl, static_cast<int>(socket.Native()));
    const bool accepted =
        fault == Fault::kDribbleTls ? DribbledAccept(ssl, socket) : SSL_accept(ssl) == 1;
    if (accepted) {
      report.tlsUp = true;
      report.tlsVersion = SSL_get_version(ssl);
      if (const char* sni = SSL_get_servername(ssl, TLSEXT_NAMETYPE_host_name))
        report.serverName = sni;
      if (X509* client = SSL_get1_peer_certificate(ssl)) {
        char subject[256] = {};
        X509_NAME_oneline(X509_get_subject_name(client), subject, sizeof subject);
        report.clientSubject = subject;
        X509_free(client);
      }
      if (fault == Fault::kStall) {
        Linger(socket, m_options.stallMs);
        report.end = "stalled after TLS";
      } else {
        report.end = Dialogue(ssl, report, fault);
      }
      SSL_shutdown(ssl);
    } else {
      report.tlsError = OpenSslError();
      report.end = "TLS handshake failed";
    }
    SSL_free(ssl);
  } else {
    report.end = "cannot create a TLS session";
  }

  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_open.erase(std::remove(m_open.begin(), m_open.end(), socket.Native()), m_open.end());
  }
  socket.ShutdownBoth();
  socket.Close();
  Finish(report);
}

void CLabAuthenticator::Linger(CSocket& socket, uint32_t limitMs) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
  char sink[256];
  while (!m_stopping.load() && std::chrono::steady_clock::now() < until) {
    if (socket.WaitReadable(100) && socket.Receive(sink, sizeof sink) <= 0) return;
  }
}

bool CLabAuthenticator::DribblePause() {
  const auto until =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(m_options.dribbleMs);
  while (std::chrono::steady_clock::now() < until) {
    if (m_stopping.load()) return false;
    std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(
        std::chrono::milliseconds(10), until - std::chrono::steady_clock::now()));
  }
  return !m_stopping.load();
}

bool CLabAuthenticator::WriteMessage(SSL* ssl, const CEncoder& message, Fault fault) {
  uint32_t length = 0;
  const uint8_t* data = message.get_buffer(&length);
  if (fault != Fault::kDribble) return SSL_write(ssl, data, static_cast<int>(length)) > 0;
  // One byte per TLS record: the agent's reads return one byte at a time.
  for (uint32_t i = 0; i < length; ++i) {
    if (!DribblePause() || SSL_write(ssl, data + i, 1) != 1) return false;
  }
  return true;
}

bool CLabAuthenticator::DribbledAccept(SSL* ssl, CSocket& socket) {
  // The handshake runs on memory buffers: what the client sends is fed in as
  // it arrives, what the server writes goes out one byte per interval.
  BIO* in = BIO_new(BIO_s_mem());
  BIO* out = BIO_new(BIO_s_mem());
  if (!in || !out) {
    BIO_free(in);
    BIO_free(out);
    return false;
  }
  SSL_set_bio(ssl, in, out);  // the SSL owns both now
  for (;;) {
    const int r = SSL_accept(ssl);
    char byte;
    while (BIO_read(out, &byte, 1) == 1) {
      if (!DribblePause() || socket.Send(&byte, 1) != 1) return false;
    }
    if (r == 1) break;
    if (SSL_get_error(ssl, r) != SSL_ERROR_WANT_READ) return false;
    char buffer[4096];
    if (!socket.WaitReadable(m_options.ioTimeoutMs)) return false;
    const int n = socket.Receive(buffer, sizeof buffer);
    if (n <= 0 || BIO_write(in, buffer, n) != n) return false;
  }
  // The client speaks next only after the hello, so nothing is left over.
  if (BIO_pending(in) != 0) return false;
  BIO* wire = BIO_new_socket(static_cast<int>(socket.Native()), BIO_NOCLOSE);
  if (!wire) return false;
  SSL_set_bio(ssl, wire, wire);
  return true;
}

std::string CLabAuthenticator::Dialogue(SSL* ssl, ConnectionReport& report, Fault fault) {
  // The hello.
  Hello hello;
  RAND_bytes(hello.digest.data(), static_cast<int>(hello.digest.size()));
  if (m_options.helloId >= 0)
    hello.id = static_cast<uint32_t>(m_options.helloId);
  else
    RAND_bytes(reinterpret_cast<uint8_t*>(&hello.id), sizeof hello.id);
  hello.flags = m_options.helloFlags;
  hello.version = fault == Fault::kLongVersion ? kLongVersion : kLabVersion;
  report.helloId = hello.id;
  report.helloFlags = hello.flags;

  if (fault == Fault::kOversizedFrame || fault == Fault::kShortFrame) {
    // A length word and a few bytes, then the connection ends.
    const uint32_t announced = fault == Fault::kOversizedFrame ? m_options.oversizedLength : 5;
    const uint8_t frame[6] = {static_cast<uint8_t>(announced >> 24),
                              static_cast<uint8_t>(announced >> 16),
                              static_cast<uint8_t>(announced >> 8),
                              static_cast<uint8_t>(announced),
                              MSG_HELLO,
                              TYPE_GROUP};
    SSL_write(ssl, frame, sizeof frame);
    return fault == Fault::kOversizedFrame ? "sent an oversized frame" : "sent a short frame";
  }

  CEncoder out(kReplyEncoderCapacity);
  hello.Write(out);
  if (fault == Fault::kMalformedFrame) {
    // The digest is the last attribute: make its length run past the end.
    uint32_t length = 0;
    uint8_t* bytes = const_cast<uint8_t*>(out.get_buffer(&length));
    uint8_t* digest = bytes + length - (6 + hello.digest.size());
    digest[0] = 0x7F;
    digest[1] = digest[2] = digest[3] = 0xFF;
  }
  if (!WriteMessage(ssl, out, fault)) return "the hello could not be sent";
  report.helloSent = true;

  // The agent's hello.
  CDecoder in;
  if (!ReadMessage(ssl, in, m_options.maxMessage)) return "no hello reply";
  Hello reply;
  if (!reply.Read(in)) return "the reply was not a hello";
  report.helloReplyReceived = true;
  report.clientVersion = reply.version;
  report.clientGuid = reply.clientGuid;
  const bool digestSeen = reply.digestLength == reply.digest.size();
  bool accepted;
  if (hello.flags & kHelloDigestRequired) {
    uint8_t key[16], expected[16];
    PresharedKeyBlock(m_options.presharedKey, key);
    compute_response(hello.digest.data(), key, expected);
    accepted = digestSeen && std::memcmp(expected, reply.digest.data(), 16) == 0;
    report.digest = accepted ? DigestCheck::kCorrect : DigestCheck::kWrong;
  } else {
    static const std::array<uint8_t, 16> kZero{};
    accepted = true;
    report.digest =
        digestSeen && reply.digest == kZero ? DigestCheck::kZero : DigestCheck::kNotRequired;
  }
  HelloAck ack{accepted ? 1u : 0u};
  if (m_options.helloResult >= 0) ack.result = static_cast<uint32_t>(m_options.helloResult);
  if (fault == Fault::kRejectHello) ack.result = 0;
  out.reset();
  ack.Write(out);
  if (!WriteMessage(ssl, out, fault)) return "the hello acknowledgement could not be sent";
  report.helloAckSent = true;
  report.helloResult = ack.result;
  if (ack.result != 1) return "hello rejected";
  if (fault == Fault::kCloseAfterHelloAck) return "closed after the hello acknowledgement";

  // The event.
  if (!ReadMessage(ssl, in, m_options.maxMessage)) return "no event";
  report.eventReceived = true;
  report.eventCode = in.message_code();
  EventMessage event;
  if (event.Read(in)) report.records = std::move(event.records);
  if (fault == Fault::kRefuseLogoff && !report.records.empty() &&
      std::none_of(report.records.begin(), report.records.end(),
                   [](const SessionRecord& r) { return r.logon != 0; }) &&
      (m_options.faultConnections == 0 || ++m_refusedLogoffs <= m_options.faultConnections)) {
    report.fault = fault;
    return "refused a logoff";
  }
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    const std::time_t now = std::time(nullptr);
    for (const auto& r : report.records) m_table.Apply(r, report.peer, now);
    if (m_sink && !report.records.empty()) m_sink->OnTable(m_table);
  }

  const EventAck eventAck{m_options.eventResult, m_keepAlive.load()};
  out.reset();
  eventAck.Write(out);
  if (!WriteMessage(ssl, out, fault)) return "the event acknowledgement could not be sent";
  report.eventAckSent = true;
  report.eventResult = eventAck.result;
  report.keepAliveInterval = eventAck.keepAliveInterval;
  if (eventAck.result == kEventResultNtlmRequired) {
    report.ntlmStarted = true;
    report.ntlmEnd = NtlmDialogue(ssl, report, fault);
  }
  return "complete";
}

std::string CLabAuthenticator::NtlmDialogue(SSL* ssl, ConnectionReport& report, Fault fault) {
  CDecoder in;
  std::string negotiate, authenticate, error;
  auto keepFrame = [&] {
    report.ntlmFrames.emplace_back(in.Buffer(), in.Buffer() + in.TotalLength());
  };
  if (!ReadMessage(ssl, in, m_options.maxMessage)) return "no NTLM message 1";
  keepFrame();
  NtlmToken first{MSG_NTLM_NEGOTIATE};
  const bool firstRead = first.Read(in);
  report.ntlmKey = first.id;
  if (!firstRead || !DecodeToken(first.token, negotiate)) return "NTLM message 1 unreadable";
  if (fault == Fault::kNtlmNoChallenge) return "closed after NTLM message 1";

  std::unique_ptr<INtlmAcceptance> acceptance;
  std::string challenge;
  if (fault != Fault::kNtlmWrongReply && fault != Fault::kNtlmBadChallenge) {
    if (!m_options.ntlm) return "no NTLM acceptor configured";
    acceptance = m_options.ntlm->Begin(error);
    if (!acceptance || !acceptance->Challenge(negotiate, challenge, error))
      return "NTLM message 1 refused: " + error;
  }

  CEncoder out(kReplyEncoderCapacity);
  if (fault == Fault::kNtlmWrongReply) {
    NtlmResult{0}.Write(out);
  } else {
    const std::string text =
        fault == Fault::kNtlmBadChallenge
            ? "%%%%"
            : Base64Text(challenge.data(), static_cast<uint32_t>(challenge.size()));
    NtlmToken{MSG_NTLM_CHALLENGE, report.ntlmKey, text}.Write(out);
  }
  if (!WriteMessage(ssl, out, fault)) return "NTLM message 2 could not be sent";
  if (!ReadMessage(ssl, in, m_options.maxMessage)) return "no NTLM message 3";
  keepFrame();
  NtlmToken last{MSG_NTLM_AUTHENTICATE};
  if (!last.Read(in) || !DecodeToken(last.token, authenticate) || !acceptance)
    return "NTLM message 3 unreadable";
  report.ntlmProven = acceptance->Verify(authenticate, report.ntlmUser, report.ntlmDomain, error);
  if (fault == Fault::kNtlmNoResult) return "closed after NTLM message 3";
  report.ntlmResult = report.ntlmProven ? 1 : 0;
  out.reset();
  NtlmResult{static_cast<int32_t>(report.ntlmResult)}.Write(out);
  report.ntlmResultSent = WriteMessage(ssl, out, fault);
  return report.ntlmProven ? "proven" : "not proven" + (error.empty() ? "" : ": " + error);
}

void CLabAuthenticator::Finish(const ConnectionReport& report) {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_options.keepReports) m_reports.push_back(report);
  ++m_finished;
  if (m_sink) m_sink->OnConnection(report);
  m_finishedChanged.notify_all();
}

}  // namespace lindqvar::lab
