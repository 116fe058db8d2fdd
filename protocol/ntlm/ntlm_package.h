// The NTLM client operations of the relay over the system's security
// package "NTLM": one client context per exchange, kept in a table keyed by
// a pair of 32-bit numbers (the relay uses the connection's socket number
// and its exchange key), tokens handed out as base64 text.
//
// The agent holds one CNtlmPackage for the life of the process, so the
// table and its lock are process-wide. Its diagnostic texts are prints on
// standard output (or the print function given), never log lines; they
// carry sizes and statuses only, no token.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/security_package.h"

namespace lindqvar {

// The SEC_CHANNEL_BINDINGS block for `applicationData` (for TLS, e.g.
// "tls-server-end-point:" and the certificate's hash): eight little-endian
// 32-bit words, no initiator or acceptor address, the data's length and its
// offset (32), then the data.
std::vector<uint8_t> ChannelBindingsBlock(const std::vector<uint8_t>& applicationData);

class CNtlmPackage {
 public:
  using Print = std::function<void(const std::string&)>;
  // Seconds since 1970, as `time` gives them, cut to 32 bits.
  using Clock = std::function<uint32_t()>;

  // Empty `print`: standard output. Empty `clock`: the system time.
  explicit CNtlmPackage(ISecurityPackage& package, Print print = {}, Clock clock = {});
  // Removes what is left in the table (contexts deleted, credentials freed).
  ~CNtlmPackage();
  CNtlmPackage(const CNtlmPackage&) = delete;
  CNtlmPackage& operator=(const CNtlmPackage&) = delete;

  // Queries the package, keeps its name and turns the size trace on. 0, or
  // -1 when the query failed.
  int PreparePackage();

  // Creates the exchange (key1, key2) and makes its first token. `identity`
  // null: the calling thread's credentials (what the agent uses). 0 with the
  // token's base64 text (empty when none was produced), or -1 when the pair
  // is already in the table or the token step failed; a failed step leaves
  // the exchange in the table for DropExchange.
  // `binding`, when given, ties both tokens of the exchange to one server.
  int MakeFirstToken(uint32_t key1, uint32_t key2, std::string& token,
                     const AuthIdentity* identity = nullptr,
                     const ContextBinding* binding = nullptr);
  // Turns the server's base64 challenge into the final token (base64) and
  // removes the exchange, whatever happened. Always 0; `token` stays empty
  // on failure.
  int MakeFinalToken(uint32_t key1, uint32_t key2, const char* challenge, uint32_t length,
                     std::string& token);
  // Removes the exchange if present. Always 0.
  int DropExchange(uint32_t key1, uint32_t key2);

  // Removes entries by filters: `key` 0 or the key1 of the entry before (the
  // head's stand-in counts as key1 0) equal to it, and `age` 0 or the entry
  // older than `age` seconds. The agent's flows never call it.
  void Purge(uint32_t key, uint32_t age);

  const std::u16string& PackageName() const { return m_packageName; }
  size_t ExchangeCount() const;
  bool HasExchange(uint32_t key1, uint32_t key2) const;

 private:
  struct ContextRecord {
    uint32_t isNew = 1;  // no token step has succeeded yet
    SecurityHandle credential;
    uint32_t credentialHeld = 0;
    uint32_t contextHeld = 0;
    SecurityHandle context;
    ContextBinding binding;
  };
  struct Entry {
    uint32_t key1 = 0;
    uint32_t key2 = 0;
    uint32_t created = 0;
    std::unique_ptr<ContextRecord> record;
  };

  // Runs one step of the exchange; the package's token is in `output`
  // (release with FreeBuffer). False on failure.
  bool TokenStep(uint32_t key1, uint32_t key2, const uint8_t* input, uint32_t inputSize,
                 const AuthIdentity* identity, uint32_t flags, PackageBuffer& output);
  // Encodes the package's token and releases it.
  std::string EncodeAndFree(PackageBuffer& output);
  ContextRecord* Find(uint32_t key1, uint32_t key2);
  // The entry of the pair, or the end; with the table lock held.
  std::list<Entry>::const_iterator FindLocked(uint32_t key1, uint32_t key2) const;
  bool Add(uint32_t key1, uint32_t key2, std::unique_ptr<ContextRecord> record);
  bool Remove(uint32_t key1, uint32_t key2);
  void Cleanup(ContextRecord& record);
  void Printf(const char* format, ...);

  ISecurityPackage& m_package;
  Print m_print;
  Clock m_clock;
  std::u16string m_packageName;
  uint32_t m_trace = 0;

  mutable std::mutex m_tableLock;
  std::list<Entry> m_table;  // the newest exchange first
};

}  // namespace lindqvar
