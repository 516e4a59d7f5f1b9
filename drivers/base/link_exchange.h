// The one send / receive / check / retry skeleton of the binary meter links.
//
// How a family plugs in
// ---------------------
// A family (VKT-7, VKT-9, ESKO, ...) derives from LinkPolicy and fills in:
//   - attempts, flushBeforeSend, pauseBeforeWriteUs, pauseAfterWriteUs, readLimitSeconds;
//   - texts: the printf formats of the lines the link writes itself (see LinkTexts);
//   - HeaderLength(frame): bytes read first (the whole answer when its length follows
//     from the request alone, as with ESKO);
//   - RestLength(frame, header): bytes still due after the header, checksum included;
//     -1 for an answer type the family does not know ("wrong type": refused);
//   - EarlyError(...): an error answer recognised from its header alone (VKT-9, ESKO);
//     the rest of such an answer is not read;
//   - CheckReply(...): the checksum of the whole answer (the family logs a mismatch);
//   - Verdict(...): -1 for an accepted answer, else the error code (the family writes
//     its own log and debug-file lines);
//   - ViewLength(...): how much of the answer the caller sees;
//   - AfterFailure(event, frame, connector): the pauses, flushes and lines that follow
//     a failure;
//   - baud (the line's speed, LineSpeed(connector)) and PartialReadPauseUs(bytesDue): the
//     longest wait after a read that brought too few bytes; the wait ends as soon as
//     the bytes due are there (CConnector::WaitForBytes);
//   - Trace(step, ...): debug lines and dumps at the steps of an exchange.
// Then LinkExchange(connector, led, policy).Exchange(frame, ...) runs one exchange.
//
// One exchange, per attempt: [flush] [pause] write (a short write is refused) - pause -
// read the header - early error check
// - size the rest - read the rest - checksum - verdict. A reply that does not arrive in
// full (the connector's time-out, -1) or arrives too long costs an attempt
// (CWrongPacketException inside, "resend" line); after the last attempt the exchange
// throws CWrongPacketException. Everything refused throws CDisconnectException at once,
// except error answers and rejected verdicts when the caller tolerates them: those give
// an empty reply and LastError() tells the code.
//
// Links with their own framing (OMEGA-TR reads characters between a colon and CR LF)
// derive from RetryPolicy and use RunAttempts alone: their attempt function throws CWrongPacketException for a
// retry with the resend line, or LinkQuietRetry for a retry they have already cleaned up.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

class CConnector;

namespace mcd {

// A checked answer: a pointer into the link's receive buffer, valid until the next
// exchange, and the length the caller may use. Empty for a tolerated error answer.
struct LinkReply {
  const unsigned char* data = nullptr;
  int length = 0;
  bool empty() const { return data == nullptr; }
};

// printf formats of the lines the exchange writes itself. An empty text is not written.
struct LinkTexts {
  std::string shortWrite;   // Crit; no arguments
  std::string readWant;     // Debug; bytes wanted
  std::string readFailed;   // Err; bytes wanted, bytes already read
  std::string readMore;     // Err; no arguments
  std::string readPartial;  // Warning; bytes already read, bytes wanted
  std::string wrongType;    // Crit; no arguments
  std::string resend;       // Crit; the attempt, counted from 0
};

enum class LinkEvent {
  kShortWrite,       // the request did not go out whole
  kErrorAnswer,      // EarlyError found an error answer
  kWrongType,        // RestLength did not know the answer
  kWrongChecksum,    // CheckReply failed
  kRejected,         // Verdict refused the answer and the caller does not tolerate it
  kTolerated,        // Verdict refused the answer and the caller tolerates it
  kReadTimeLimit,    // readLimitSeconds passed with the answer incomplete
  kResend,           // an attempt lost its answer; another follows
  kGiveUp,           // the last attempt lost its answer
};

enum class LinkStep { kWrite, kHeader, kReply, kDone };

// Thrown by an attempt of RunAttempts that failed and has cleaned up after itself:
// the next attempt follows without the resend line.
struct LinkQuietRetry {};

// What the retry skeleton needs of a family: attempts, texts and the clean-up after
// failures. Links with their own framing derive from this alone.
class RetryPolicy {
 public:
  virtual ~RetryPolicy() = default;

  int attempts = 3;
  LinkTexts texts;

  virtual void AfterFailure(LinkEvent event, const unsigned char* frame, CConnector& connector) const {}
};

// The whole exchange of a family with header-and-rest binary answers.
class LinkPolicy : public RetryPolicy {
 public:
  bool flushBeforeSend = false;  // drop stale input before every send
  unsigned pauseBeforeWriteUs = 0;
  unsigned pauseAfterWriteUs = 100000;
  int readLimitSeconds = 0;  // 0: a read ends only on the connector's time-out
  int baud = 9600;           // the line's speed, for the wait after a partial read

  virtual int HeaderLength(const unsigned char* frame, int frameLength) const = 0;
  virtual int RestLength(const unsigned char* frame, const unsigned char* header) const = 0;
  // The error code when the header is that of an error answer, else -1.
  virtual int EarlyError(const unsigned char* frame, const unsigned char* header, const char* funcName) const {
    return -1;
  }
  virtual bool CheckReply(const unsigned char* reply, int length) const = 0;
  // -1 for an accepted answer, else the error code. reply may be completed in place
  // (ESKO's one-byte answer takes the request's header).
  virtual int Verdict(const unsigned char* frame, unsigned char* reply, int length, const char* funcName) const = 0;
  virtual int ViewLength(const unsigned char* reply, int length) const { return length; }
  // The wire time of the bytes due at 10 bits a byte, + 10 % + 20 ms.
  virtual long PartialReadPauseUs(int bytesDue) const;
  // kWrite: the frame; kHeader: the header; kReply: the whole answer; kDone: the
  // verdict in count (not traced for a verdict that is about to throw).
  virtual void Trace(LinkStep step, const unsigned char* bytes, int count) const {}
};

// The configured "speed" of the connector's line; 9600 when there is none.
int LineSpeed(const CConnector* connector);

// Runs attempt(n) for n = 0 .. attempts-1 until one returns. CWrongPacketException
// from an attempt: AfterFailure(kResend), the resend line, the next attempt.
// LinkQuietRetry: the next attempt. After the last: AfterFailure(kGiveUp) and
// CWrongPacketException. frame is handed to AfterFailure.
LinkReply RunAttempts(const RetryPolicy& policy, CConnector& connector, const unsigned char* frame,
                      const std::function<LinkReply(int)>& attempt);

class LinkExchange {
 public:
  static constexpr int kBufferSize = 272;

  LinkExchange(CConnector* connector, bool led, const LinkPolicy& policy);
  LinkExchange(const LinkExchange&) = delete;
  LinkExchange& operator=(const LinkExchange&) = delete;

  // Sends the complete frame (checksum included) and returns the checked answer.
  // LastError() is 0 after an accepted answer, the code after a refused one.
  LinkReply Exchange(const unsigned char* frame, int length, const char* funcName, bool tolerate);

  // Reads exactly count bytes at dest: true; false when readLimitSeconds passed.
  // Throws CWrongPacketException on the connector's time-out or too many bytes.
  bool ReadCount(unsigned char* dest, int count);

  int LastError() const { return m_lastError; }
  const unsigned char* Answer() const { return m_answer; }
  CConnector* Connector() const { return m_connector; }

 private:
  LinkReply Attempt(const unsigned char* frame, int length, const char* funcName, bool tolerate);
  LinkReply Refuse(LinkEvent event, const unsigned char* frame, bool tolerate);
  void Write(const unsigned char* frame, int length);

  CConnector* m_connector;
  bool m_led;
  const LinkPolicy& m_policy;
  int m_lastError = 0;
  unsigned char m_answer[kBufferSize] = {};
};

}  // namespace mcd
