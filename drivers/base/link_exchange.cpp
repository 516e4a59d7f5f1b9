#include "drivers/base/link_exchange.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "drivers/base/exceptions.h"
#include "log/logger.h"
#include "transport/connector.h"

namespace mcd {

namespace {

// Whole seconds of a clock that does not jump with the wall clock.
long MonotonicSeconds() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long>(ts.tv_sec);
}

void Pause(long us) {
  if (us > 0) usleep(static_cast<useconds_t>(us));
}

}  // namespace

int LineSpeed(const CConnector* connector) {
  if (connector == nullptr) return 9600;
  auto found = connector->GetParams().find("speed");
  const int baud = found == connector->GetParams().end() ? 0 : atoi(found->second.c_str());
  return baud > 0 ? baud : 9600;
}

// 64-bit: 267 bytes of 10 bits in microseconds pass the 32-bit range of the controller.
// At most 5 s, the longest an answer may take to read: at very slow speeds the wait
// stays short of the 10 s a stop may take.
long LinkPolicy::PartialReadPauseUs(int bytesDue) const {
  const int64_t wire = static_cast<int64_t>(bytesDue) * 10 * 1000000 / (baud > 0 ? baud : 9600);
  return static_cast<long>(std::min<int64_t>(wire + wire / 10 + 20000, 5000000));
}

LinkReply RunAttempts(const RetryPolicy& policy, CConnector& connector, const unsigned char* frame,
                      const std::function<LinkReply(int)>& attempt) {
  for (int n = 0; n < policy.attempts; ++n) {
    try {
      return attempt(n);
    } catch (const CWrongPacketException&) {
      policy.AfterFailure(LinkEvent::kResend, frame, connector);
      if (!policy.texts.resend.empty()) LOG_CRIT(policy.texts.resend.c_str(), n);
    } catch (const LinkQuietRetry&) {
    }
  }
  policy.AfterFailure(LinkEvent::kGiveUp, frame, connector);
  throw CWrongPacketException();
}

LinkExchange::LinkExchange(CConnector* connector, bool led, const LinkPolicy& policy)
    : m_connector(connector), m_led(led), m_policy(policy) {}

LinkReply LinkExchange::Exchange(const unsigned char* frame, int length, const char* funcName, bool tolerate) {
  if (m_connector == nullptr) throw CDisconnectException();
  m_lastError = 0;
  return RunAttempts(m_policy, *m_connector, frame,
                     [&](int) { return Attempt(frame, length, funcName, tolerate); });
}

void LinkExchange::Write(const unsigned char* frame, int length) {
  if (m_policy.flushBeforeSend) m_connector->flush();
  Pause(m_policy.pauseBeforeWriteUs);
  m_policy.Trace(LinkStep::kWrite, frame, length);
  if (m_connector->WriteBuffer(frame, static_cast<unsigned short>(length), m_led) < length) {
    std::memset(m_answer, 0, sizeof m_answer);
    if (!m_policy.texts.shortWrite.empty()) LOG_CRIT("%s", m_policy.texts.shortWrite.c_str());
    m_policy.AfterFailure(LinkEvent::kShortWrite, frame, *m_connector);
    throw CDisconnectException();
  }
  Pause(m_policy.pauseAfterWriteUs);
}

LinkReply LinkExchange::Refuse(LinkEvent event, const unsigned char* frame, bool tolerate) {
  m_policy.AfterFailure(event, frame, *m_connector);
  if (tolerate) return LinkReply();
  throw CDisconnectException();
}

LinkReply LinkExchange::Attempt(const unsigned char* frame, int length, const char* funcName, bool tolerate) {
  std::memset(m_answer, 0, sizeof m_answer);
  Write(frame, length);
  const int header = m_policy.HeaderLength(frame, length);
  if (!ReadCount(m_answer, header)) return Refuse(LinkEvent::kReadTimeLimit, frame, tolerate);
  m_policy.Trace(LinkStep::kHeader, m_answer, header);
  const int error = m_policy.EarlyError(frame, m_answer, funcName);
  if (error >= 0) {
    m_lastError = error;
    return Refuse(LinkEvent::kErrorAnswer, frame, tolerate);
  }
  const int rest = m_policy.RestLength(frame, m_answer);
  if (rest < 0 || header + rest > kBufferSize) {
    if (!m_policy.texts.wrongType.empty()) LOG_CRIT("%s", m_policy.texts.wrongType.c_str());
    return Refuse(LinkEvent::kWrongType, frame, false);
  }
  if (rest > 0 && !ReadCount(m_answer + header, rest)) return Refuse(LinkEvent::kReadTimeLimit, frame, tolerate);
  const int total = header + rest;
  m_policy.Trace(LinkStep::kReply, m_answer, total);
  if (!m_policy.CheckReply(m_answer, total)) return Refuse(LinkEvent::kWrongChecksum, frame, false);
  const int verdict = m_policy.Verdict(frame, m_answer, total, funcName);
  m_lastError = verdict < 0 ? 0 : verdict;
  if (verdict >= 0 && !tolerate) return Refuse(LinkEvent::kRejected, frame, false);
  m_policy.Trace(LinkStep::kDone, m_answer, m_lastError);
  if (verdict >= 0) return Refuse(LinkEvent::kTolerated, frame, true);
  LinkReply reply;
  reply.data = m_answer;
  reply.length = m_policy.ViewLength(m_answer, total);
  return reply;
}

bool LinkExchange::ReadCount(unsigned char* dest, int count) {
  const LinkTexts& texts = m_policy.texts;
  if (!texts.readWant.empty()) LOG_DEBUG(texts.readWant.c_str(), count);
  const long start = MonotonicSeconds();
  int got = 0;
  // An answer on its way is let in whole before it is read: read as it arrives, every
  // answer longer than a few characters would come in pieces, each piece a warning.
  // Where the line cannot tell its waiting bytes, reading starts at once.
  m_connector->WaitForBytes(count, m_policy.PartialReadPauseUs(count), false);
  for (;;) {
    if (m_policy.readLimitSeconds > 0 && MonotonicSeconds() - start >= m_policy.readLimitSeconds) return false;
    const int n = m_connector->ReadBuffer(dest + got, static_cast<unsigned short>(count - got), m_led);
    if (n < 0) {
      if (!texts.readFailed.empty()) LOG_ERR(texts.readFailed.c_str(), count, got);
      throw CWrongPacketException();
    }
    got += n;
    if (got > count) {
      if (!texts.readMore.empty()) LOG_ERR("%s", texts.readMore.c_str());
      throw CWrongPacketException();
    }
    if (got == count) return true;
    if (!texts.readPartial.empty()) LOG_WARNING(texts.readPartial.c_str(), got, count);
    // Ends as soon as the rest is there; at the latest after its wire time and a margin.
    m_connector->WaitForBytes(count - got, m_policy.PartialReadPauseUs(count - got));
  }
}

}  // namespace mcd
