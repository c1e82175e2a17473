# MIDI: stream scheduler cost and lateness, stream parser throughput (RESULTS.md, "MIDI").
lorvex_add_benchmark(midi SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/MidiBench.cpp)
