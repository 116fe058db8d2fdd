#include "tools/lab_authenticator/ntlm_acceptor.h"

#include <gssapi/gssapi.h>

#include <cstdlib>
#include <cstring>
#include <fstream>

#include "platform/os.h"

namespace lindqvar::lab {

namespace {

gss_OID_desc kNtlmMechanism = {10, const_cast<char*>("\x2b\x06\x01\x04\x01\x82\x37\x02\x02\x0a")};

std::string GssError(OM_uint32 major, OM_uint32 minor) {
  std::string text;
  for (auto [status, type] :
       {std::pair{major, GSS_C_GSS_CODE}, std::pair{minor, GSS_C_MECH_CODE}}) {
    if (!status) continue;
    OM_uint32 context = 0, ignored = 0;
    gss_buffer_desc message = GSS_C_EMPTY_BUFFER;
    gss_display_status(&ignored, status, type, &kNtlmMechanism, &context, &message);
    if (!text.empty()) text += ": ";
    text.append(static_cast<const char*>(message.value), message.length);
    gss_release_buffer(&ignored, &message);
  }
  return text;
}

uint32_t Le(const std::string& m, size_t at, int bytes) {
  uint32_t v = 0;
  for (int i = bytes - 1; i >= 0; --i) v = v << 8 | static_cast<uint8_t>(m[at + i]);
  return v;
}

// A security buffer field (length, allocated length, offset) of the message.
bool Field(const std::string& m, size_t at, bool unicode, std::string& out) {
  const uint32_t length = Le(m, at, 2), offset = Le(m, at + 4, 4);
  if (offset > m.size() || length > m.size() - offset) return false;
  const std::string raw = m.substr(offset, length);
  if (!unicode) {
    out = raw;
    return true;
  }
  std::u16string wide;
  for (size_t i = 0; i + 1 < raw.size(); i += 2)
    wide.push_back(static_cast<char16_t>(static_cast<uint8_t>(raw[i]) |
                                         static_cast<uint8_t>(raw[i + 1]) << 8));
  out = WideToUtf8(wide);
  return true;
}

class CGssAcceptance : public INtlmAcceptance {
 public:
  ~CGssAcceptance() override {
    OM_uint32 minor = 0;
    if (m_context != GSS_C_NO_CONTEXT) gss_delete_sec_context(&minor, &m_context, GSS_C_NO_BUFFER);
  }

  bool Challenge(const std::string& negotiate, std::string& challenge,
                 std::string& error) override {
    const OM_uint32 major = Step(negotiate, challenge, nullptr, error);
    return major == GSS_S_CONTINUE_NEEDED && !challenge.empty();
  }

  bool Verify(const std::string& authenticate, std::string& user, std::string& domain,
              std::string& error) override {
    NamedUser(authenticate, user, domain);
    std::string ignored, initiator;
    if (Step(authenticate, ignored, &initiator, error) != GSS_S_COMPLETE) return false;
    // The mechanism's own view of who was proven: "DOMAIN\user".
    const size_t slash = initiator.find('\\');
    if (slash != std::string::npos) {
      domain = initiator.substr(0, slash);
      user = initiator.substr(slash + 1);
    }
    return true;
  }

 private:
  OM_uint32 Step(const std::string& in, std::string& out, std::string* initiator,
                 std::string& error) {
    OM_uint32 minor = 0, ignored = 0;
    gss_buffer_desc input{in.size(), const_cast<char*>(in.data())};
    gss_buffer_desc output = GSS_C_EMPTY_BUFFER;
    gss_name_t source = GSS_C_NO_NAME;
    const OM_uint32 major = gss_accept_sec_context(&minor, &m_context, GSS_C_NO_CREDENTIAL, &input,
                                                   GSS_C_NO_CHANNEL_BINDINGS, &source, nullptr,
                                                   &output, nullptr, nullptr, nullptr);
    out.assign(static_cast<const char*>(output.value), output.length);
    gss_release_buffer(&ignored, &output);
    if (GSS_ERROR(major)) error = GssError(major, minor);
    if (major == GSS_S_COMPLETE && initiator && source != GSS_C_NO_NAME) {
      gss_buffer_desc name = GSS_C_EMPTY_BUFFER;
      if (gss_display_name(&ignored, source, &name, nullptr) == GSS_S_COMPLETE)
        initiator->assign(static_cast<const char*>(name.value), name.length);
      // The mechanism counts the name's terminator in its length.
      while (!initiator->empty() && initiator->back() == '\0') initiator->pop_back();
      gss_release_buffer(&ignored, &name);
    }
    if (source != GSS_C_NO_NAME) gss_release_name(&ignored, &source);
    return major;
  }

  gss_ctx_id_t m_context = GSS_C_NO_CONTEXT;
};

class CGssAcceptor : public INtlmAcceptor {
 public:
  std::unique_ptr<INtlmAcceptance> Begin(std::string&) override {
    return std::make_unique<CGssAcceptance>();
  }
};

}  // namespace

bool NamedUser(const std::string& m, std::string& user, std::string& domain) {
  if (m.size() < 64 || m.compare(0, 8, std::string("NTLMSSP\0", 8)) != 0 || Le(m, 8, 4) != 3)
    return false;
  const bool unicode = Le(m, 60, 4) & 1;  // NTLMSSP_NEGOTIATE_UNICODE
  return Field(m, 28, unicode, domain) && Field(m, 36, unicode, user);
}

std::shared_ptr<INtlmAcceptor> MakeGssNtlmAcceptor(const std::string& accountFile,
                                                   std::string& error) {
  std::ifstream file(accountFile);
  if (!file) {
    error = "cannot read the NTLM account file " + accountFile;
    return nullptr;
  }
  // The mechanism looks accounts up in this file at every exchange.
  setenv("NTLM_USER_FILE", accountFile.c_str(), 1);
  return std::make_shared<CGssAcceptor>();
}

}  // namespace lindqvar::lab
