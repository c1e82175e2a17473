# Fakes for node, player and renderer tests.
list(APPEND LORVEX_TEST_SUPPORT_SOURCES TestNodes.cpp TestRenderer.cpp TestPlayer.cpp)
