# Build settings shared by every part of Lorvex.

# The version header, numbered from project(VERSION) so that the version is written once.
configure_file(${PROJECT_SOURCE_DIR}/include/LxVersion.h.in ${PROJECT_BINARY_DIR}/include/LxVersion.h @ONLY)

# Compiler flags for our own targets (not for third-party code).
add_library(lorvex_build_options INTERFACE)
target_compile_options(lorvex_build_options INTERFACE -Wall -Wextra)
if(LORVEX_WERROR)
    target_compile_options(lorvex_build_options INTERFACE -Werror)
endif()
# Tests and benchmarks see every header (the source root and include/); the library's own objects
# and the plug-ins above it set LORVEX_LAYER and see only their layer's directory (below).
set(_lx_all_headers $<NOT:$<BOOL:$<TARGET_PROPERTY:LORVEX_LAYER>>>)
target_include_directories(lorvex_build_options INTERFACE
    $<BUILD_INTERFACE:$<${_lx_all_headers}:${PROJECT_SOURCE_DIR}/include>>
    $<BUILD_INTERFACE:$<${_lx_all_headers}:${PROJECT_BINARY_DIR}/include>>
    $<BUILD_INTERFACE:$<${_lx_all_headers}:${PROJECT_SOURCE_DIR}>>)
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

# Each folder's objects see the public headers of their own layer and the layers below, their
# own folder and platform/ (the operating-system layer's interface), through a directory of links
# made here: build/layers/<folder>. A private header of another folder, or a public header of a
# higher layer, does not resolve there.
function(lorvex_make_layer_dirs)
    # The public headers: include/ and the generated ones (LxVersion.h) in the build's include/.
    file(GLOB headers ${PROJECT_SOURCE_DIR}/include/*.h ${PROJECT_BINARY_DIR}/include/*.h)
    foreach(entry ${LORVEX_LAYER_RANKS})
        string(REGEX MATCH "^([^=]+)=([0-9]+)$" _ "${entry}")
        set(folder ${CMAKE_MATCH_1})
        set(rank ${CMAKE_MATCH_2})
        set(dir ${PROJECT_BINARY_DIR}/layers/${folder})
        file(REMOVE_RECURSE ${dir})
        file(MAKE_DIRECTORY ${dir})
        foreach(path ${headers})
            get_filename_component(header ${path} NAME)
            lorvex_header_owner(${header} owner)
            if(owner STREQUAL "")
                continue()  # the include checker reports it
            endif()
            lorvex_layer_rank(${owner} owner_rank)
            if(owner STREQUAL folder OR owner_rank LESS rank)
                file(CREATE_LINK ${path} ${dir}/${header} SYMBOLIC)
            endif()
        endforeach()
        foreach(visible ${folder} platform)
            if(IS_DIRECTORY ${PROJECT_SOURCE_DIR}/${visible} AND NOT EXISTS ${dir}/${visible})
                file(CREATE_LINK ${PROJECT_SOURCE_DIR}/${visible} ${dir}/${visible} SYMBOLIC)
            endif()
        endforeach()
    endforeach()
endfunction()
lorvex_make_layer_dirs()

# lorvex_use_layer(<target> <folder>): the target's sources see what <folder> may include.
function(lorvex_use_layer target folder)
    set_target_properties(${target} PROPERTIES LORVEX_LAYER ${folder})
    target_include_directories(${target} PRIVATE ${PROJECT_BINARY_DIR}/layers/${folder})
endfunction()

# lorvex_add_component(<name> SOURCES <files...> [LIBRARIES <private libs...>])
#
# Adds the object library lorvex_<name> (one subsystem or platform layer) to the library.
# Private libraries are linked into lorvex itself.
function(lorvex_add_component name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBRARIES;INCLUDES;DEFINITIONS" ${ARGN})
    add_library(lorvex_${name} OBJECT ${ARG_SOURCES})
    set_target_properties(lorvex_${name} PROPERTIES POSITION_INDEPENDENT_CODE ON)
    if(LORVEX_HIDE_INTERNALS)
        # Only what the headers mark LX_API leaves the library.
        set_target_properties(lorvex_${name} PROPERTIES C_VISIBILITY_PRESET hidden
            CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
    endif()
    file(RELATIVE_PATH folder ${PROJECT_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR})
    string(REGEX REPLACE "/.*" "" folder "${folder}")
    lorvex_use_layer(lorvex_${name} ${folder})
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
    # Each component depends on the components of the layers below it (for their usage
    # requirements, and to state the direction); never on one of its own rank or above.
    foreach(c ${components})
        get_target_property(folder ${c} LORVEX_LAYER)
        lorvex_layer_rank(${folder} rank)
        foreach(d ${components})
            get_target_property(dfolder ${d} LORVEX_LAYER)
            lorvex_layer_rank(${dfolder} drank)
            if(drank LESS rank)
                target_link_libraries(${c} PRIVATE ${d})
            endif()
        endforeach()
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
        $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/lorvex>)
    if(LORVEX_KEEP_LOG)
        target_compile_definitions(lorvex PUBLIC LORVEX_KEEP_LOG=1)
    endif()
    target_link_libraries(lorvex PRIVATE lorvex_build_options ${libs})
    target_link_libraries(lorvex PUBLIC Threads::Threads)
endfunction()
