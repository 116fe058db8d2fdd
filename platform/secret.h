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
class BasicSecretString : public std::basic_string<Char> {
 public:
  using Base = std::basic_string<Char>;
  BasicSecretString() = default;
  explicit BasicSecretString(const Base& text) : Base(text) {}
  explicit BasicSecretString(Base&& text) : Base(std::move(text)) { WipeString(text); }
  BasicSecretString(const BasicSecretString& other) : Base(other) {}
  BasicSecretString(BasicSecretString&& other) noexcept : Base(std::move(other)) {
    WipeString(static_cast<Base&>(other));
  }
  BasicSecretString& operator=(const BasicSecretString& other) {
    if (this != &other) Assign(other);
    return *this;
  }
  BasicSecretString& operator=(BasicSecretString&& other) noexcept {
    if (this != &other) {
      WipeString(static_cast<Base&>(*this));
      Base::operator=(std::move(other));
      WipeString(static_cast<Base&>(other));
    }
    return *this;
  }
  BasicSecretString& operator=(const Base& text) {
    Assign(text);
    return *this;
  }
  BasicSecretString& operator=(Base&& text) {
    WipeString(static_cast<Base&>(*this));
    Base::operator=(std::move(text));
    WipeString(text);
    return *this;
  }
  ~BasicSecretString() { WipeString(static_cast<Base&>(*this)); }

 private:
  void Assign(const Base& text) {
    WipeString(static_cast<Base&>(*this));
    Base::operator=(text);
  }
};

using SecretString = BasicSecretString<char>;
using SecretU16String = BasicSecretString<char16_t>;

}  // namespace lindqvar
