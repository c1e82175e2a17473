# WAVE clips and sources for parser and player tests.
list(APPEND LORVEX_TEST_SUPPORT_SOURCES WaveFiles.cpp)
