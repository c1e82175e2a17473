// Fuzz target: sequences of scene-field changes on the scene support, as a browser's routes may
// send them: any times (NaN, infinities, centuries away), any rates (negative, zero, huge), loops,
// batches left open, latency changes and sound nodes coming and going, on a player that records.
#include "LxManager.h"
#include "LxPlayer.h"
#include "LxResult.h"
#include "LxVrmlSupport.h"

#include "RecordingPlayer.h"
#include "TestManager.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <vector>

namespace {

struct Node : LxSoundNodeNotifier {
    void audioPortChanged(LxAudioOutputPort* port) override {
        if (port != nullptr) {
            port->setGain(0.5f);
        }
    }
};

// Reads the input as operations: one byte of opcode, then the bytes of its argument.
struct Reader {
    const uint8_t* p;
    size_t n;
    bool more() const { return n > 0; }
    uint8_t byte() { return n > 0 ? (--n, *p++) : 0; }
    double number() {
        static const double special[] = {NAN,    INFINITY,     -INFINITY,    0,    -0.0, 1e300,
                                         -1e300, 2147483648.0, 4294967296.0, 7200, 5000, 4999.999999,
                                         1e-9};
        const uint8_t tag = byte();
        if (tag < 64) {
            return special[tag % (sizeof special / sizeof special[0])];
        }
        double d = 0;
        uint8_t raw[sizeof d] = {0};
        for (uint8_t& b : raw) {
            b = byte();
        }
        std::memcpy(&d, raw, sizeof d);
        return d;
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static KtDefaultThreadManager threads;
    lxtest::SceneManager* manager = new lxtest::SceneManager(&threads);
    std::vector<std::string> calls;
    lxtest::RecordingPlayer* player = new lxtest::RecordingPlayer(manager, &calls);
    player->duration = LxTime(4, 0);
    manager->addPlayer(player);
    Node nodes[3];
    {
        LxVrmlSupport support(player, manager);
        Reader in{data, size};
        // Indexed by the opcode byte: the checked-in corpus depends on this order.
        const std::function<void()> ops[] = {
            [&] { support.beginChangingFields(LxTime(in.number())); },
            [&] { support.setStartTime(LxTime(in.number())); },
            [&] { support.setStopTime(LxTime(in.number())); },
            [&] { support.setLoop(static_cast<char>(in.byte() & 1)); },
            [&] { support.setRate(static_cast<float>(in.number())); },
            [&] { support.doneChangingFields(); },
            [&] { support.finishInitializingPlayer(); },
            [&] { support.setPlayerControl(static_cast<char>(in.byte() & 1)); },
            [&] { manager->setStartUpLatency(LxTime(in.number())); },
            [&] { manager->clock->setTimeOfDay(in.number()); },
            [&] { player->duration = LxTime(in.number()); },
            [&] { support.addSoundNode(&nodes[in.byte() % 3]); },
            [&] { support.removeSoundNode(&nodes[in.byte() % 3]); },
            [&] { support.stop(); },
        };
        while (in.more()) {
            ops[in.byte() % 14]();
        }
    }  // the support destroys the player through the manager
    manager->closeManager();
    return 0;
}
