// One traffic lamp of the controller: a file under the LED root into which the
// character 1 (on) or 0 (off) is written. A flash is requested by the transfer
// thread and carried out by the lamp's own thread.
#pragma once

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

 private:
  void Write(char c);
  // Writes the character and logs the new state ("shines" or "off"). Kept out of
  // line so that the flash loop's frame holds no locals while it is cancelled.
  __attribute__((noinline)) void Show(char c, const char* state);

  std::string m_path;
  std::ofstream m_stream;
  unsigned int m_flashMicros;
  std::atomic<bool> m_request{false};
  // Guards the stream: the flash loop and SwichLED(false) both write to it.
  std::mutex m_streamMutex;
};
