#include "transport/led.h"

#include <pthread.h>
#include <unistd.h>

#include "log/logger.h"

CLed::CLed(const std::string& path, unsigned int flashMicros)
    : m_path(path), m_stream(path, std::ios::out | std::ios::trunc), m_flashMicros(flashMicros) {
  sem_init(&m_wake, 0, 0);
  // A lamp file that cannot be opened leaves the stream failed; every later
  // write is then ignored by the stream itself.
  Write('0');
  m_request.store(false);
}

CLed::~CLed() {
  // The flash loop uses the stream: it is cancelled and joined before the
  // lamp is switched off for good.
  stop();
  Write('0');
  std::lock_guard<std::mutex> lock(m_streamMutex);
  m_stream.close();
  sem_destroy(&m_wake);
}

void CLed::Write(char c) {
  NoCancel guard;
  std::lock_guard<std::mutex> lock(m_streamMutex);
  m_stream.put(c);
  m_stream.flush();
}

void CLed::SwichLED(bool on) {
  if (on) {
    // Only the raising of the flag wakes the lamp: the many transfers of one
    // exchange cost one atomic exchange each and one wake-up in all.
    if (!m_request.exchange(true)) sem_post(&m_wake);
    return;
  }
  if (m_request.exchange(false)) {
    Write('0');
    LOG_INFO("CLed::SwichLED - Lamp, whose name is a %s, off.\n", m_path.c_str());
  }
}

void CLed::Show(char c, const char* state) {
  NoCancel guard;  // the log file is opened and closed per line
  Write(c);
  LOG_INFO("CLed::SwichLED - Lamp, whose name is a %s, %s.\n", m_path.c_str(), state);
}

// Cancelled only in its waits and sleeps; it keeps no locals of its own, so the
// unwinding leaves nothing behind on the thread's stack. A wake-up whose request was
// withdrawn by SwichLED(false) meanwhile finds the flag clear and waits again.
void CLed::functionThread() {
  for (;;) {
    while (sem_wait(&m_wake) != 0) {
    }
    if (m_request.exchange(false)) {
      Show('1', "shines");
      usleep(m_flashMicros);
      Show('0', "off");
      usleep(kGapMicros);
    }
    pthread_testcancel();
  }
}
