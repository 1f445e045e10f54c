// SPDX-License-Identifier: Apache-2.0
#include "platform/base/vm_clock.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "testing/temp_dir.h"
#include "testing/vm_clock_page.h"

namespace base {
namespace {

using skorra::VmClockPage;

TEST(VmClockTest, TheMarkerIsReadAsTheHypervisorWritesIt) {
  const skorra::TempDir dir;
  skorra::WriteFile(dir / "page", VmClockPage(0x0123456789abcdef));
  const auto clock = VmClock::Open(dir / "page");
  ASSERT_NE(clock, nullptr);
  EXPECT_EQ(clock->disruption_marker(), 0x0123456789abcdefu);
  skorra::SetVmClockMarker(dir / "page", 0xfedcba9876543210);
  EXPECT_EQ(clock->disruption_marker(), 0xfedcba9876543210u) << "the change is seen without opening again";
}

TEST(VmClockTest, WhatIsNoPageIsNotOpened) {
  struct Case {
    std::string bytes;
    bool is_opened;
    const char* what;
  };
  std::string other_magic = VmClockPage(1);
  other_magic[3] = 'k';
  std::string small_size = VmClockPage(1);
  small_size[4] = 23;
  small_size[5] = 0;
  const Case cases[] = {
      {VmClockPage(1), true, "a page"},
      {VmClockPage(1).substr(0, 24), true, "all that is read of one"},
      {VmClockPage(1).substr(0, 23), false, "a byte less"},
      {"", false, "nothing"},
      {other_magic, false, "another magic number"},
      {small_size, false, "one that says that it ends before the marker does"},
  };
  const skorra::TempDir dir;
  for (const Case& c : cases) {
    skorra::WriteFile(dir / "page", c.bytes);
    EXPECT_EQ(VmClock::Open(dir / "page") != nullptr, c.is_opened) << c.what;
  }
}

TEST(VmClockTest, WhatIsNeitherAFileNorADeviceWithAPageIsNotOpened) {
  const skorra::TempDir dir;
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
  for (const std::string& path :
       {dir / "nothing", dir / "fifo", dir / ".", std::string("/dev/null"), std::string("/dev/zero")}) {
    EXPECT_EQ(VmClock::Open(path), nullptr) << path;
  }
}

}  // namespace
}  // namespace base
