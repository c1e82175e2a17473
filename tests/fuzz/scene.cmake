# Scene-field changes on the scene support (vrml/LxVrmlSupport.cpp).
lorvex_add_fuzz_target(scene_fields
    SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/SceneFieldsFuzz.cpp
    INSTRUMENTED ${PROJECT_SOURCE_DIR}/vrml/LxVrmlSupport.cpp ${PROJECT_SOURCE_DIR}/foundation/LxTime.cpp)
if(LORVEX_FUZZ)
    target_link_libraries(fuzz_scene_fields PRIVATE lorvex_test_support)
endif()
