#include "support/test_support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <pty.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

#include "log/logger.h"
#include "server/paths.h"

extern char** environ;

namespace mcdtest {

std::string SourcePath(const std::string& relative) { return std::string(MCD_SOURCE_DIR) + "/" + relative; }
std::string MainBinary() { return MCD_MAIN_BINARY; }

namespace {
bool Keep() {
  const char* keep = getenv("MCD_KEEP_TEST_ROOT");
  return keep && *keep;
}
}  // namespace

TempRoot::TempRoot() {
  const char* base = getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/mcdtest.XXXXXX";
  std::vector<char> buf(pattern.begin(), pattern.end());
  buf.push_back('\0');
  char* made = mkdtemp(buf.data());
  m_root = made ? made : "";
  for (const char* sub : {"/tmp", "/storage", "/leds"}) mkdir((m_root + sub).c_str(), 0755);
  WriteFile(leds("kr_red"), "0");
  WriteFile(leds("lan"), "0");
  for (const auto& kv : env()) setenv(kv.first.c_str(), kv.second.c_str(), 1);
  mcd::paths::Reset();
}

TempRoot::~TempRoot() {
  std::error_code ignored;
  if (!Keep()) std::filesystem::remove_all(m_root, ignored);
}

std::map<std::string, std::string> TempRoot::env() const {
  return {{"MCD_TMP_DIR", m_root + "/tmp/"}, {"MCD_STORAGE_DIR", m_root + "/storage/"},
          {"MCD_LEDS_DIR", m_root + "/leds/"}};
}

bool FileExists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

std::vector<std::string> ReadLines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

std::vector<std::string> ListDir(const std::string& path) {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(path, error)) names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

namespace {
time_t LocalStart(time_t t, bool day) {
  struct tm tmv;
  localtime_r(&t, &tmv);
  if (day) tmv.tm_hour = 0;
  tmv.tm_min = tmv.tm_sec = 0;
  tmv.tm_isdst = -1;
  return mktime(&tmv);
}
void RemoveCaptureFile() {
  if (!Keep()) unlink(LogCapture::Path().c_str());
}
}  // namespace

time_t LocalHourStart(time_t t) { return LocalStart(t, false); }
time_t LocalMidnight(time_t t) { return LocalStart(t, true); }

const std::string& LogCapture::Path() {
  static const std::string path = [] {
    char name[] = "/tmp/mcdtest_log_XXXXXX";
    int fd = mkstemp(name);
    if (fd >= 0) close(fd);
    return std::string(name);
  }();
  // registered once the name is complete, so the removal runs before the name goes
  static const bool removeAtExit = atexit(RemoveCaptureFile) == 0;
  (void)removeAtExit;
  return path;
}

LogCapture::LogCapture(int level) {
  logger* log = logger::getInstance(Path().c_str(), false);
  log->setStderr(false);
  log->setMaxSize(1 << 30);
  log->setLevel(level);
  m_start = ReadFile(Path()).size();
}

std::string LogCapture::Text() const {
  std::string all = ReadFile(Path());
  return all.size() > m_start ? all.substr(m_start) : std::string();
}

size_t Count(const std::string& text, const std::string& needle) {
  size_t n = 0;
  for (size_t pos = text.find(needle); pos != std::string::npos; pos = text.find(needle, pos + 1)) ++n;
  return n;
}

size_t LogCapture::Count(const std::string& needle) const { return mcdtest::Count(Text(), needle); }

::testing::AssertionResult ArchivesAsHeld(const std::string& heldOut, const std::string& storageRoot,
                                          const std::vector<std::string>& meters, time_t meterTime) {
  std::vector<std::string> argv = {"/usr/bin/python3", SourcePath("tools/archive_check.py"), "--held-out", heldOut,
                                   "--storage", storageRoot, "--meter-time", std::to_string(meterTime)};
  for (const std::string& m : meters) argv.insert(argv.end(), {"--meter", m});
  ChildProcess check;
  int status = -1;
  if (!check.Start(argv) || !check.Wait(std::chrono::seconds(60), &status))
    return ::testing::AssertionFailure() << "the checker did not run";
  if (status == 0 && check.Stdout().find("lost 0 duplicated 0 wrong 0") != std::string::npos)
    return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << check.Stdout() << check.Stderr();
}

FakeClock::FakeClock(time_t start) : m_mono(start) { mcd::SetClock(this); }

FakeClock::~FakeClock() {
  if (&mcd::GetClock() == this) mcd::SetClock(nullptr);
}

void FakeClock::Sleep(unsigned seconds) {
  pthread_testcancel();
  m_mono.fetch_add(seconds);
  m_sleeps.fetch_add(1);
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_slept.push_back(seconds);
  }
  if (onSleep) onSleep(Now());
  if (pauseMicros) usleep(pauseMicros);
  pthread_testcancel();
}

void FakeClock::Set(time_t t) {
  m_mono.store(t);
  m_offset.store(0);
}

void FakeClock::Advance(time_t seconds) { m_mono.fetch_add(seconds); }
void FakeClock::Step(time_t delta) { m_offset.fetch_add(delta); }

std::vector<unsigned> FakeClock::Slept() {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_slept;
}

void FakeClock::ClearSlept() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_slept.clear();
}

bool WaitFor(const std::function<bool()>& pred, std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (true) {
    if (pred()) return true;
    if (std::chrono::steady_clock::now() >= deadline) return pred();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

ChildProcess::~ChildProcess() {
  if (m_pid > 0 && Running()) {
    kill(m_pid, SIGKILL);
    int status;
    waitpid(m_pid, &status, 0);
  }
  if (!m_out.empty()) unlink(m_out.c_str());
  if (!m_err.empty()) unlink(m_err.c_str());
}

bool ChildProcess::Start(const std::vector<std::string>& argv, const std::map<std::string, std::string>& extraEnv) {
  char outName[] = "/tmp/mcdchild.out.XXXXXX";
  char errName[] = "/tmp/mcdchild.err.XXXXXX";
  int outFd = mkstemp(outName);
  int errFd = mkstemp(errName);
  m_out = outName;
  m_err = errName;

  std::vector<std::string> envStrings;
  for (char** e = environ; *e; ++e)
    if (!extraEnv.count(std::string(*e).substr(0, std::string(*e).find('=')))) envStrings.push_back(*e);
  for (const auto& kv : extraEnv) envStrings.push_back(kv.first + "=" + kv.second);
  std::vector<char*> envp, args;
  for (auto& s : envStrings) envp.push_back(const_cast<char*>(s.c_str()));
  envp.push_back(nullptr);
  // A cross-built suite runs under an emulator (MCD_TEST_EMULATOR="qemu-arm -L <sysroot>"),
  // and so does the daemon it starts.
  std::vector<std::string> argCopy;
  const char* emulator = getenv("MCD_TEST_EMULATOR");
  if (emulator && !argv.empty() && argv[0] == MainBinary()) {
    std::istringstream words(emulator);
    for (std::string w; words >> w;) argCopy.push_back(w);
  }
  argCopy.insert(argCopy.end(), argv.begin(), argv.end());
  for (auto& s : argCopy) args.push_back(const_cast<char*>(s.c_str()));
  args.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, outFd, 1);
  posix_spawn_file_actions_adddup2(&actions, errFd, 2);
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  // Children start with default signal dispositions and an empty mask.
  sigset_t all, none;
  sigfillset(&all);
  sigemptyset(&none);
  posix_spawnattr_setsigdefault(&attr, &all);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  int rc = posix_spawnp(&m_pid, args[0], &actions, &attr, args.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  close(outFd);
  close(errFd);
  if (rc != 0) m_pid = -1;
  return rc == 0;
}

bool ChildProcess::Signal(int sig) { return m_pid > 0 && kill(m_pid, sig) == 0; }

bool ChildProcess::Wait(std::chrono::milliseconds timeout, int* status) {
  if (m_pid <= 0 || !WaitFor([&] { return !Running(); }, timeout)) return false;
  if (status) *status = m_status;
  return true;
}

bool ChildProcess::Running() {
  int raw = 0;
  if (m_pid <= 0 || waitpid(m_pid, &raw, WNOHANG) != m_pid) return m_pid > 0;
  m_status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
  m_pid = -1;
  return false;
}

std::string ChildProcess::Stdout() const { return ReadFile(m_out); }
std::string ChildProcess::Stderr() const { return ReadFile(m_err); }

namespace {
// Ports handed out by FreeLoopbackPort stay bound (not listening) until a ConfigServer
// takes them, so no other test picks the same port meanwhile; a connect to them is
// refused, as with a server that is not there.
std::mutex g_reservedMutex;
std::map<int, int> g_reserved;  // port -> bound socket

void ReleasePort(int port) {
  std::lock_guard<std::mutex> lock(g_reservedMutex);
  auto it = g_reserved.find(port);
  if (it == g_reserved.end()) return;
  close(it->second);
  g_reserved.erase(it);
}
}  // namespace

int FreeLoopbackPort() {
  int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = 0;
  bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  socklen_t len = sizeof addr;
  getsockname(s, reinterpret_cast<sockaddr*>(&addr), &len);
  int port = ntohs(addr.sin_port);
  std::lock_guard<std::mutex> lock(g_reservedMutex);
  g_reserved[port] = s;
  return port;
}

ConfigServer::~ConfigServer() { Stop(); }

bool ConfigServer::Start(const std::string& configJson, int port, const std::vector<std::string>& options) {
  char dirName[] = "/tmp/mcdconf.XXXXXX";
  if (!mkdtemp(dirName)) return false;
  m_dir = dirName;
  WriteFile(m_dir + "/config.json", configJson);
  // The server binds the port itself (0: any free one) and names it in a file once it
  // listens, so a test never talks to another test's server.
  const std::string portFile = m_dir + "/port";
  if (port) ReleasePort(port);
  std::vector<std::string> argv = {"python3",  SourcePath("tools/config_server.py"), "--port", std::to_string(port),
                                   "--port-file", portFile, "--config", m_dir + "/config.json",
                                   "--log", m_dir + "/requests.log"};
  argv.insert(argv.end(), options.begin(), options.end());
  if (!m_process.Start(argv)) return false;
  bool up = WaitFor([&] { return !ReadFile(portFile).empty() || !m_process.Running(); }, std::chrono::seconds(30));
  m_port = up ? atoi(ReadFile(portFile).c_str()) : 0;
  return m_port > 0 && (!port || m_port == port);
}

void ConfigServer::Stop() {
  if (m_process.Running()) {
    m_process.Signal(SIGTERM);
    int status;
    if (!m_process.Wait(std::chrono::seconds(5), &status)) m_process.Signal(SIGKILL), m_process.Wait(std::chrono::seconds(5), &status);
  }
}

std::string ConfigServer::url() const { return "http://127.0.0.1:" + std::to_string(m_port) + "/"; }

std::vector<std::string> ConfigServer::Requests() const { return ReadLines(m_dir + "/requests.log"); }

PtyPair::PtyPair() {
  char name[256] = {0};
  if (openpty(&m_master, &m_slave, name, nullptr, nullptr) == 0) {
    m_name = name;
    termios t;
    tcgetattr(m_master, &t);
    cfmakeraw(&t);
    tcsetattr(m_master, TCSANOW, &t);
  }
}

PtyPair::~PtyPair() {
  if (m_master >= 0) close(m_master);
  if (m_slave >= 0) close(m_slave);
}

void PtyPair::Write(const std::vector<unsigned char>& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::write(m_master, bytes.data() + done, bytes.size() - done);
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
}

std::vector<unsigned char> PtyPair::Read(size_t n, std::chrono::milliseconds timeout) {
  std::vector<unsigned char> out;
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (out.size() < n) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) break;
    pollfd p{m_master, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left.count())) <= 0) break;
    unsigned char buf[512];
    ssize_t got = ::read(m_master, buf, std::min(sizeof buf, n - out.size()));
    if (got <= 0) break;
    out.insert(out.end(), buf, buf + got);
  }
  return out;
}

}  // namespace mcdtest
