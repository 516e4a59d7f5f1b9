// One JSON-RPC exchange over HTTP: Send posts the request text to the endpoint and
// collects the answer, Recv hands the answer over.
#pragma once

#include <string>

namespace mcd {

class HttpClient {
 public:
  // Time-outs of one exchange: for setting up the connection and for the whole transfer.
  static constexpr long kConnectTimeoutSeconds = 5;
  static constexpr long kTransferTimeoutSeconds = 30;

  explicit HttpClient(const std::string& url);
  HttpClient(const HttpClient&) = delete;
  HttpClient& operator=(const HttpClient&) = delete;

  // POSTs request with "Content-Type: application/json". 0 on success, otherwise the
  // transport's error code (never 0).
  int Send(const std::string& request);
  // The answer body of the last successful Send: its length, or -1 when there is none.
  int Recv(std::string& response);

 private:
  std::string m_url;
  std::string m_response;
  bool m_received = false;
};

}  // namespace mcd
