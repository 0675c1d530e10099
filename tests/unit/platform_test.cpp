#include <gtest/gtest.h>

#include "core/log.h"
#include "fakes/test_platform.h"
#include "platform/fs.h"

using vigild::testing::TestPlatform;

TEST(TestPlatformTest, DebugLinesNeedTheSwitch) {
    TestPlatform p;
    LOGD("hidden %d", 1);
    LOGI("shown %d", 2);
    EXPECT_FALSE(p.log().contains("hidden 1"));
    EXPECT_TRUE(p.log().contains("shown 2", kLogInfo));
    p.enableDebugLog();
    LOGD("visible %s", "now");
    EXPECT_TRUE(p.log().contains("visible now", kLogDebug));
}
