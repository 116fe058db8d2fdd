// Strings that hold a secret (the preshared key) and are wiped when they are
// released, so that no copy lingers in freed memory or on a reused stack.
#pragma once

#include <cstddef>
#include <string>
#include <utility>

namespace lindqvar {

// Overwrites `size` bytes with zeros in a way the compiler keeps.
void WipeMemory(void* data, size_t size);

// Zeros the whole buffer of a string (its capacity, the short-string buffer
// included) and empties it.
template <typename String>
void WipeString(String& text) {
  WipeMemory(text.data(), (text.capacity() + 1) * sizeof(typename String::value_type));
  text.clear();
}

// A std::basic_string whose buffer is wiped on destruction and before it
// takes a new value; a string moved into it is wiped too. It passes as the
// plain string type (a const reference to it), so code that reads the
// secret needs no change; a plain copy made from it is the copier's to wipe.
template <typename Char>
class CBasicSecretString : public std::basic_string<Char> {
 public:
  using Base = std::basic_string<Char>;
  CBasicSecretString() = default;
  explicit CBasicSecretString(const Base& text) : Base(text) {}
  explicit CBasicSecretString(Base&& text) : Base(std::move(text)) { WipeString(text); }
  CBasicSecretString(const CBasicSecretString& other) : Base(other) {}
  CBasicSecretString(CBasicSecretString&& other) noexcept : Base(std::move(other)) {
    WipeString(static_cast<Base&>(other));
  }
  CBasicSecretString& operator=(const CBasicSecretString& other) {
    if (this != &other) Assign(other);
    return *this;
  }
  CBasicSecretString& operator=(CBasicSecretString&& other) noexcept {
    if (this != &other) {
      WipeString(static_cast<Base&>(*this));
      Base::operator=(std::move(other));
      WipeString(static_cast<Base&>(other));
    }
    return *this;
  }
  CBasicSecretString& operator=(const Base& text) {
    Assign(text);
    return *this;
  }
  CBasicSecretString& operator=(Base&& text) {
    WipeString(static_cast<Base&>(*this));
    Base::operator=(std::move(text));
    WipeString(text);
    return *this;
  }
  ~CBasicSecretString() { WipeString(static_cast<Base&>(*this)); }

 private:
  void Assign(const Base& text) {
    WipeString(static_cast<Base&>(*this));
    Base::operator=(text);
  }
};

using SecretString = CBasicSecretString<char>;
using SecretU16String = CBasicSecretString<char16_t>;

}  // namespace lindqvar
