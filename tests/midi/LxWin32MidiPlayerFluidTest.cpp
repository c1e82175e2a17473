// The MIDI player end to end: a clip played through the factory's player and the FluidSynth
// device into the sound output's WAV file, heard back for pitch and time. (Its length against
// FluidSynth's own rendering is the listening suite's.)
#include "LxWin32MidiPlayer.h"

#include "LxDataSource.h"
#include "LxPlatformMidi.h"
#include "LxPlatformProbe.h"
#include "LxPlatformSound.h"
#include "LxResult.h"
#include "LxTimeBase.h"
#include "LxVersionDetection.h"
#include "LxWin32Manager.h"
#include "LxWin32Mixer.h"
#include "MidiFiles.h"
#include "RendererKit.h"
#include "TestNodes.h"
#include "TestSupport.h"
#include "platform/midi/LxpMidi.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <cstring>

namespace {

using namespace miditest;

/// The left channel of a 16-bit stereo WAV file and its rate.
std::vector<int16_t> leftOf(const std::string& path, uint32_t* rate) {
    std::vector<lxtest::RiffChunk> chunks;
    *rate = 0;
    if (lxtest::splitWave(lxtest::readFile(path), &chunks) && !chunks.empty() && chunks[0].body.size() >= 8) {
        std::memcpy(rate, chunks[0].body.data() + 4, 4);
    }
    return rendererkit::samples16(path, 2, 0);
}

TEST(MidiPlayerFluidTest, OneNoteClipSoundsAtItsPitchAndTime) {
    struct stat st;
    if (::stat(LX_MIDI_DEFAULT_SOUNDFONT, &st) != 0) {
        GTEST_SKIP() << "no SoundFont at " LX_MIDI_DEFAULT_SOUNDFONT " (timgm6mb-soundfont)";
    }
    lxtest::TempDir dir;
    // Ocarina (a near-sine voice): middle C for half a second, after a quarter-second rest.
    const std::string clip = dir.file("note.mid");
    ASSERT_TRUE(lxtest::writeFile(clip, smf(0, 96,
                                            {track(tempoEvent(0, 500000) + std::string("\x00\xC0\x4F", 3) +
                                                   noteOn(48, 0, 60, 110) + noteOff(96, 0, 60))})));
    const std::string wav = dir.file("out.wav");
    LxPlatformSetMidiBackend(LX_MIDI_FLUIDSYNTH);
    LxPlatformSetMidiSoundFont(nullptr);
    LxPlatformSound::useWavFile(wav.c_str());
    LxPlatformProbe::useSimulated(LxSimulatedPlatform());
    LxResetDXAndWin32VersionCache();
    LxWin32Mixer::resetClassStateForTests();
    LxWin32Manager::resetExclusivityForTests();
    uint32_t device = lxp::MIDI_MAPPER;
    lxp::HMIDISTRM probe = nullptr;
    if (lxp::midiStreamOpen(&probe, &device, 1, nullptr, 0, lxp::CALLBACK_NULL) != lxp::MMSYSERR_NOERROR) {
        GTEST_SKIP() << "no synthesizer (built without FluidSynth)";
    }
    lxp::midiStreamClose(probe);

    KtDefaultThreadManager threads;
    LxWin32Window window;
    LxManager* manager = LxManager::createManager(&threads);
    manager->setWindow(&window);
    ASSERT_EQ(LX_OK, manager->initSubSystem(INIT_TIMERS | INIT_AUDIO));
    LxFilenameDataSource source(clip.c_str());
    LxPlayer* player = nullptr;
    ASSERT_EQ(LX_OK, manager->createPlayer(&source, &player));
    lxtest::RecordingListener events;
    player->setEventListener(&events);
    ASSERT_TRUE(lxtest::waitUntil([&] { return player->getState() == LxNode::STOPPED; }));
    player->setTimeBase(manager->getMasterTimeBase());
    ASSERT_EQ(LX_OK, player->startAtTime(manager->getMasterTimeBase()->getRefTime()));
    ASSERT_TRUE(lxtest::waitUntil([&] { return events.count(LxEndOfMediaEventType) == 1; }, 10000));
    LxAudioOutputPort* port = nullptr;
    ASSERT_EQ(LX_OK, player->getNewAudioPort(&port));
    EXPECT_EQ(1, port->isSounding()) << "the note's release is still to be heard";
    ASSERT_TRUE(lxtest::waitUntil([&] { return port->isSounding() == 0; }, 10000));
    manager->destroyPlayer(player);  // the output stops and completes the file
    manager->closeManager();
    LxPlatformProbe::useSystem();

    uint32_t rate = 0;
    const std::vector<int16_t> left = leftOf(wav, &rate);
    ASSERT_GT(rate, 0u);
    const long on = rendererkit::firstAbove(left, 327);
    // The output's file holds the player's stream from its opening: the note begins after the
    // quarter-second rest, plus the synthesizer's look-ahead.
    EXPECT_GE(on, static_cast<long>(rate / 4));
    EXPECT_LT(on, static_cast<long>(rate * 35 / 100));
    ASSERT_LT(on + rate * 45 / 100 + 8192, left.size()) << "the note is in the file";
    EXPECT_GT(rendererkit::peak(left, on + rate * 45 / 100, on + rate * 46 / 100), 600)
        << "still sounding at 450 ms";
    const size_t from = on + rate / 20;
    EXPECT_GT(rendererkit::tonePower(left, from, 8192, 261.63, rate),
              10 * rendererkit::tonePower(left, from, 8192, 246.94, rate) +
                  10 * rendererkit::tonePower(left, from, 8192, 277.18, rate))
        << "middle C";
}

}  // namespace
