// One traffic lamp of the controller: a file under the LED root into which the
// character 1 (on) or 0 (off) is written. A flash is requested by the transfer
// thread and carried out by the lamp's own thread, which sleeps until a request
// comes: an idle lamp costs no processor time.
#pragma once

#include <semaphore.h>

#include <atomic>
#include <fstream>
#include <mutex>
#include <string>

#include "app/thread_attached.h"

class CLed : public myThreadAttached {
 public:
  CLed(const std::string& path, unsigned int flashMicros);
  ~CLed() override;

  void functionThread() override;
  void SwichLED(bool on);

  const std::string& GetPath() const { return m_path; }
  bool RequestPending() const { return m_request.load(); }

  // Pause after a flash before the next one may start, so that two flashes in a row
  // show as two.
  static constexpr unsigned int kGapMicros = 10000;

 private:
  void Write(char c);
  // Writes the character and logs the new state ("shines" or "off"). Kept out of
  // line so that the flash loop's frame holds no locals while it is cancelled.
  __attribute__((noinline)) void Show(char c, const char* state);

  std::string m_path;
  std::ofstream m_stream;
  unsigned int m_flashMicros;
  std::atomic<bool> m_request{false};
  // Posted once for each raising of the request; the lamp thread waits on it (a
  // cancellation point, so stop() ends the wait at once).
  sem_t m_wake;
  // Guards the stream: the flash loop and SwichLED(false) both write to it.
  std::mutex m_streamMutex;
};
