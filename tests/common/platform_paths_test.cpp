#include "common/platform_paths.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include "support/test_support.h"

TEST(PlatformPathTest, RealPathWithoutRoot) {
    unsetenv("AVRECORD_ROOT");
    EXPECT_EQ(PlatformPath(kCardMountPoint), "/media/SDCard/");
    EXPECT_EQ(PlatformPath(kCardDevice), "/dev/mmcblk1p1");
}

TEST(PlatformPathTest, TakenUnderRoot) {
    setenv("AVRECORD_ROOT", "/tmp/demo-root/", 1);
    EXPECT_EQ(PlatformPath(kCardMountPoint), "/tmp/demo-root/media/SDCard/");
    EXPECT_EQ(PlatformPath(kMountTable), "/tmp/demo-root/proc/mounts");
    EXPECT_EQ(StatusFilePath(), "/tmp/demo-root/tmp/avrecord-status.json");
    setenv("AVRECORD_ROOT", "", 1);
    EXPECT_EQ(PlatformPath(kSettingsFile), "/opt/app/config/CustomTools.cfg");
    unsetenv("AVRECORD_ROOT");
}

TEST(PlatformPathTest, IntoBufferRefusesWhatDoesNotFit) {
    ScopedRoot root;
    char buf[256];
    ASSERT_NE(PlatformPathInto(kDeviceParamFile, buf, sizeof buf), nullptr);
    EXPECT_EQ(std::string(buf), root.path() + "/param/CPLD.conf");
    char small[8];
    EXPECT_EQ(PlatformPathInto(kDeviceParamFile, small, sizeof small), nullptr);
}
