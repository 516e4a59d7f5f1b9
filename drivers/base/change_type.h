// Byte-order conversion of meter fields to host numbers.
//
// With the order code 1234 (the only one the constructor selects) a 32-bit integer
// travels as two 16-bit words, the word order swapped and the byte order inside each
// word kept; a 16-bit value has its two bytes swapped; a float has its four bytes
// reversed. The code 4321 copies the source bytes in order. Fixed-width types are
// used throughout so the result is the same on 32- and 64-bit hosts.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

namespace mcd {

template <class T>
class CChangeType {
  static_assert(sizeof(T) == 2 || sizeof(T) == 4, "CChangeType converts 16- and 32-bit values");

 public:
  CChangeType() : m_order(1234) {}
  virtual ~CChangeType() = default;

  void SetSource(const unsigned char* source) { m_source = source; }
  void SetOrder(int order) { m_order = order; }
  int Order() const { return m_order; }

  // Converts the source bytes and returns the value.
  T Convert() {
    unsigned char bytes[sizeof(T)];
    if (m_order == 4321) {
      std::memcpy(bytes, m_source, sizeof(T));
    } else if (sizeof(T) == 2) {
      bytes[0] = m_source[1];
      bytes[1] = m_source[0];
    } else if (std::is_floating_point<T>::value) {
      for (size_t i = 0; i < 4; ++i) bytes[i] = m_source[3 - i];
    } else {
      bytes[0] = m_source[2];
      bytes[1] = m_source[3];
      bytes[2] = m_source[0];
      bytes[3] = m_source[1];
    }
    std::memcpy(&m_value, bytes, sizeof(T));
    return m_value;
  }

  T Value() const { return m_value; }

 private:
  int m_order;
  const unsigned char* m_source = nullptr;
  T m_value{};
};

}  // namespace mcd
