// The world reader of lorvex-play: what a world's media nodes become (files, timing, the place
// and level of each Sound relative to the listener), and how faults in a world are reported.
#include "VrmlWorld.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

namespace {

class WorldTest : public ::testing::Test {
  protected:
    void SetUp() override { write("clip.wav", "RIFF"); }  // only its existence matters to the reader

    std::string write(const std::string& name, const std::string& text) {
        lxtest::writeFile(dir.file(name), text);
        return dir.file(name);
    }
    World read(const std::string& text, WorldOptions options = WorldOptions()) {
        World w;
        EXPECT_TRUE(readWorld(write("world.wrl", "#VRML V2.0 utf8\n" + text), options, &w));
        return w;
    }
    lxtest::TempDir dir;
    const std::string dir_ = dir.path();
};

TEST(EllipseAttenuation, FollowsTheVrmlRampBetweenTheEllipsoids) {
    const float at[3] = {0, 0, 0}, ahead[3] = {0, 0, 1}, none[3] = {0, 0, 0};
    struct Case {
        const float* direction;
        float minF, minB, maxF, maxB;
        double point[3];
        bool audible;
        double db;
    } cases[] = {
        {ahead, 1, 1, 10, 10, {0, 0, 0.5}, true, 0.0},            // inside the minimum: full level
        {ahead, 1, 1, 11, 11, {0, 6, 0}, true, -10.0},            // half way across the ramp, to the side
        {ahead, 1, 1, 10, 10, {0, 0, 10}, true, -20.0},           // on the maximum
        {ahead, 1, 1, 10, 10, {0, 0, 10.5}, false, -20},          // beyond it: not heard
        {ahead, 2, 1, 20, 2, {0, 0, -3}, false, -20},             // behind, where the ellipse is short
        {ahead, 2, 1, 20, 2, {0, 0, 15}, true, -20.0 * 13 / 18},  // ahead, where it is long
        {none, 1, 1, 10, 10, {0, 0, 5.5}, true, -10.0},           // no direction: taken as +Z
    };
    for (const Case& c : cases) {
        double db = 1;
        EXPECT_EQ(ellipseAttenuation(at, c.direction, c.minF, c.minB, c.maxF, c.maxB, c.point, &db),
                  c.audible)
            << c.point[0] << " " << c.point[1] << " " << c.point[2];
        EXPECT_NEAR(db, c.db, 1e-6);
    }
}

TEST_F(WorldTest, TransformsPlaceSoundsAndTheListenerHearsThemOnTheirSides) {
    const World w = read(R"(
        Viewpoint { position 0 0 0 orientation 0 1 0 1.5707963 }  # looking down -X
        Transform { translation 0 0 -4 children [
          Transform { rotation 0 1 0 3.1415927 scale 2 2 2 children
            DEF S Sound { location 1 0 0 source DEF A AudioClip { url "clip.wav" } } }
        ] }
        Transform { translation 0 0 4 children Sound { source USE A maxFront 5 maxBack 5 } })");
    ASSERT_EQ(w.media.size(), 1u);  // one clip, two Sounds
    ASSERT_EQ(w.media[0].sounds.size(), 2u);
    const WorldSound& a = w.media[0].sounds[0];
    const WorldSound& b = w.media[0].sounds[1];
    // The rotation turns local +X into -X and the scale doubles it.
    EXPECT_NEAR(a.worldLocation[0], -2, 1e-4);
    EXPECT_NEAR(a.worldLocation[2], -4, 1e-4);
    EXPECT_NEAR(w.listenerFront[0], -1, 1e-5);
    // Facing -X, -Z is on the right and +Z on the left; the mixer gets them one unit away.
    const float right[3] = {0, 0, -1};
    auto side = [&](const WorldSound& s) {
        return (s.mixerLocation[0] - w.listenerPosition[0]) * right[0] +
               (s.mixerLocation[2] - w.listenerPosition[2]) * right[2];
    };
    EXPECT_GT(side(a), 0.5);
    EXPECT_LT(side(b), -0.5);
    // The scaled Sound's ellipse (1..10 local) is 2..20 in the world: 4.47 away is on the ramp.
    EXPECT_NEAR(a.attenuationDb, -20.0 * (std::sqrt(20.0) / 2 - 1) / 9, 1e-3);
    EXPECT_NEAR(b.attenuationDb, -20.0 * 3 / 4, 1e-3);
    EXPECT_NEAR(b.gain, std::pow(10.0, -15.0 / 20), 1e-4);
}

TEST_F(WorldTest, FieldsUrlsAndStartTimesComeFromTheNodes) {
    WorldOptions options;
    options.loadTime = 1000;
    options.startAt["Later"] = 2.5;
    options.startAt["Nobody"] = 1;
    const World w = read(R"(
        PROTO Lamp [ field SFFloat on 1 ] { Group { children Sound { source AudioClip { url "clip.wav" } } } }
        EXTERNPROTO Far [ field SFInt32 n ] [ "far.wrl#Far" "other.wrl" ]
        Lamp { on 0 }
        Script { eventIn SFBool go field SFNode target NULL url "javascript: function go() {}" }
        Sound { source DEF Later AudioClip { url [ "http://example.invalid/a.wav" "gone.wav" "clip.wav" ]
                                               loop TRUE pitch 1.5 startTime 5 stopTime 9 }
                intensity 0.5 priority 0.9 spatialize FALSE }
        Shape { appearance Appearance { texture DEF Film MovieTexture { url "clip.wav" speed 2 } } }
        ROUTE Clock.time TO Later.set_startTime)",
                         options);
    ASSERT_EQ(w.media.size(), 2u);  // the PROTO's body is a declaration, not an instance
    const WorldMedia& clip = w.media[0];
    EXPECT_EQ(clip.name, "Later");
    EXPECT_EQ(clip.path, dir_ + "/clip.wav");
    EXPECT_TRUE(clip.loop);
    EXPECT_FLOAT_EQ(clip.rate, 1.5f);
    EXPECT_DOUBLE_EQ(clip.startTime, 1002.5);
    EXPECT_DOUBLE_EQ(clip.stopTime, 9);
    EXPECT_FLOAT_EQ(clip.sounds.at(0).priority, 0.9f);
    EXPECT_FALSE(clip.sounds[0].spatialize);
    EXPECT_NEAR(clip.sounds[0].gain, 0.5 * std::pow(10.0, -20.0 * 9 / 9 / 20), 1e-4);  // 10 m off
    EXPECT_EQ(w.media[1].type, "MovieTexture");
    EXPECT_TRUE(w.media[1].texture);
    EXPECT_FLOAT_EQ(w.media[1].rate, 2.0f);
    EXPECT_EQ(w.unusedAt, std::vector<std::string>{"Nobody"});
    EXPECT_TRUE(w.messages.empty()) << w.messages.front();
}

TEST_F(WorldTest, FaultsAreReportedWithTheirLineAndTheRestIsStillRead) {
    write("inner.wrl",
          "#VRML V2.0 utf8\nInline { url \"world.wrl\" }\nSound { source AudioClip { url \"clip.wav\" } }\n");
    // A stray brace and an unknown USE are reported in the listening suite, with the world still heard.
    const World w = read(R"(Sound { source AudioClip { url "nowhere.wav" } }
        Inline { url "inner.wrl" }
        Transform { translation 1 2 ] 3 }
        Sound { source AudioClip { url "clip.wav" description "unterminated } } )");
    std::string all;
    for (const std::string& m : w.messages) {
        all += m + "\n";
    }
    const std::string file = dir_ + "/world.wrl:";
    EXPECT_NE(all.find("includes itself"), std::string::npos) << all;
    EXPECT_NE(all.find(file + "5: unterminated string"), std::string::npos) << all;
    // The clip with no file, the Inline's clip and nothing from the broken lines.
    ASSERT_EQ(w.media.size(), 2u) << all;
    EXPECT_TRUE(w.media[0].path.empty());
    EXPECT_EQ(w.media[1].where, dir_ + "/inner.wrl:3");
}

// Compressed worlds are heard in the listening suite, Inlined into a plain one.
TEST_F(WorldTest, WorldsAreKnownByTheirFirstLineAndReadOnlyWithinTheSizeLimit) {
    const std::string plain =
        write("scene", "#VRML V2.0 utf8\nSound { source AudioClip { url \"clip.wav\" } }\n");
    EXPECT_TRUE(isWorldFile(plain)) << "no suffix: the header decides";
    EXPECT_FALSE(isWorldFile(dir_ + "/clip.wav"));
    World notVrml, huge;
    EXPECT_FALSE(readWorld(write("v1.wrl", "#VRML V1.0 ascii\nSeparator {}"), WorldOptions(), &notVrml));
    WorldOptions small;
    small.maxBytes = 16;
    EXPECT_FALSE(readWorld(plain, small, &huge));
    EXPECT_NE(huge.messages.at(0).find("larger than"), std::string::npos);
}

}  // namespace
