# Build settings shared by every part of Lorvex.

# Compiler flags for our own targets (not for third-party code).
add_library(lorvex_build_options INTERFACE)
target_compile_options(lorvex_build_options INTERFACE -Wall -Wextra)
if(LORVEX_WERROR)
    target_compile_options(lorvex_build_options INTERFACE -Werror)
endif()
target_include_directories(lorvex_build_options INTERFACE
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
if(LORVEX_KEEP_LOG)
    target_compile_definitions(lorvex_build_options INTERFACE LORVEX_KEEP_LOG=1)
endif()
find_package(Threads REQUIRED)
target_link_libraries(lorvex_build_options INTERFACE Threads::Threads ${CMAKE_DL_LIBS})

# Sanitizers apply to everything built in this tree, tests and tools included.
if(LORVEX_SANITIZE)
    set(_lx_san_flags -fsanitize=${LORVEX_SANITIZE} -fno-omit-frame-pointer -g)
    if(LORVEX_SANITIZE MATCHES "undefined")
        list(APPEND _lx_san_flags -fno-sanitize-recover=all)
    endif()
    add_compile_options(${_lx_san_flags} -O1)
    add_link_options(-fsanitize=${LORVEX_SANITIZE})
endif()

# The include checker (cmake/LayerCheck.cmake) runs before the library links, and again whenever a
# source or header of a layer changes, so an include against the layers fails the build.
include(LorvexLayers)
set(_lx_layer_globs ${PROJECT_SOURCE_DIR}/include/*.h)
foreach(entry ${LORVEX_LAYER_RANKS})
    string(REGEX REPLACE "=.*" "" folder "${entry}")
    list(APPEND _lx_layer_globs ${PROJECT_SOURCE_DIR}/${folder}/*.h ${PROJECT_SOURCE_DIR}/${folder}/*.cpp)
endforeach()
file(GLOB_RECURSE _lx_layer_inputs CONFIGURE_DEPENDS ${_lx_layer_globs})
add_custom_command(OUTPUT ${PROJECT_BINARY_DIR}/layer-check.stamp
    COMMAND ${CMAKE_COMMAND} -DROOT=${PROJECT_SOURCE_DIR} -DSTAMP=${PROJECT_BINARY_DIR}/layer-check.stamp
        -P ${PROJECT_SOURCE_DIR}/cmake/LayerCheck.cmake
    DEPENDS ${_lx_layer_inputs} ${PROJECT_SOURCE_DIR}/cmake/LayerCheck.cmake
        ${PROJECT_SOURCE_DIR}/cmake/LorvexLayers.cmake
    COMMENT "Checking the layers' includes"
    VERBATIM)
add_custom_target(lorvex_layer_check DEPENDS ${PROJECT_BINARY_DIR}/layer-check.stamp)

# lorvex_add_component(<name> SOURCES <files...> [LIBRARIES <private libs...>])
#
# Adds the object library lorvex_<name> (one subsystem or platform layer) to the library.
# Private libraries are linked into lorvex itself.
function(lorvex_add_component name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBRARIES;INCLUDES;DEFINITIONS" ${ARGN})
    add_library(lorvex_${name} OBJECT ${ARG_SOURCES})
    set_target_properties(lorvex_${name} PROPERTIES POSITION_INDEPENDENT_CODE ON)
    target_link_libraries(lorvex_${name} PRIVATE lorvex_build_options)
    if(ARG_INCLUDES)
        target_include_directories(lorvex_${name} SYSTEM PRIVATE ${ARG_INCLUDES})
    endif()
    if(ARG_DEFINITIONS)
        target_compile_definitions(lorvex_${name} PRIVATE ${ARG_DEFINITIONS})
    endif()
    if(ARG_LIBRARIES)
        # Usage requirements (include directories) of imported libraries reach the objects too.
        target_link_libraries(lorvex_${name} PRIVATE ${ARG_LIBRARIES})
    endif()
    set_property(GLOBAL APPEND PROPERTY LORVEX_COMPONENTS lorvex_${name})
    set_property(GLOBAL APPEND PROPERTY LORVEX_PRIVATE_LIBS ${ARG_LIBRARIES})
endfunction()

# Builds lorvex (shared) from every component.
function(lorvex_finish_library)
    get_property(components GLOBAL PROPERTY LORVEX_COMPONENTS)
    get_property(libs GLOBAL PROPERTY LORVEX_PRIVATE_LIBS)
    set(objects "")
    foreach(c ${components})
        list(APPEND objects $<TARGET_OBJECTS:${c}>)
    endforeach()
    add_library(lorvex SHARED ${objects})
    add_library(Lorvex::lorvex ALIAS lorvex)
    add_dependencies(lorvex lorvex_layer_check)
    set_target_properties(lorvex PROPERTIES
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR}
        EXPORT_NAME lorvex)
    target_include_directories(lorvex PUBLIC
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/lorvex>)
    if(LORVEX_KEEP_LOG)
        target_compile_definitions(lorvex PUBLIC LORVEX_KEEP_LOG=1)
    endif()
    target_link_libraries(lorvex PRIVATE lorvex_build_options ${libs})
    target_link_libraries(lorvex PUBLIC Threads::Threads)
endfunction()
