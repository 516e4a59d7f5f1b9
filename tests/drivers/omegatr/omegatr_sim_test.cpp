#include <gtest/gtest.h>

#include <chrono>

#include "drivers/base/exceptions.h"
#include "drivers/omegatr/omegatr_link.h"
#include "drivers/vkt9/link_peer.h"

TEST(OMEGATRSimulator, AnswersTheLinkLayer) {
  linktest::LogCapture log;
  mcdtest::TempRoot root;
  const std::string link = root.tmp("omegatr");
  mcdtest::ChildProcess sim;
  ASSERT_TRUE(sim.Start({"python3", mcdtest::SourcePath("tools/omegatr_sim.py"), "--link", link, "--address", "3"}));
  ASSERT_TRUE(mcdtest::WaitFor([&] { return mcdtest::FileExists(link); }, std::chrono::seconds(15))) << sim.Stderr();

  linktest::LinkBench bench(link);
  COMEGATRLowLevelConnector omega(bench.connector.get(), false);
  omega.SetNetAddr(3);

  unsigned char read[] = {0, 4, 0x00, 0x05, 0x00, 0x02};
  auto view = omega.SendString(read, sizeof read, "ReadCurrent");
  ASSERT_FALSE(view.empty()) << sim.Stderr();
  ASSERT_EQ(view.length, 7);
  EXPECT_EQ(view.data[0], 3);
  EXPECT_EQ(view.data[2], 4);
  EXPECT_EQ(view.data[4], 16);  // register 5 holds 5 * 3 + 1
  EXPECT_EQ(view.data[6], 19);

  unsigned char version[] = {0, 104};
  view = omega.SendString(version, sizeof version, "GetVersion");
  ASSERT_FALSE(view.empty());
  EXPECT_EQ(view.length, 4);

  unsigned char command[] = {0, 100, 1};
  EXPECT_FALSE(omega.SendString(command, sizeof command, "Command").empty());
  EXPECT_EQ(omega.GetLastError(), 0);
}
