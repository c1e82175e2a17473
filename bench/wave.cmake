lorvex_add_benchmark(wave SOURCES WaveBench.cpp)
