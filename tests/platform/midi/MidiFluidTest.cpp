// The FluidSynth device end to end: stream buffers rendered into the output mix, and a clip played
// through the factory's player into the sound output's WAV file, heard back for pitch and time.
#include "LxDataSource.h"
#include "LxLog.h"
#include "LxPlatformMidi.h"
#include "LxPlatformProbe.h"
#include "LxPlatformSound.h"
#include "LxResult.h"
#include "LxTimeBase.h"
#include "LxVersionDetection.h"
#include "LxWin32Manager.h"
#include "LxWin32MidiPlayer.h"
#include "LxWin32Mixer.h"
#include "MidiFiles.h"
#include "RendererKit.h"
#include "TestNodes.h"
#include "TestSupport.h"
#include "WaveFiles.h"
#include "platform/midi/LxpMidi.h"
#include "platform/sound/LxpSimulatedSound.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <numeric>
#include <thread>
#include <vector>

namespace {

using namespace lxp;

class MidiFluidTest : public ::testing::Test {
  protected:
    void SetUp() override {
        struct stat st;
        if (::stat(LX_MIDI_DEFAULT_SOUNDFONT, &st) != 0) {
            GTEST_SKIP() << "no SoundFont at " LX_MIDI_DEFAULT_SOUNDFONT " (timgm6mb-soundfont)";
        }
        LxPlatformSetMidiBackend(LX_MIDI_FLUIDSYNTH);
        LxPlatformSetMidiSoundFont(nullptr);
        simsound::use();  // the output renders only when the test advances it
        uint32_t device = MIDI_MAPPER;
        HMIDISTRM s = nullptr;
        if (midiStreamOpen(&s, &device, 1, nullptr, 0, CALLBACK_NULL) != MMSYSERR_NOERROR) {
            GTEST_SKIP() << "no synthesizer (built without FluidSynth)";
        }
        midiStreamClose(s);
    }

    void TearDown() override {
        EXPECT_TRUE(lxtest::waitUntil([] { return midiLiveDeviceThreads() == 0; }));
        simsound::use();
    }
};

/// Renders ms milliseconds of output in 10 ms periods and returns its left channel.
std::vector<float> pull(int ms) {
    simsound::clearOutput();
    for (int i = 0; i < ms / 10; ++i) {
        simsound::advanceMs(10);
        // At most twice real time, so that the device thread hands messages over within the
        // synthesizer's 40 ms look-ahead even on a loaded machine.
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return simsound::outputChannel(0);
}

double rms(const std::vector<float>& x) {
    return x.empty() ? 0.0 : std::sqrt(std::inner_product(x.begin(), x.end(), x.begin(), 0.0) / x.size());
}

/// A stream on the synthesizer, started with one buffer of records; counts the buffers returned.
struct Playing {
    std::atomic<int> done{0};
    HMIDISTRM s = nullptr;
    std::vector<MIDIEVENT> records;
    MIDIHDR h{};

    explicit Playing(std::vector<MIDIEVENT> r) : records(std::move(r)) {
        uint32_t device = MIDI_MAPPER;
        const uintptr_t instance = reinterpret_cast<uintptr_t>(&done);
        EXPECT_EQ(MMSYSERR_NOERROR, midiStreamOpen(&s, &device, 1, callback, instance, CALLBACK_FUNCTION));
        h.lpData = reinterpret_cast<char*>(records.data());
        h.dwBufferLength = h.dwBytesRecorded = static_cast<uint32_t>(records.size() * sizeof(MIDIEVENT));
        EXPECT_EQ(MMSYSERR_NOERROR, midiOutPrepareHeader(s, &h, sizeof h));
        EXPECT_EQ(MMSYSERR_NOERROR, midiStreamOut(s, &h, sizeof h));
        EXPECT_EQ(MMSYSERR_NOERROR, midiStreamRestart(s));
    }
    void close() {
        EXPECT_EQ(MMSYSERR_NOERROR, midiOutUnprepareHeader(s, &h, sizeof h));
        EXPECT_EQ(MMSYSERR_NOERROR, midiStreamClose(s));
    }
    static void callback(HMIDIOUT, uint32_t, uintptr_t instance, uintptr_t, uintptr_t) {
        ++*reinterpret_cast<std::atomic<int>*>(instance);
    }
};

const uint32_t kNoteOn = miditest::shortMsg(0x90, 60, 110);  // middle C
const uint32_t kNoteOff = miditest::shortMsg(0x80, 60);

/// Plays middle C from tick `on` to tick 96 (500 ms) and renders 800 ms: the milliseconds at
/// which sound starts, and whether the buffer came back only after the note-off was rendered.
double playNote(uint32_t on, bool* returnedAfterEnd) {
    Playing p({{0, 0, 0xC0u | (79u << 8)},
               {0, 0, (MEVT_TEMPO << 24) | 500000u},
               {on, 0, kNoteOn},
               {96 - on, 0, kNoteOff}});
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::vector<float> audio = pull(400);
    *returnedAfterEnd = p.done.load() == 0;
    const std::vector<float> more = pull(400);
    audio.insert(audio.end(), more.begin(), more.end());
    *returnedAfterEnd = *returnedAfterEnd && lxtest::waitUntil([&] { return p.done.load() == 1; });
    p.close();
    const auto loud = std::find_if(audio.begin(), audio.end(), [](float v) { return std::fabs(v) >= 1e-4f; });
    return (loud - audio.begin()) * 1000.0 / simsound::outputFormat().rate;
}

TEST_F(MidiFluidTest, NotesSoundAtTheirTimeAndTheBufferReturnsAfterItsLastEvent) {
    // The same note at tick 0 and at tick 19 (98.96 ms): the sound starts that much later,
    // within the synthesizer's own 64-sample processing step (2.9 ms at the simulated 22.05 kHz),
    // not at a mixing-block boundary or whenever the device thread woke.
    bool returned0 = false;
    bool returned19 = false;
    const double at0 = playNote(0, &returned0);
    const double at19 = playNote(19, &returned19);
    EXPECT_NEAR(98.958, at19 - at0, 3.0);
    EXPECT_TRUE(returned0 && returned19) << "returned once the note-off at 500 ms was rendered, not before";
}

TEST_F(MidiFluidTest, StopDropsNotesAlreadyHandedToTheSynthesizer) {
    // Due at 20 ms: inside the look-ahead, so handed over before anything is rendered.
    Playing p({{4, 0, kNoteOn}, {96, 0, kNoteOff}});
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    ASSERT_EQ(MMSYSERR_NOERROR, midiStreamStop(p.s));
    EXPECT_TRUE(lxtest::waitUntil([&] { return p.done.load() == 1; }));
    EXPECT_LT(rms(pull(300)), 1e-4);
    ASSERT_EQ(MMSYSERR_NOERROR, midiOutShortMsg(p.s, kNoteOn));
    EXPECT_GT(rms(pull(400)), 0.005) << "direct messages play at once";
    p.close();
    EXPECT_EQ(0.0, rms(pull(50))) << "closed, the synthesizer is out of the mix";
}

TEST_F(MidiFluidTest, OpeningWithoutASoundFontFailsCleanly) {
    lxtest::requireLog();
    LxPlatformSetMidiSoundFont("/nonexistent/none.sf2");
    uint32_t device = MIDI_MAPPER;
    HMIDISTRM s = nullptr;
    EXPECT_EQ(MIDIERR_NODEVICE, midiStreamOpen(&s, &device, 1, nullptr, 0, CALLBACK_NULL));
    EXPECT_EQ(nullptr, s);
    EXPECT_TRUE(LxLogSink::contains("no SoundFont at /nonexistent/none.sf2"));
    LxPlatformSetMidiSoundFont(nullptr);
    EXPECT_EQ(LX_MIDI_DEFAULT_SOUNDFONT, LxPlatformGetMidiSoundFont());
    ASSERT_EQ(MMSYSERR_NOERROR, midiStreamOpen(&s, &device, 1, nullptr, 0, CALLBACK_NULL));
    HMIDISTRM second = nullptr;
    EXPECT_EQ(MMSYSERR_ALLOCATED, midiStreamOpen(&second, &device, 1, nullptr, 0, CALLBACK_NULL));
    EXPECT_EQ(MMSYSERR_NOERROR, midiStreamClose(s));
}

// Ocarina (a near-sine voice): middle C for half a second after a quarter-second rest, through the
// factory's player; the output's file holds the player's stream from its opening.
TEST_F(MidiFluidTest, APlayersClipSoundsAtItsPitchAndTime) {
    using namespace miditest;
    lxtest::TempDir dir;
    const std::string clip = dir.file("note.mid");
    ASSERT_TRUE(lxtest::writeFile(clip, smf(0, 96,
                                            {track(tempoEvent(0, 500000) + std::string("\x00\xC0\x4F", 3) +
                                                   noteOn(48, 0, 60, 110) + noteOff(96, 0, 60))})));
    const std::string wav = dir.file("out.wav");
    LxPlatformSound::useWavFile(wav.c_str());
    LxPlatformProbe::useSimulated(LxSimulatedPlatform());
    LxResetDXAndWin32VersionCache();
    LxWin32Mixer::resetClassStateForTests();
    LxWin32Manager::resetExclusivityForTests();
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

    std::vector<lxtest::RiffChunk> chunks;
    uint32_t rate = 0;
    ASSERT_TRUE(lxtest::splitWave(lxtest::readFile(wav), &chunks) && !chunks.empty() &&
                chunks[0].body.size() >= 8);
    std::memcpy(&rate, chunks[0].body.data() + 4, 4);
    ASSERT_GT(rate, 0u);
    const std::vector<int16_t> left = rendererkit::samples16(wav, 2, 0);
    const long on = rendererkit::firstAbove(left, 327);
    EXPECT_GE(on, static_cast<long>(rate / 4)) << "plus the synthesizer's look-ahead";
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
