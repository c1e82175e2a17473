# The mixing engine, and the same work through OpenAL Soft (a benchmark-only dependency: the
# library never links it).
find_package(OpenAL)
if(OPENAL_FOUND)
    lorvex_add_benchmark(sound_mix SOURCES SoundMixBench.cpp LIBRARIES ${OPENAL_LIBRARY})
    target_include_directories(bench_sound_mix SYSTEM PRIVATE ${OPENAL_INCLUDE_DIR}/..)
else()
    message(STATUS "Lorvex: OpenAL Soft not found (libopenal-dev); bench_sound_mix is not built")
endif()
