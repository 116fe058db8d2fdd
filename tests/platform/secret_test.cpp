// Secret strings and the delivery snapshot leave no copy of the key behind
// in the storage they release or give up. Short secrets live in the string object itself, so the
// storage can be read after the string is gone.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <new>
#include <string>

#include "platform/secret.h"
#include "protocol/transport/server_entry.h"

namespace lindqvar {
namespace {

// Whether `size` bytes at `data` still hold the secret or any 4-byte piece of it.
bool HoldsPieceOf(const void* data, size_t size, const std::string& secret) {
  const std::string bytes(static_cast<const char*>(data), size);
  for (size_t at = 0; at + 4 <= secret.size(); ++at) {
    if (bytes.find(secret.substr(at, 4)) != std::string::npos) return true;
  }
  return false;
}

TEST(SecretStringTest, NothingOfTheSecretStaysBehind) {
  const std::string secret = "Kx9#qTv2";  // short: kept inside the object
  // Each row works in `storage`; rows that check what one step leaves keep
  // the (short, heap-free) string alive so that its destructor cannot hide it.
  struct Row {
    const char* what;
    std::function<void(unsigned char* storage)> leave;
  };
  const Row rows[] = {
      {"destroyed",
       [&](unsigned char* storage) {
         auto* s = new (storage) SecretString(secret);
         s->~SecretString();
       }},
      {"given a shorter value",
       [&](unsigned char* storage) {
         auto* s = new (storage) SecretString(secret);
         *s = std::string("ab");
         EXPECT_EQ("ab", *s);
       }},
      {"plain string moved in",
       [&](unsigned char* storage) {
         auto* plain = new (storage) std::string(secret);
         SecretString s(std::move(*plain));
         EXPECT_EQ(secret, s);
         plain->~basic_string();
       }},
      {"plain string assigned by move",
       [&](unsigned char* storage) {
         auto* plain = new (storage) std::string(secret);
         SecretString s;
         s = std::move(*plain);
         EXPECT_EQ(secret, s);
         plain->~basic_string();
       }},
      {"delivery snapshot destroyed",
       [&](unsigned char* storage) {
         auto* config = new (storage) DeliveryConfig();
         config->presharedKey = secret;
         config->~DeliveryConfig();
       }},
      {"secret moved away",
       [&](unsigned char* storage) {
         auto* s = new (storage) SecretString(secret);
         SecretString taker(std::move(*s));
         EXPECT_EQ(secret, taker);
       }},
  };
  for (const Row& row : rows) {
    alignas(DeliveryConfig) unsigned char storage[sizeof(DeliveryConfig) + 16] = {};
    row.leave(storage);
    EXPECT_FALSE(HoldsPieceOf(storage, sizeof storage, secret)) << row.what;
  }
}

}  // namespace
}  // namespace lindqvar
