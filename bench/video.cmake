# Video renderer: attachFrameFromTime/releaseFrame cost and 640x480 frame throughput (RESULTS.md, "Video").
lorvex_add_benchmark(video SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/VideoBench.cpp)
