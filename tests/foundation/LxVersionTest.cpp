#include "LxDiagnostics.h"
#include "LxLog.h"
#include "LxVersion.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

namespace {

TEST(LxVersion, OnlyTheExactVersionIsAccepted) {
    lxtest::requireLog();
    EXPECT_EQ(1u, LxCheckVersion(1, 11));
    EXPECT_TRUE(LxLogSink::messages().empty());
    EXPECT_EQ(0u, LxCheckVersion(1, 10));
    EXPECT_EQ(0u, LxCheckVersion(1, 12));
    EXPECT_EQ(0u, LxCheckVersion(2, 11));
    ASSERT_EQ(3u, LxLogSink::messages().size());
    EXPECT_EQ("Lorvex Version Mismatch.  Have 1.11, Need 1.10\n", LxLogSink::messages()[0]);
}

TEST(LxDiagnostics, AssignmentCopiesSetTextsAndKeepsTheRest) {
    LxDiagnostics source;
    source.soundSystemName = strdup("DirectX");
    source.soundSystemVersion = 0x501;

    LxDiagnostics target;
    target.soundDevice = strdup("Card A");
    target.soundSystemName = strdup("old");
    target = source;
    EXPECT_STREQ("Card A", target.soundDevice) << "a null source text leaves the target's text";
    EXPECT_STREQ("DirectX", target.soundSystemName);
    EXPECT_NE(source.soundSystemName, target.soundSystemName) << "texts are copied, not shared";
    EXPECT_EQ(0x501, target.soundSystemVersion);

    LxDiagnostics copy(target);
    EXPECT_STREQ("Card A", copy.soundDevice);
    EXPECT_NE(target.soundDevice, copy.soundDevice);
}

TEST(LxLog, SinkKeepsFormattedMessagesBounded) {
    lxtest::requireLog();
    LxLog::postDebug("LxQueue: receive waiting again, KtResult = %i\n", 7);
    LxLog::postTrace("%s", std::string(2000, 'x').c_str());  // longer than the formatting buffer
    ASSERT_EQ(2u, LxLogSink::messages().size());
    EXPECT_EQ("LxQueue: receive waiting again, KtResult = 7\n", LxLogSink::messages()[0]);
    EXPECT_EQ(2000u, LxLogSink::messages()[1].size());

    LxLogSink::setCapacity(3);
    for (int i = 0; i < 10; ++i) {
        LxLog::postDebug("message %d\n", i);
    }
    const auto kept = LxLogSink::messages();
    LxLogSink::setCapacity(200000);
    ASSERT_EQ(3u, kept.size());
    EXPECT_EQ("message 7\n", kept[0]) << "the oldest messages are dropped first";
}

}  // namespace
