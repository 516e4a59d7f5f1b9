#include <gtest/gtest.h>

#include <chrono>

#include "drivers/base/exceptions.h"
#include "drivers/vkt9/link_peer.h"
#include "drivers/vkt9/vkt9_link.h"

TEST(VKT9Simulator, AnswersTheLinkLayer) {
  linktest::LogCapture log;
  mcdtest::TempRoot root;
  const std::string link = root.tmp("vkt9");
  mcdtest::ChildProcess sim;
  ASSERT_TRUE(sim.Start({"python3", mcdtest::SourcePath("tools/vkt9_sim.py"), "--link", link, "--address", "5"}));
  ASSERT_TRUE(mcdtest::WaitFor([&] { return mcdtest::FileExists(link); }, std::chrono::seconds(15))) << sim.Stderr();

  linktest::LinkBench bench(link);
  CVKT9LowLevelConnector vkt9(bench.connector.get(), false);
  vkt9.SetNetAddr(5);

  const unsigned char read[] = {0x03, 0x00, 0x02, 0x00, 0x03};
  auto view = vkt9.SendString(read, sizeof read, "ReadRegisters");
  ASSERT_FALSE(view.empty()) << sim.Stderr();
  ASSERT_EQ(view.length, 9);
  EXPECT_EQ(view.data[0], 5);
  EXPECT_EQ(view.data[2], 6);
  // register 3 holds 3 * 7 + 3
  EXPECT_EQ(view.data[5], 0);
  EXPECT_EQ(view.data[6], 24);

  const unsigned char block[] = {0x41, 0x38};
  view = vkt9.SendString(block, sizeof block, "ReadBlock");
  ASSERT_FALSE(view.empty());
  EXPECT_EQ(view.length, 263);

  const unsigned char clock[] = {0x42};
  view = vkt9.SendString(clock, sizeof clock, "ReadClock");
  ASSERT_FALSE(view.empty());
  EXPECT_EQ(view.length, 8);

  const unsigned char unknown[] = {0x2B, 0x00};
  EXPECT_TRUE(vkt9.SendString(unknown, sizeof unknown, "Unknown", true).empty());
  EXPECT_EQ(vkt9.GetLastError(), 1);
}
