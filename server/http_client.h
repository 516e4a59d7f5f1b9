// One JSON-RPC exchange over HTTP: Send posts the request text to the endpoint and
// collects the answer, Recv hands the answer over.
#pragma once

#include <cstddef>
#include <string>

namespace mcd {

class HttpClient {
 public:
  // Time-outs of one exchange: for setting up the connection and for the whole transfer.
  static constexpr long kConnectTimeoutSeconds = 5;
  static constexpr long kTransferTimeoutSeconds = 30;
  // Longest answer accepted; reading stops at this many bytes and the exchange fails.
  static constexpr size_t kMaxReplyBytes = 1024 * 1024;

  // Error codes of Send, as the log shows them ("Error code - N"). The numbers are the
  // ones operators know from earlier releases of this daemon.
  static constexpr int kErrScheme = 1;        // the endpoint is not an http:// URL
  static constexpr int kErrBadUrl = 3;        // the endpoint text is no URL with a host
  static constexpr int kErrResolve = 6;       // the host name does not resolve
  static constexpr int kErrConnect = 7;       // no connection: refused, nobody listens, no route
  static constexpr int kErrBadReply = 8;      // the answer is not HTTP (bad status line or header)
  static constexpr int kErrPartialBody = 18;  // the connection closed inside the answer body
  static constexpr int kErrNoMemory = 27;     // the exchange could not be set up (out of memory)
  static constexpr int kErrTimeout = 28;      // connect time-out or whole-transfer time-out
  static constexpr int kErrStopped = 42;      // ended by a stop request
  static constexpr int kErrEmptyReply = 52;   // the server closed the connection without an answer
  static constexpr int kErrReceive = 56;      // other failure while sending or receiving
  static constexpr int kErrTooLarge = 63;     // answer body longer than kMaxReplyBytes

  explicit HttpClient(const std::string& url);
  HttpClient(const HttpClient&) = delete;
  HttpClient& operator=(const HttpClient&) = delete;

  // POSTs request with "Content-Type: application/json". 0 when an answer arrived (any
  // HTTP status), otherwise one of the kErr codes below. An answer longer than
  // kMaxReplyBytes fails the exchange (TooLarge() tells), and so does a stop request
  // while it is under way (within a tenth of a second). Thread cancellation is held off
  // meanwhile.
  int Send(const std::string& request);
  // The answer body of the last successful Send: its length, or -1 when there is none.
  int Recv(std::string& response);
  // The last Send failed because the answer was longer than kMaxReplyBytes.
  bool TooLarge() const { return m_tooLarge; }

 private:
  int Perform(const std::string& request);

  std::string m_url;
  std::string m_response;
  bool m_received = false;
  bool m_tooLarge = false;
};

}  // namespace mcd
