// The variable-length numbers of a Standard MIDI File (delta times, event lengths): seven bits a
// byte, most significant first, the top bit set on every byte but the last.
#ifndef LX_MIDI_VAR_LEN_H
#define LX_MIDI_VAR_LEN_H

#include <algorithm>
#include <cstdint>

/// Reads one number through readByte (bool(uint8_t*), false when the data ends). Values beyond
/// limit saturate rather than wrap, so a corrupt number can only be too large, never a plausible
/// small one. False when the data ends inside the number.
template <class ReadByte>
bool lxReadMidiVarLen(ReadByte&& readByte, uint64_t limit, uint64_t* value) {
    uint64_t v = 0;
    uint8_t b = 0;
    do {
        if (!readByte(&b)) {
            return false;
        }
        v = std::min<uint64_t>((v << 7) | (b & 0x7F), limit);
    } while (b & 0x80);
    *value = v;
    return true;
}

#endif
