#include "LxDiagnostics.h"
#include "LxLog.h"
#include "LxResult.h"
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

    long major = 0;
    long minor = 0;
    LxGetVersion(&major, &minor);
    EXPECT_EQ(1, major);
    EXPECT_EQ(11, minor);
}

TEST(LxDiagnostics, AssignmentCopiesSetTextsAndKeepsTheRest) {
    LxDiagnostics empty;  // destroyed at once: frees nothing
    EXPECT_EQ(nullptr, empty.soundDevice);
    EXPECT_EQ(0, empty.midiCapable);

    LxDiagnostics source;
    source.soundSystemName = strdup("DirectX");
    source.soundSystemVersion = 0x501;
    source.mediaFrameworkName = strdup("None");
    source.midiCapable = 1;

    LxDiagnostics target;
    target.soundDevice = strdup("Card A");
    target.soundSystemName = strdup("old");
    target = source;
    EXPECT_STREQ("Card A", target.soundDevice) << "a null source text leaves the target's text";
    EXPECT_STREQ("DirectX", target.soundSystemName);
    EXPECT_NE(source.soundSystemName, target.soundSystemName) << "texts are copied, not shared";
    EXPECT_STREQ("None", target.mediaFrameworkName);
    EXPECT_EQ(0x501, target.soundSystemVersion);
    EXPECT_EQ(1, target.midiCapable);

    LxDiagnostics copy(target);
    EXPECT_STREQ("Card A", copy.soundDevice);
    EXPECT_NE(target.soundDevice, copy.soundDevice);
}

TEST(LxResult, EveryCodeHasADescription) {
    const KtResult codes[] = {LX_OK, LX_CONNECTED_AUDIO, LX_QUEUE_WAIT_TIMED_OUT, LX_ERR_GENERIC,
                              LX_ERR_UNSUPPORTED, LX_ERR_WRITE_ABANDONED, LX_ERR_INVALID_WAVE,
                              LX_ERR_ALREADY_TAKEN, KT_TIMEOUT};
    for (KtResult code : codes) {
        EXPECT_STRNE("unknown result code", LxResultDescription(code)) << std::hex << code;
    }
    EXPECT_STREQ("unknown result code", LxResultDescription(0x7777));
    EXPECT_EQ(0xE0010003L, KT_TIMEOUT);
}

TEST(LxLog, SinkKeepsFormattedMessagesBounded) {
    lxtest::requireLog();
    LxLog::postDebug("LxQueue: receive waiting again, KtResult = %i\n", 7);
    LxLog::postTrace("%s", std::string(2000, 'x').c_str());  // longer than the formatting buffer
    ASSERT_EQ(2u, LxLogSink::messages().size());
    EXPECT_EQ("LxQueue: receive waiting again, KtResult = 7\n", LxLogSink::messages()[0]);
    EXPECT_EQ(2000u, LxLogSink::messages()[1].size());
    EXPECT_EQ(1u, LxLogSink::count("KtResult = 7"));

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
