# lorvex-play's command line (tools/lorvex-play/Options.cpp).
if(TARGET lorvex_play_world)
    lorvex_add_fuzz_target(play_options SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/PlayOptionsFuzz.cpp)
    target_link_libraries(test_fuzz_play_options_replay PRIVATE lorvex_play_world)
    if(LORVEX_FUZZ)
        find_package(ZLIB REQUIRED)
        target_sources(fuzz_play_options PRIVATE ${PROJECT_SOURCE_DIR}/tools/lorvex-play/Options.cpp
                                                 ${PROJECT_SOURCE_DIR}/tools/lorvex-play/VrmlWorld.cpp)
        target_include_directories(fuzz_play_options PRIVATE ${PROJECT_SOURCE_DIR}/tools/lorvex-play)
        target_link_libraries(fuzz_play_options PRIVATE ZLIB::ZLIB)
    endif()
endif()
