// The lab's real NTLM acceptor: the GSSAPI NTLM mechanism (Debian's
// gss-ntlmssp, through MIT krb5's GSSAPI) checks the user's NTLMv2 response
// against an account file of lines "DOMAIN:user:password", without a domain
// controller. The mechanism reads the file named by the NTLM_USER_FILE
// environment variable, so the file is one per process.
#pragma once

#include <memory>
#include <string>

#include "tools/lab_authenticator/lab_server.h"

namespace lindqvar::lab {

// Null with a reason when the file cannot be read.
std::shared_ptr<INtlmAcceptor> MakeGssNtlmAcceptor(const std::string& accountFile,
                                                   std::string& error);

// The user and domain an NTLM AUTHENTICATE message names (UTF-8), whatever
// its proof. False when the message is not one.
bool NamedUser(const std::string& authenticate, std::string& user, std::string& domain);

}  // namespace lindqvar::lab
