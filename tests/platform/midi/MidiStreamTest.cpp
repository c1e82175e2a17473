// The stream layer over the simulated device, where the player cannot reach it: the card that
// cannot run MIDI beside sampled audio. Timing, buffer return, stop and reset are checked through
// the player (tests/midi), which drives the layer with real files.
#include "LxPlatformMidi.h"
#include "platform/LxpDuplex.h"
#include "platform/midi/LxpMidi.h"
#include "platform/midi/LxpMidiSim.h"

#include <gtest/gtest.h>

namespace {

using namespace lxp;

TEST(MidiStreamTest, HalfDuplexCardRefusesMidiWhileSampledAudioIsOpenAndAFailedOpenHoldsNothing) {
    midisim::reset();
    duplex::reset();
    LxPlatformSetMidiBackend(LX_MIDI_SIMULATED);
    duplex::setHalfDuplex(true);
    ASSERT_TRUE(duplex::tryOpen(duplex::SampledAudio));
    uint32_t device = MIDI_MAPPER;
    HMIDISTRM s = nullptr;
    EXPECT_NE(MMSYSERR_NOERROR, midiStreamOpen(&s, &device, 1, nullptr, 0, CALLBACK_NULL));
    duplex::close(duplex::SampledAudio);
    midisim::failNext(midisim::Open, MIDIERR_NODEVICE);
    EXPECT_EQ(MIDIERR_NODEVICE, midiStreamOpen(&s, &device, 1, nullptr, 0, CALLBACK_NULL));
    EXPECT_EQ(0, duplex::openCount(duplex::Midi));
    EXPECT_TRUE(duplex::tryOpen(duplex::SampledAudio));
    duplex::close(duplex::SampledAudio);
    EXPECT_EQ(0, midiLiveDeviceThreads());
    LxPlatformSetMidiBackend(LX_MIDI_FLUIDSYNTH);
    duplex::reset();
}

}  // namespace
