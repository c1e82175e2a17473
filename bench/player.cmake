lorvex_add_benchmark(player SOURCES PlayerBench.cpp)
