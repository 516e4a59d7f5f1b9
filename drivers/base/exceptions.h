// The two failures a meter link reports to its driver.
#pragma once

#include <exception>

// The meter refused or broke an exchange (short write, error answer, bad checksum,
// unknown answer type). Not retried by the link.
class CDisconnectException : public std::exception {
 public:
  const char* what() const noexcept override { return "CDisconnectException"; }
};

// A reply was missing, short or over-long after the link's own retries.
class CWrongPacketException : public std::exception {
 public:
  const char* what() const noexcept override { return "CWrongPacketException"; }
};
