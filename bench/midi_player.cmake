# MIDI player: start to device, channel taken and given back (RESULTS.md, "MIDI player").
lorvex_add_benchmark(midi_player SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/MidiPlayerBench.cpp)
