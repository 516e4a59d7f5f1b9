#include "server/http_client.h"

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/http.h>
#include <event2/keyvalq_struct.h>
#include <netdb.h>
#include <pthread.h>
#include <strings.h>
#include <signal.h>
#include <sys/socket.h>
#include <time.h>

#include <chrono>
#include <memory>

#include "app/clock.h"
#include "app/thread_attached.h"

namespace mcd {
namespace {

// How often a running exchange looks at the stop request and its own time-outs. The
// timer exists only while an exchange is under way: an idle daemon never wakes for it.
constexpr long kTickMicroseconds = 100 * 1000;
// Longest header block of an answer (about what HTTP clients commonly accept).
constexpr long kMaxHeaderBytes = 100 * 1024;

// The state of one exchange, shared by the event callbacks.
struct Transfer {
  event_base* base = nullptr;
  evhttp_request* request = nullptr;  // under way; the connection frees it when it ends
  std::string* body = nullptr;
  std::chrono::steady_clock::time_point start;
  bool sent = false;     // the request reached the connection: it was established
  bool headers = false;  // the answer's status line and headers arrived
  bool done = false;
  int code = 0;
  bool tooLarge = false;

  void Finish(int result) {
    if (done) return;
    done = true;
    code = result;
    request = nullptr;
    event_base_loopbreak(base);
  }
  // Ends the exchange from the timer: the connection is dropped, no callback follows.
  void Abort(int result) {
    evhttp_request* pending = request;
    Finish(result);
    if (pending) evhttp_cancel_request(pending);
  }
};

void TakeBody(evhttp_request* req, Transfer* x) {
  evbuffer* input = evhttp_request_get_input_buffer(req);
  const size_t n = evbuffer_get_length(input);
  if (n == 0) return;
  const size_t old = x->body->size();
  x->body->resize(old + n);
  evbuffer_remove(input, &(*x->body)[old], n);
}

// Pieces of the answer body as they arrive; the connection enforces the size limit.
void OnChunk(evhttp_request* req, void* arg) { TakeBody(req, static_cast<Transfer*>(arg)); }

int OnHeaders(evhttp_request*, void* arg) {
  static_cast<Transfer*>(arg)->headers = true;
  return 0;
}

// The answer is complete (any status). A request handed back with no status is one
// whose connection could not be made (refused, or no route to the server).
void OnDone(evhttp_request* req, void* arg) {
  auto* x = static_cast<Transfer*>(arg);
  if (x->done) return;
  if (!req || evhttp_request_get_response_code(req) == 0) {
    x->Finish(x->sent ? HttpClient::kErrEmptyReply : HttpClient::kErrConnect);
    return;
  }
  TakeBody(req, x);
  x->Finish(0);
}

void OnError(evhttp_request_error error, void* arg) {
  auto* x = static_cast<Transfer*>(arg);
  if (x->done) return;
  switch (error) {
    case EVREQ_HTTP_TIMEOUT:
      x->Finish(HttpClient::kErrTimeout);
      break;
    case EVREQ_HTTP_DATA_TOO_LONG:
      // Over the header limit before the headers were complete, else over the body limit.
      x->tooLarge = x->headers;
      x->Finish(x->headers ? HttpClient::kErrTooLarge : HttpClient::kErrReceive);
      break;
    case EVREQ_HTTP_INVALID_HEADER:
      x->Finish(HttpClient::kErrBadReply);
      break;
    case EVREQ_HTTP_EOF:
      if (!x->sent)
        x->Finish(HttpClient::kErrConnect);
      else
        x->Finish(x->headers ? HttpClient::kErrPartialBody : HttpClient::kErrEmptyReply);
      break;
    default:
      x->Finish(HttpClient::kErrReceive);
      break;
  }
}

// The connection writes the request into its output buffer only once it is established.
void OnOutput(evbuffer*, const evbuffer_cb_info* info, void* arg) {
  if (info->n_added > 0) static_cast<Transfer*>(arg)->sent = true;
}

void OnTick(evutil_socket_t, short, void* arg) {
  auto* x = static_cast<Transfer*>(arg);
  if (x->done) return;
  if (mcd::StopRequested()) {
    x->Abort(HttpClient::kErrStopped);
    return;
  }
  const auto elapsed = std::chrono::steady_clock::now() - x->start;
  if ((!x->sent && elapsed >= std::chrono::seconds(HttpClient::kConnectTimeoutSeconds)) ||
      elapsed >= std::chrono::seconds(HttpClient::kTransferTimeoutSeconds))
    x->Abort(HttpClient::kErrTimeout);
}

struct BaseDeleter {
  void operator()(event_base* p) const { event_base_free(p); }
};
struct ConfigDeleter {
  void operator()(event_config* p) const { event_config_free(p); }
};
struct EventDeleter {
  void operator()(event* p) const { event_free(p); }
};
struct ConnectionDeleter {
  void operator()(evhttp_connection* p) const { evhttp_connection_free(p); }
};
struct UriDeleter {
  void operator()(evhttp_uri* p) const { evhttp_uri_free(p); }
};
struct AddrDeleter {
  void operator()(addrinfo* p) const { freeaddrinfo(p); }
};

// Writing to a connection the server has closed raises SIGPIPE, which would end the
// process. The signal is held back in this thread for the exchange and a SIGPIPE it
// raised is taken off again afterwards; other threads are not affected.
class PipeSignalGuard {
 public:
  PipeSignalGuard() {
    sigemptyset(&m_pipe);
    sigaddset(&m_pipe, SIGPIPE);
    sigset_t pending;
    sigpending(&pending);
    m_wasPending = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &m_pipe, &m_old);
  }
  ~PipeSignalGuard() {
    if (!m_wasPending && sigismember(&m_old, SIGPIPE) != 1) {
      sigset_t pending;
      sigpending(&pending);
      const timespec none{0, 0};
      if (sigismember(&pending, SIGPIPE) == 1) sigtimedwait(&m_pipe, nullptr, &none);
    }
    pthread_sigmask(SIG_SETMASK, &m_old, nullptr);
  }
  PipeSignalGuard(const PipeSignalGuard&) = delete;
  PipeSignalGuard& operator=(const PipeSignalGuard&) = delete;

 private:
  sigset_t m_pipe;
  sigset_t m_old;
  bool m_wasPending = false;
};

}  // namespace

HttpClient::HttpClient(const std::string& url) : m_url(url) {}

int HttpClient::Send(const std::string& request) {
  m_received = false;
  m_tooLarge = false;
  m_response.clear();
  // libevent is not safe to unwind by thread cancellation; the exchange is bounded by
  // the time-outs, and a pending cancellation takes effect at the caller's next wait.
  NoCancel noCancel;
  PipeSignalGuard pipeGuard;
  int rc = Perform(request);
  if (rc != 0) {
    m_response.clear();
    m_response.shrink_to_fit();
    return rc;
  }
  m_received = true;
  return 0;
}

int HttpClient::Perform(const std::string& request) {
  // An endpoint written without a scheme ("127.0.0.1:8082/") is taken as http://.
  const std::string url = m_url.find("://") == std::string::npos ? "http://" + m_url : m_url;
  std::unique_ptr<evhttp_uri, UriDeleter> uri(evhttp_uri_parse(url.c_str()));
  if (!uri) return kErrBadUrl;
  const char* scheme = evhttp_uri_get_scheme(uri.get());
  const char* host = evhttp_uri_get_host(uri.get());
  if (!scheme || strcasecmp(scheme, "http") != 0) return kErrScheme;
  if (!host || !*host) return kErrBadUrl;
  const int port = evhttp_uri_get_port(uri.get()) < 0 ? 80 : evhttp_uri_get_port(uri.get());
  // An IPv6 literal keeps its brackets in the Host header, not in the address.
  const std::string hostText = host;
  std::string name = hostText;
  if (name.size() > 2 && name.front() == '[' && name.back() == ']') name = name.substr(1, name.size() - 2);
  std::string target = evhttp_uri_get_path(uri.get()) ? evhttp_uri_get_path(uri.get()) : "";
  if (target.empty()) target = "/";
  if (const char* query = evhttp_uri_get_query(uri.get())) target += std::string("?") + query;

  // The name is looked up here, once per exchange; the connection goes to its first address.
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  // No AI_ADDRCONFIG: with only the loopback interface up (network down) a loopback
  // endpoint must still resolve.
  addrinfo* found = nullptr;
  if (getaddrinfo(name.c_str(), nullptr, &hints, &found) != 0 || !found) return kErrResolve;
  std::unique_ptr<addrinfo, AddrDeleter> addresses(found);
  char numeric[NI_MAXHOST];
  if (getnameinfo(found->ai_addr, found->ai_addrlen, numeric, sizeof numeric, nullptr, 0, NI_NUMERICHOST) != 0)
    return kErrResolve;

  // A private event loop for this exchange, not steered by EVENT_* environment variables.
  std::unique_ptr<event_config, ConfigDeleter> config(event_config_new());
  if (!config) return kErrNoMemory;
  event_config_set_flag(config.get(), EVENT_BASE_FLAG_NOLOCK);
  event_config_set_flag(config.get(), EVENT_BASE_FLAG_IGNORE_ENV);
  std::unique_ptr<event_base, BaseDeleter> base(event_base_new_with_config(config.get()));
  if (!base) return kErrNoMemory;

  Transfer x;
  x.base = base.get();
  x.body = &m_response;
  x.start = std::chrono::steady_clock::now();

  std::unique_ptr<event, EventDeleter> tick(event_new(base.get(), -1, EV_PERSIST, &OnTick, &x));
  if (!tick) return kErrNoMemory;
  const timeval tickInterval{0, kTickMicroseconds};
  event_add(tick.get(), &tickInterval);

  // Declared after the loop and timer: freed first, with any request still under way.
  std::unique_ptr<evhttp_connection, ConnectionDeleter> connection(
      evhttp_connection_base_new(base.get(), nullptr, numeric, static_cast<unsigned short>(port)));
  if (!connection) return kErrNoMemory;
  // The time-outs proper are kept by the timer; this only bounds each wait of the
  // connection for data, should the timer fail to end it first.
  evhttp_connection_set_timeout(connection.get(), static_cast<int>(kTransferTimeoutSeconds));
  evhttp_connection_set_retries(connection.get(), 0);
  evhttp_connection_set_max_body_size(connection.get(), static_cast<ev_ssize_t>(kMaxReplyBytes));
  evhttp_connection_set_max_headers_size(connection.get(), kMaxHeaderBytes);
  bufferevent* stream = evhttp_connection_get_bufferevent(connection.get());
  if (!stream || !evbuffer_add_cb(bufferevent_get_output(stream), &OnOutput, &x)) return kErrNoMemory;

  evhttp_request* req = evhttp_request_new(&OnDone, &x);
  if (!req) return kErrNoMemory;
  evhttp_request_set_error_cb(req, &OnError);
  evhttp_request_set_header_cb(req, &OnHeaders);
  evhttp_request_set_chunked_cb(req, &OnChunk);
  evkeyvalq* headers = evhttp_request_get_output_headers(req);
  // The port is named unless it is HTTP's own; no "Expect: 100-continue" is sent, so
  // the body follows the headers at once.
  evhttp_add_header(headers, "Host", port == 80 ? hostText.c_str() : (hostText + ":" + std::to_string(port)).c_str());
  evhttp_add_header(headers, "Accept", "*/*");
  evhttp_add_header(headers, "Content-Type", "application/json");
  evbuffer_add(evhttp_request_get_output_buffer(req), request.data(), request.size());

  x.request = req;
  if (evhttp_make_request(connection.get(), req, EVHTTP_REQ_POST, target.c_str()) != 0) {
    // Only when memory runs out; whether the request was freed is not told, so it is
    // left alone.
    if (!x.done) return kErrNoMemory;
  }
  if (!x.done) event_base_dispatch(base.get());
  if (!x.done) return kErrReceive;  // the loop ended without an outcome
  m_tooLarge = x.tooLarge;
  return x.code;
}

int HttpClient::Recv(std::string& response) {
  if (!m_received) return -1;
  response = m_response;
  return static_cast<int>(m_response.size());
}

}  // namespace mcd
