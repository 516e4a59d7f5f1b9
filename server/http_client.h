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

  explicit HttpClient(const std::string& url);
  HttpClient(const HttpClient&) = delete;
  HttpClient& operator=(const HttpClient&) = delete;

  // POSTs request with "Content-Type: application/json". 0 on success, otherwise the
  // transport's error code (never 0). An answer longer than kMaxReplyBytes fails the
  // exchange (TooLarge() tells), and so does a stop request while it is under way.
  int Send(const std::string& request);
  // The answer body of the last successful Send: its length, or -1 when there is none.
  int Recv(std::string& response);
  // The last Send failed because the answer was longer than kMaxReplyBytes.
  bool TooLarge() const { return m_tooLarge; }

 private:
  std::string m_url;
  std::string m_response;
  bool m_received = false;
  bool m_tooLarge = false;
};

}  // namespace mcd
