# Content-type detection from a file name (player/LxDataSource.cpp).
lorvex_add_fuzz_target(content_type
    SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/ContentTypeFuzz.cpp
    INSTRUMENTED ${PROJECT_SOURCE_DIR}/player/LxDataSource.cpp)
