if(TARGET qlm13_dshow)
    lorvex_add_benchmark(am_player SOURCES AMPlayerBench.cpp)
    add_dependencies(bench_am_player qlm13_dshow)
endif()
