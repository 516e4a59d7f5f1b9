// The HTTP client against canned one-connection servers: the request bytes, answers in
// pieces and chunks, and the error code of each way an exchange can fail.
#include "server/http_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "support/test_support.h"

namespace {

// Accepts one connection, reads the request (headers and the announced body), then
// writes each piece of the answer with a short pause between pieces and closes; with
// hold it keeps the connection open, unanswered, until destroyed.
class CannedServer {
 public:
  CannedServer(std::vector<std::string> pieces, bool hold = false) : m_pieces(std::move(pieces)), m_hold(hold) {
    m_listen = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    bind(m_listen, reinterpret_cast<sockaddr*>(&addr), len);
    listen(m_listen, 1);
    getsockname(m_listen, reinterpret_cast<sockaddr*>(&addr), &len);
    m_port = ntohs(addr.sin_port);
    pipe(m_quit);
    m_thread = std::thread([this] { Serve(); });
  }
  ~CannedServer() {
    write(m_quit[1], "q", 1);
    m_thread.join();
    close(m_listen);
    close(m_quit[0]);
    close(m_quit[1]);
  }
  std::string url(const std::string& path = "/") const { return "http://127.0.0.1:" + std::to_string(m_port) + path; }
  int port() const { return m_port; }
  std::string request() const { return m_request; }  // after the client is done

 private:
  // Waits for fd to be readable; false when the test ends first.
  bool Readable(int fd) {
    pollfd fds[2] = {{fd, POLLIN, 0}, {m_quit[0], POLLIN, 0}};
    return poll(fds, 2, 10000) > 0 && (fds[0].revents & POLLIN) && !(fds[1].revents & POLLIN);
  }
  void Serve() {
    if (!Readable(m_listen)) return;
    const int fd = accept(m_listen, nullptr, nullptr);
    char buf[4096];
    for (;;) {
      const size_t end = m_request.find("\r\n\r\n");
      if (end != std::string::npos) {
        const size_t at = m_request.find("Content-Length: ");
        const size_t body = at == std::string::npos ? 0 : std::stoul(m_request.substr(at + 16));
        if (m_request.size() >= end + 4 + body) break;
      }
      ssize_t n = Readable(fd) ? read(fd, buf, sizeof buf) : 0;
      if (n <= 0) break;
      m_request.append(buf, static_cast<size_t>(n));
    }
    for (const std::string& piece : m_pieces) {
      send(fd, piece.data(), piece.size(), MSG_NOSIGNAL);
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (m_hold) Readable(m_quit[0]);
    close(fd);
  }

  std::vector<std::string> m_pieces;
  bool m_hold;
  int m_listen = -1;
  int m_port = 0;
  int m_quit[2] = {-1, -1};
  std::string m_request;
  std::thread m_thread;
};

struct Case {
  const char* name;
  std::vector<std::string> pieces;
  int code;          // of Send
  std::string body;  // handed over by Recv when code is 0
};

TEST(HttpClient, TheRequestBytesAndAnAnswerWhateverItsStatus) {
  CannedServer server({"HTTP/1.1 500 Internal Server Error\r\nContent-Length: 4\r\n\r\noops"});
  // written without a scheme, as operators sometimes do: taken as http://
  mcd::HttpClient client(server.url("/rpc?x=1").substr(7));
  ASSERT_EQ(client.Send("{\"a\":1}\n"), 0);
  std::string body;
  EXPECT_EQ(client.Recv(body), 4);
  EXPECT_EQ(body, "oops");
  EXPECT_EQ(server.request(), "POST /rpc?x=1 HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(server.port()) +
                                  "\r\nAccept: */*\r\nContent-Type: application/json\r\nContent-Length: 8\r\n\r\n"
                                  "{\"a\":1}\n");
}

TEST(HttpClient, AnswersAndFailuresTable) {
  const std::string mib(mcd::HttpClient::kMaxReplyBytes, 'x');
  const std::string ok = "HTTP/1.1 200 OK\r\n";
  const std::vector<Case> cases = {
      {"pieces", {ok + "Content-Le", "ngth: 12\r\n\r\n{\"resu", "lt\":1}"}, 0, "{\"result\":1}"},
      {"chunked", {ok + "Transfer-Encoding: chunked\r\n\r\n4\r\n{\"re\r\n", "7\r\nsult\":1\r\n1\r\n}\r\n0\r\n\r\n"}, 0,
       "{\"result\":1}"},
      {"until close", {"HTTP/1.0 200 OK\r\n\r\n[1,", "2]"}, 0, "[1,2]"},
      {"exactly the limit", {ok + "Content-Length: 1048576\r\n\r\n" + mib}, 0, mib},
      {"announced over the limit", {ok + "Content-Length: 1048577\r\n\r\n" + mib + "x"}, 63, ""},
      {"chunked over the limit", {ok + "Transfer-Encoding: chunked\r\n\r\n100000\r\n" + mib + "\r\n", "1\r\nx\r\n0\r\n\r\n"},
       63, ""},
      {"closed without an answer", {}, 52, ""},
      {"closed inside the body", {ok + "Content-Length: 10\r\n\r\n{\"a\""}, 18, ""},
      {"not HTTP", {"hello\r\n\r\n"}, 8, ""},
  };
  for (const Case& c : cases) {
    CannedServer server(c.pieces);
    mcd::HttpClient client(server.url());
    EXPECT_EQ(client.Send("{}"), c.code) << c.name;
    EXPECT_EQ(client.TooLarge(), c.code == 63) << c.name;
    std::string body;
    EXPECT_EQ(client.Recv(body), c.code == 0 ? static_cast<int>(c.body.size()) : -1) << c.name;
    EXPECT_TRUE(body == c.body) << c.name;
  }
  EXPECT_EQ(mcd::HttpClient("https://127.0.0.1/").Send("{}"), 1);
  EXPECT_EQ(mcd::HttpClient("no url").Send("{}"), 3);
}

TEST(HttpClient, AStopRequestEndsAnExchangeTheServerLeavesUnanswered) {
  CannedServer server({"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n{"}, true);
  std::thread stopper([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    mcd::RequestStop();
  });
  mcd::HttpClient client(server.url());
  // 42, not the time-out's 28: the stop ended it, long before the 30 s.
  EXPECT_EQ(client.Send("{}"), 42);
  stopper.join();
  mcd::ClearStopRequest();
}

}  // namespace

namespace {

TEST(HttpClient, AConnectionTheServerNeverTakesTimesOutAfterFiveSeconds) {
  // A listener with a full queue that never accepts: the kernel drops further SYNs, so
  // the next connect stays under way.
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&addr), len), 0);
  ASSERT_EQ(listen(listener, 0), 0);
  getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len);
  const int filler = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(connect(filler, reinterpret_cast<sockaddr*>(&addr), len), 0);
  mcd::HttpClient client("http://127.0.0.1:" + std::to_string(ntohs(addr.sin_port)) + "/");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(client.Send("{}"), 28);
  // the connect time-out, not the 30 s of the whole transfer
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
  close(filler);
  close(listener);
}

}  // namespace
