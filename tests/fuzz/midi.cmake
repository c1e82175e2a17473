# The Standard MIDI File readers (midi/LxWin32MidiParser.cpp, midi/LxWin32NewMidiParser.cpp).
lorvex_add_fuzz_target(midi_file
    SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/MidiFileFuzz.cpp
    INSTRUMENTED ${PROJECT_SOURCE_DIR}/midi/LxWin32MidiParser.cpp
                 ${PROJECT_SOURCE_DIR}/midi/LxWin32NewMidiParser.cpp)
