#include "app/thread_attached.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>

#include "log/logger.h"
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
    entered = true;
    while (m_block) {
      usleep(1000);  // a cancellation point
      ++spins;
    }
    finished = true;
  }
  std::atomic<int> runs{0};
  std::atomic<bool> entered{false}, finished{false}, termBlocked{false};
  std::atomic<long> spins{0};
  std::atomic<size_t> stackSize{0};

 private:
  const bool m_block;
};

class ThreadAttachedTest : public ::testing::Test {
 protected:
  void SetUp() override {
    log = logger::getInstance(path.c_str(), false);
    log->setLevel(2);
  }
  void TearDown() override { delete log; }
  std::string Log() { return mcdtest::ReadFile(path); }

  mcdtest::TempRoot root;
  std::string path = root.tmp("thread.log");
  logger* log = nullptr;
};

TEST_F(ThreadAttachedTest, RunsTheBodyAndLogsStartAndStop) {
  Worker w(false);
  EXPECT_FALSE(w.isRunning());
  w.start(&w, "worker one");
  EXPECT_TRUE(w.isRunning());
  EXPECT_EQ("worker one", w.threadName());
  ASSERT_TRUE(mcdtest::WaitFor([&] { return w.finished.load(); }, seconds(10)));
  ASSERT_TRUE(mcdtest::WaitFor([&] { return Log().find("STOPED") != std::string::npos; }, seconds(10)));
  w.stop();
  EXPECT_FALSE(w.isRunning());
  EXPECT_EQ(1, w.runs.load());
  EXPECT_EQ(getpid(), w.threadPid());
  // the stack asked for is the one the thread got, not the 8 MiB default that a
  // request below the C library's floor leaves
  EXPECT_EQ(myThreadAttached::StackSize(), w.stackSize.load());
  EXPECT_LE(w.stackSize.load(), 1024u * 1024u);

  const std::string pid = std::to_string(getpid());
  std::string text = Log();
  EXPECT_NE(std::string::npos,
            text.find("Crit: \x1b[1;35mA new thread \"worker one\" has been STARTED with PID = " + pid + ".\n\x1b[0m\n"))
      << text;
  EXPECT_NE(std::string::npos,
            text.find("Crit: \x1b[1;35mThread \"worker one\" (PID = " + pid + ") has been STOPED.\n\x1b[0m\n"))
      << text;
}

TEST_F(ThreadAttachedTest, SecondStartIsRefusedWhileRunning) {
  Worker w(true);
  w.start(&w, "first");
  ASSERT_TRUE(mcdtest::WaitFor([&] { return w.entered.load(); }, seconds(10)));
  w.start(&w, "second");
  EXPECT_EQ("first", w.threadName());
  EXPECT_NE(std::string::npos, Log().find("Crit: \x1b[1;31m\t====> Attempting to restart thread \"second\"!\n\x1b[0m"));
  w.stop();
  EXPECT_EQ(1, w.runs.load());
}

TEST_F(ThreadAttachedTest, StopCancelsABusyThreadWithoutItsStopMessage) {
  Worker w(true);
  w.start(&w, "busy");
  ASSERT_TRUE(mcdtest::WaitFor([&] { return w.spins.load() > 3; }, seconds(10)));
  w.stop();
  EXPECT_FALSE(w.isRunning());
  EXPECT_FALSE(w.finished.load());
  long after = w.spins.load();
  usleep(20000);
  EXPECT_EQ(after, w.spins.load());  // joined: it no longer runs
  EXPECT_EQ(std::string::npos, Log().find("STOPED"));
  w.stop();  // a second stop is harmless

  // stopped, it can be started again
  w.start(&w, "busy again");
  ASSERT_TRUE(mcdtest::WaitFor([&] { return w.runs.load() == 2; }, seconds(10)));
}

TEST_F(ThreadAttachedTest, WorkersRunWithTheTerminationSignalsBlocked) {
  sigset_t before, after;
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  Worker w(false);
  w.start(&w, "masked");
  ASSERT_TRUE(mcdtest::WaitFor([&] { return w.finished.load(); }, seconds(10)));
  EXPECT_TRUE(w.termBlocked.load());
  // the starting thread's own mask is unchanged
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  EXPECT_EQ(sigismember(&before, SIGTERM), sigismember(&after, SIGTERM));
  EXPECT_EQ(sigismember(&before, SIGINT), sigismember(&after, SIGINT));
}

}  // namespace
