# The WAVE header walk (audio/LxWAVEParser.cpp).
lorvex_add_fuzz_target(wave_header
    SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/WaveHeaderFuzz.cpp
    INSTRUMENTED ${PROJECT_SOURCE_DIR}/audio/LxWAVEParser.cpp)
