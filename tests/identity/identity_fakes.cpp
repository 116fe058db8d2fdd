#include "tests/identity/identity_fakes.h"

#include <algorithm>
#include <cstring>

namespace lindqvar::testing {

bool FakeAccounts::QueryUserToken(uint32_t session, std::unique_ptr<IUserToken>& token) {
  auto it = m_users.find(session);
  if (it == m_users.end()) {
    m_lastError = queryError;
    return false;
  }
  const int id = m_nextToken++;
  m_tokenSession[id] = session;
  token = std::make_unique<FakeToken>(tokensClosed, id);
  m_lastError = 0;
  return true;
}

const FakeAccounts::User* FakeAccounts::UserOf(IUserToken& token) const {
  auto t = m_tokenSession.find(static_cast<FakeToken&>(token).id());
  if (t == m_tokenSession.end()) return nullptr;
  auto u = m_users.find(t->second);
  return u == m_users.end() ? nullptr : &u->second;
}

std::unique_ptr<IUserToken> FakeAccounts::LinkedToken(IUserToken& token) {
  const User* user = UserOf(token);
  if (!user || user->linkedTokenId == 0) return nullptr;
  m_tokenSession[user->linkedTokenId] = m_tokenSession[static_cast<FakeToken&>(token).id()];
  return std::make_unique<FakeToken>(tokensClosed, user->linkedTokenId);
}

bool FakeAccounts::TokenUserSid(IUserToken& token, SidBytes& sid) {
  const User* user = UserOf(token);
  if (!user || user->tokenInformationFails) {
    m_lastError = tokenInformationError;
    return false;
  }
  sid = user->sid;
  return true;
}

bool FakeAccounts::LookupSidAccount(const SidBytes& sid, std::u16string& name,
                                    std::u16string& domain) {
  for (const auto& [session, user] : m_users) {
    if (user.sid == sid && !user.lookupFails) {
      name = user.name;
      domain = user.domain;
      return true;
    }
  }
  return false;
}

bool FakeAccounts::LogonSessionDnsDomain(IUserToken& token, std::u16string& dnsDomain) {
  const User* user = UserOf(token);
  if (!user || !user->sessionDnsDomain) return false;
  dnsDomain = *user->sessionDnsDomain;
  return true;
}

void FakeAccounts::AbandonToken(std::unique_ptr<IUserToken> token) {
  auto* fake = static_cast<FakeToken*>(token.get());
  fake->Abandon();
  ++tokensAbandoned;
}

namespace {
class ScriptedPipe : public IConsolePipe {
 public:
  ScriptedPipe(std::vector<PipeStep> script, std::shared_ptr<int> peeks, std::shared_ptr<int> reads)
      : m_script(std::move(script)), m_peeks(std::move(peeks)), m_reads(std::move(reads)) {}

  bool Peek(uint32_t& available) override {
    ++*m_peeks;
    available = 0;
    while (m_step < m_script.size()) {
      PipeStep& s = m_script[m_step];
      if (s.peekFails) return false;
      if (s.emptyPolls > 0) {
        --s.emptyPolls;
        return true;
      }
      if (m_offset < s.bytes.size()) {
        available = static_cast<uint32_t>(s.bytes.size() - m_offset);
        return true;
      }
      ++m_step;
      m_offset = 0;
    }
    return true;  // the write end stays open: nothing more, never an error
  }

  bool Read(char* buffer, uint32_t size, uint32_t& read) override {
    ++*m_reads;
    read = 0;
    if (m_step >= m_script.size()) return true;
    PipeStep& s = m_script[m_step];
    if (s.readFails) {
      s.readFails = false;
      return false;
    }
    const size_t n = std::min<size_t>(size, s.bytes.size() - m_offset);
    std::memcpy(buffer, s.bytes.data() + m_offset, n);
    m_offset += n;
    read = static_cast<uint32_t>(n);
    return true;
  }

 private:
  std::vector<PipeStep> m_script;
  size_t m_step = 0;
  size_t m_offset = 0;
  std::shared_ptr<int> m_peeks, m_reads;
};
}  // namespace

ConsoleStart FakeConsoleRunner::Start(IUserToken& token, const std::string& program,
                                      const std::string& arguments,
                                      std::unique_ptr<IConsolePipe>& pipe) {
  commandLines.push_back(program + " " + arguments);
  lastToken = reinterpret_cast<intptr_t>(token.Native());
  if (result.failure != ConsoleStartFailure::kNone) return result;
  pipe = std::make_unique<ScriptedPipe>(script, peeks, reads);
  return {};
}

SupportKeyHandle RegistrySupport::reg_openkeyW(SupportHive, std::u16string_view path) {
  // As our Windows library opens them: for reading, in the 64-bit view.
  return m_registry.OpenSupportKey(path, reg_access::kRead | reg_access::kWow64_64Key);
}

void RegistrySupport::reg_closekeyW(SupportKeyHandle key) { m_registry.CloseSupportKey(key); }

bool RegistrySupport::reg_getstringW(SupportKeyHandle key, std::u16string_view name,
                                     std::u16string& value, uint32_t* length) {
  IRegistryKey* k = m_registry.SupportKey(key);
  if (!k || k->QueryString(name, value) != 0) return false;
  if (length) *length = static_cast<uint32_t>(value.size());
  return true;
}

bool RegistrySupport::reg_valueexistsbykeyW(SupportKeyHandle key, std::u16string_view name) {
  std::u16string ignored;
  IRegistryKey* k = m_registry.SupportKey(key);
  return k && k->QueryString(name, ignored) == 0;
}

SidBytes MakeSid(std::array<uint8_t, 6> authority, std::vector<uint32_t> subAuthorities) {
  SidBytes sid;
  sid.reserve(8 + 4 * subAuthorities.size());
  sid.push_back(1);
  sid.push_back(static_cast<uint8_t>(subAuthorities.size()));
  for (uint8_t b : authority) sid.push_back(b);
  for (uint32_t s : subAuthorities) {
    for (int i = 0; i < 4; ++i) sid.push_back(static_cast<uint8_t>(s >> (8 * i)));
  }
  return sid;
}

SidBytes DomainSid(uint32_t rid) {
  return MakeSid({0, 0, 0, 0, 0, 5}, {21, 1004336348, 1177238915, 682003330, rid});
}

}  // namespace lindqvar::testing
