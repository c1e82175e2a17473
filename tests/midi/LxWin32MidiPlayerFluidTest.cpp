// The MIDI player end to end: a clip played through the factory's player and the FluidSynth
// device into the sound output's WAV file, heard back for pitch and time.
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
#include "TestNodes.h"
#include "TestSupport.h"
#include "platform/midi/LxpMidi.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <algorithm>
#include <cmath>
#include <cstring>

namespace {

using namespace miditest;

/// Left channel of a 16-bit stereo WAV file.
std::vector<float> readWavLeft(const std::string& path, uint32_t* rate) {
    const std::string bytes = lxtest::readFile(path);
    std::vector<float> left;
    for (size_t pos = 12; pos + 8 <= bytes.size();) {
        uint32_t size;
        std::memcpy(&size, bytes.data() + pos + 4, 4);
        if (bytes.compare(pos, 4, "fmt ") == 0) {
            std::memcpy(rate, bytes.data() + pos + 12, 4);
        } else if (bytes.compare(pos, 4, "data") == 0) {
            for (size_t i = pos + 8; i + 4 <= bytes.size() && i < pos + 8 + size; i += 4) {
                int16_t l;
                std::memcpy(&l, bytes.data() + i, 2);
                left.push_back(l / 32768.0f);
            }
        }
        pos += 8 + size + (size & 1);
    }
    return left;
}

/// The frequency between 100 and 1000 Hz with the strongest Hann-windowed DFT bin.
double dominantFrequency(const std::vector<float>& x, double rate) {
    double best = 0;
    double bestF = 0;
    for (double f = 100; f < 1000; f += 0.5) {
        double re = 0;
        double im = 0;
        for (size_t i = 0; i < x.size(); ++i) {
            const double w = 0.5 - 0.5 * std::cos(2 * M_PI * i / (x.size() - 1));
            re += w * x[i] * std::cos(2 * M_PI * f * i / rate);
            im -= w * x[i] * std::sin(2 * M_PI * f * i / rate);
        }
        if (std::hypot(re, im) > best) {
            best = std::hypot(re, im);
            bestF = f;
        }
    }
    return bestF;
}

/// The first sample at or after from that is louder than threshold.
size_t onset(const std::vector<float>& x, size_t from, float threshold = 0.01f) {
    while (from < x.size() && std::fabs(x[from]) < threshold) {
        ++from;
    }
    return std::min(from, x.size());
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
    const std::vector<float> left = readWavLeft(wav, &rate);
    ASSERT_GT(rate, 0u);
    const size_t on = onset(left, 0);
    const size_t ms10 = rate / 100;
    // The output's file holds the player's stream from its opening: the note begins after the
    // quarter-second rest, plus the synthesizer's look-ahead.
    EXPECT_GE(on, rate / 4);
    EXPECT_LT(on, rate * 35 / 100);
    ASSERT_LT(on + rate * 45 / 100 + ms10, left.size()) << "the note is in the file";
    double loud = 0;
    for (size_t i = on + rate * 45 / 100; i < on + rate * 45 / 100 + ms10; ++i) {
        loud += left[i] * left[i];
    }
    EXPECT_GT(std::sqrt(loud / ms10), 0.02) << "still sounding at 450 ms";
    // Heard as long as FluidSynth itself renders the file: the release is not cut at the end.
    size_t last = left.size();
    while (last > on && std::fabs(left[last - 1]) < 1e-4f) {
        --last;
    }
    if (lxtest::haveTool("fluidsynth")) {
        const std::string ref = dir.file("ref.wav");
        ASSERT_EQ(0, lxtest::run("fluidsynth -ni -F '" + ref + "' " LX_MIDI_DEFAULT_SOUNDFONT " '" + clip +
                                 "' >/dev/null 2>&1"));
        uint32_t refRate = 0;
        const std::vector<float> heard = readWavLeft(ref, &refRate);
        size_t refLast = heard.size();
        while (refLast > 0 && std::fabs(heard[refLast - 1]) < 1e-4f) {
            --refLast;
        }
        EXPECT_NEAR(static_cast<double>(refLast - onset(heard, 0)) / refRate,
                    static_cast<double>(last - on) / rate, 0.3);
    }
    const std::vector<float> note(left.begin() + on + rate / 20, left.begin() + on + rate / 20 + 8192);
    EXPECT_NEAR(261.6, dominantFrequency(note, rate), 2.0);
}

}  // namespace
