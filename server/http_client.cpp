#include "server/http_client.h"

#include <curl/curl.h>
#include <pthread.h>

#include <memory>
#include <mutex>

#include "app/clock.h"

namespace mcd {
namespace {

std::once_flag g_curlInit;

struct Sink {
  std::string* text;
  bool* tooLarge;
};

// Returning less than was handed over makes libcurl end the transfer with an error.
size_t Collect(char* data, size_t size, size_t count, void* user) {
  auto* sink = static_cast<Sink*>(user);
  const size_t n = size * count;
  if (sink->text->size() + n > HttpClient::kMaxReplyBytes) {
    *sink->tooLarge = true;
    return 0;
  }
  sink->text->append(data, n);
  return n;
}

// Non-zero ends the transfer: a stop request does not wait for the time-outs.
int Progress(void*, curl_off_t, curl_off_t, curl_off_t, curl_off_t) { return mcd::StopRequested() ? 1 : 0; }

struct EasyDeleter {
  void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
};
struct ListDeleter {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

}  // namespace

HttpClient::HttpClient(const std::string& url) : m_url(url) {
  std::call_once(g_curlInit, [] { curl_global_init(CURL_GLOBAL_ALL); });
}

int HttpClient::Send(const std::string& request) {
  m_received = false;
  m_tooLarge = false;
  m_response.clear();
  Sink sink{&m_response, &m_tooLarge};

  std::unique_ptr<CURL, EasyDeleter> curl(curl_easy_init());
  if (!curl) return -1;
  std::unique_ptr<curl_slist, ListDeleter> headers(curl_slist_append(nullptr, "Content-Type: application/json"));
  if (!headers) return -1;
  // No "Expect: 100-continue" round trip for larger bodies: the server answers at once.
  curl_slist* more = curl_slist_append(headers.get(), "Expect:");
  if (!more) return -1;

  CURL* h = curl.get();
  curl_easy_setopt(h, CURLOPT_URL, m_url.c_str());
  // The server lives on this machine: never route it through a proxy from the environment.
  curl_easy_setopt(h, CURLOPT_PROXY, "");
  curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(h, CURLOPT_POST, 1L);
  curl_easy_setopt(h, CURLOPT_POSTFIELDS, request.data());
  curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE, static_cast<long>(request.size()));
  curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT, kConnectTimeoutSeconds);
  curl_easy_setopt(h, CURLOPT_TIMEOUT, kTransferTimeoutSeconds);
  curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, &Collect);
  curl_easy_setopt(h, CURLOPT_WRITEDATA, &sink);
  // An announced length over the limit is refused before any byte is read.
  curl_easy_setopt(h, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(kMaxReplyBytes));
  curl_easy_setopt(h, CURLOPT_XFERINFOFUNCTION, &Progress);
  curl_easy_setopt(h, CURLOPT_NOPROGRESS, 0L);

  // libcurl is not safe to unwind by thread cancellation; the exchange is bounded by the
  // time-outs above, and a pending cancellation takes effect at the caller's next wait.
  int oldState = 0;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &oldState);
  CURLcode rc = curl_easy_perform(h);
  pthread_setcancelstate(oldState, nullptr);
  if (rc == CURLE_FILESIZE_EXCEEDED) m_tooLarge = true;
  if (rc != CURLE_OK) {
    m_response.clear();
    return static_cast<int>(rc);
  }
  m_received = true;
  return 0;
}

int HttpClient::Recv(std::string& response) {
  if (!m_received) return -1;
  response = m_response;
  return static_cast<int>(m_response.size());
}

}  // namespace mcd
