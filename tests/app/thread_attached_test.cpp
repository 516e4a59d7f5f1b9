#include "app/thread_attached.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>

#include "support/test_support.h"

namespace {

using std::chrono::seconds;

class Worker : public myThreadAttached {
 public:
  explicit Worker(bool block) : m_block(block) {}
  ~Worker() override { stop(); }
  void functionThread() override {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    termBlocked = sigismember(&mask, SIGTERM) == 1 && sigismember(&mask, SIGINT) == 1 &&
                  sigismember(&mask, SIGQUIT) == 1;
    pthread_attr_t attr;
    if (pthread_getattr_np(pthread_self(), &attr) == 0) {
      size_t size = 0;
      pthread_attr_getstacksize(&attr, &size);
      stackSize = size;
      pthread_attr_destroy(&attr);
    }
    ++runs;
    while (m_block) {
      usleep(1000);  // a cancellation point
      ++spins;
    }
    finished = true;
  }
  std::atomic<int> runs{0};
  std::atomic<bool> finished{false}, termBlocked{false};
  std::atomic<long> spins{0};
  std::atomic<size_t> stackSize{0};

 private:
  const bool m_block;
};

TEST(ThreadAttached, RunsTheBodyWithSignalsBlockedOnItsOwnStackAndLogsStartAndStop) {
  mcdtest::LogCapture log(2);
  Worker w(false);
  w.start(&w, "worker one");
  ASSERT_TRUE(mcdtest::WaitFor([&] { return log.Count("STOPED") == 1; }, seconds(10)));
  w.stop();
  EXPECT_TRUE(w.termBlocked.load());
  // the stack asked for, not the 8 MiB default a request below the C library's floor leaves
  EXPECT_EQ(myThreadAttached::StackSize(), w.stackSize.load());
  EXPECT_LE(w.stackSize.load(), 1024u * 1024u);
  const std::string pid = std::to_string(getpid());
  EXPECT_EQ(1u, log.Count("Crit: \x1b[1;35mA new thread \"worker one\" has been STARTED with PID = " + pid +
                          ".\n\x1b[0m\n"));
  EXPECT_EQ(1u, log.Count("Crit: \x1b[1;35mThread \"worker one\" (PID = " + pid + ") has been STOPED.\n\x1b[0m\n"));
}

TEST(ThreadAttached, SecondStartIsRefusedAndStopCancelsABusyThread) {
  mcdtest::LogCapture log(2);
  Worker w(true);
  w.start(&w, "first");
  ASSERT_TRUE(mcdtest::WaitFor([&] { return w.spins.load() > 3; }, seconds(10)));
  w.start(&w, "second");
  EXPECT_EQ("first", w.threadName());
  EXPECT_EQ(1u, log.Count("Crit: \x1b[1;31m\t====> Attempting to restart thread \"second\"!\n\x1b[0m"));
  w.stop();
  EXPECT_FALSE(w.isRunning());
  const long after = w.spins.load();
  usleep(20000);
  EXPECT_EQ(after, w.spins.load());  // joined: it no longer runs
  EXPECT_EQ(0u, log.Count("STOPED"));
  w.start(&w, "again");  // stopped, it can be started again
  ASSERT_TRUE(mcdtest::WaitFor([&] { return w.runs.load() == 2; }, seconds(10)));
}

}  // namespace
