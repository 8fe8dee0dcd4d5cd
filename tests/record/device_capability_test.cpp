#include "record/device_capability.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "common/platform_paths.h"
#include "support/test_support.h"

TEST(DeviceCapabilityTest, StorageWordTwoMeansRecording) {
    ScopedRoot root;
    struct {
        const char *content;
        const char *capability;
    } cases[] = {
        {"[CPLD]\nStorageCapability=2\n", "T1"},
        {"[CPLD]\nStorageCapability=1\n", "T0"},
        {"[CPLD]\nStorageCapability=0\n", "T0"},
        {"[CPLD]\nOther=2\n", "T0"},
        {"", "T0"},
    };
    for (const auto &c : cases) {
        root.WriteFile(kDeviceParamFile, c.content);
        EXPECT_STREQ(GetDeviceCapability(), c.capability) << c.content;
        EXPECT_EQ(DeviceLacksRecordCapability(), std::string(c.capability) == "T0") << c.content;
    }
}

TEST(DeviceCapabilityTest, UnreadableFileKeepsTheLastString) {
    ScopedRoot root;
    root.WriteFile(kDeviceParamFile, "[CPLD]\nStorageCapability=2\n");
    EXPECT_STREQ(GetDeviceCapability(), "T1");
    unlink(root.Under(kDeviceParamFile).c_str());
    EXPECT_STREQ(GetDeviceCapability(), "T1");
    root.WriteFile(kDeviceParamFile, "[CPLD]\nStorageCapability=1\n");
    EXPECT_STREQ(GetDeviceCapability(), "T0");
    // Too big for the settings reader: treated as unreadable, not fatal.
    root.WriteFile(kDeviceParamFile, std::string(20000, '#'));
    EXPECT_STREQ(GetDeviceCapability(), "T0");
}
