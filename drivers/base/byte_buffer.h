// Bounded read cursor over a meter answer, shared by every meter family.
//
// A cursor is a non-owning view: the position and the count of bytes that remain.
// Any access outside the answer is a broken answer: the family writes a line to its
// debug file (code 0, with the failing operation's name) and CDisconnectException is
// thrown. Each family (VKT-7, MTR-06, TM-3E, ...) binds the cursor to its own
// failure writer through a MeterFamily; CVKT7Buffer and CMTR06Buffer are such bindings.
#pragma once

#include <cstddef>

#include "drivers/base/exceptions.h"

namespace mcd {

struct MeterFamily {
  // Writes the family's debug-file line for a failed access named `name`
  // (e.g. "CVKT7Buffer []", "GetFloatAsString").
  void (*writeFailure)(const char* name);
};

class CMeterBuffer {
 public:
  CMeterBuffer() = default;
  CMeterBuffer(const MeterFamily* family, const unsigned char* data, int count)
      : m_family(family), m_base(data), m_remaining(data ? count : 0) {}

  // The byte at position + i. Fails only when i is greater than the remaining count:
  // one past the end is accepted, and so are negative indices (index -1 after the
  // 3 header bytes is the answer's byte count). A cursor over no answer at all fails
  // for every index instead of reading through a null pointer.
  unsigned char operator[](int i) const {
    if (i > m_remaining || !m_base) Fail(m_indexName);
    return m_base[m_offset + i];
  }

  // Advances by n; fails when the remaining count has become negative (the position
  // has moved already and is not restored).
  CMeterBuffer& operator+=(int n) {
    m_offset += n;
    m_remaining -= n;
    if (m_remaining < 0) Fail(m_advanceName);
    return *this;
  }

  bool empty() const { return m_remaining == 0; }
  int remaining() const { return m_remaining; }
  // Pointer to the current position; valid for remaining() bytes.
  const unsigned char* position() const { return m_base + m_offset; }
  const MeterFamily* family() const { return m_family; }

  // Fails unless at least n bytes remain; name is the caller's name for the debug line.
  void Require(int n, const char* name) const {
    if (m_remaining < n) Fail(name);
  }

  // Writes the family's debug line for name and throws CDisconnectException.
  [[noreturn]] void Fail(const char* name) const {
    if (m_family && m_family->writeFailure) m_family->writeFailure(name);
    throw CDisconnectException();
  }

 protected:
  void SetNames(const char* indexName, const char* advanceName) {
    m_indexName = indexName;
    m_advanceName = advanceName;
  }

 private:
  const MeterFamily* m_family = nullptr;
  const unsigned char* m_base = nullptr;
  int m_offset = 0;
  int m_remaining = 0;
  const char* m_indexName = "CMeterBuffer []";
  const char* m_advanceName = "CMeterBuffer +=";
};

}  // namespace mcd
