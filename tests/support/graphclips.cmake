# Clips for the filter-graph tests (generated with ffmpeg at test time).
list(APPEND LORVEX_TEST_SUPPORT_SOURCES GraphClips.cpp)
