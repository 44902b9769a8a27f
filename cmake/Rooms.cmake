# A room is one folder: its sources become one static library, its *_test.cpp
# one test program, its main.cpp (if PROGRAM is given) one executable.
#
#   morva_room(path [ROOMS room...] [LIBS library...] [PROGRAM name])
#
# Libraries are named after the path with dots: base.values. New files are
# found by themselves.

find_program(MORVA_CCACHE ccache)
if(MORVA_CCACHE)
    set(CMAKE_CXX_COMPILER_LAUNCHER
        ${CMAKE_COMMAND} -E env
        CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime
        # Checkouts in other places share what was compiled.
        CCACHE_BASEDIR=${CMAKE_SOURCE_DIR} CCACHE_NOHASHDIR=true
        ${MORVA_CCACHE})
endif()
find_program(MORVA_MOLD mold)

add_library(morva_options INTERFACE)
target_compile_options(morva_options INTERFACE
    -Wall -Wextra -Werror -Wno-missing-field-initializers)
target_compile_definitions(morva_options INTERFACE
    QT_NO_CAST_FROM_ASCII_WARNINGS QT_NO_KEYWORDS)
target_include_directories(morva_options INTERFACE ${CMAKE_SOURCE_DIR})
if(MORVA_MOLD)
    target_link_options(morva_options INTERFACE -fuse-ld=mold)
endif()
if(MORVA_SANITIZE)
    target_compile_options(morva_options INTERFACE
        -fsanitize=${MORVA_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    target_link_options(morva_options INTERFACE -fsanitize=${MORVA_SANITIZE})
endif()
if(MORVA_FUZZ)
    target_compile_options(morva_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(morva_options INTERFACE -fpch-preprocess)
endif()

function(morva_shared_pch)
    if(TARGET morva_pch)
        return()
    endif()
    file(WRITE ${CMAKE_BINARY_DIR}/pch.cpp "")
    add_library(morva_pch OBJECT ${CMAKE_BINARY_DIR}/pch.cpp)
    target_link_libraries(morva_pch PUBLIC morva_options Qt6::Core)
    target_precompile_headers(morva_pch PRIVATE
        <QByteArray> <QHash> <QList> <QString> <QStringList>
        <algorithm> <array> <atomic> <chrono> <condition_variable> <cstdint> <cstring>
        <functional> <map> <memory> <mutex> <optional> <shared_mutex> <span> <string>
        <thread> <unordered_map> <utility> <vector>)
    add_library(morva_test_pch OBJECT ${CMAKE_BINARY_DIR}/pch.cpp)
    target_link_libraries(morva_test_pch PUBLIC morva_options Qt6::Core GTest::gtest)
    target_precompile_headers(morva_test_pch PRIVATE
        <gtest/gtest.h> <QByteArray> <QHash> <QString> <QStringList>
        <algorithm> <functional> <map> <memory> <optional> <random> <string> <vector>)
endfunction()

function(morva_room path)
    cmake_parse_arguments(ROOM "" "PROGRAM" "ROOMS;LIBS" ${ARGN})
    string(REPLACE "/" "." target ${path})
    set(dir ${CMAKE_SOURCE_DIR}/${path})
    file(GLOB sources CONFIGURE_DEPENDS ${dir}/*.cpp)
    file(GLOB headers CONFIGURE_DEPENDS ${dir}/*.h)
    file(GLOB tests CONFIGURE_DEPENDS ${dir}/*_test.cpp)
    list(REMOVE_ITEM sources ${dir}/main.cpp ${tests})
    list(TRANSFORM ROOM_ROOMS REPLACE "/" ".")

    morva_shared_pch()
    if(sources)
        add_library(${target} STATIC ${sources} ${headers})
        target_link_libraries(${target} PUBLIC morva_options ${ROOM_ROOMS} ${ROOM_LIBS} Qt6::Core)
        target_precompile_headers(${target} REUSE_FROM morva_pch)
    else()
        add_library(${target} INTERFACE)
        target_link_libraries(${target} INTERFACE morva_options ${ROOM_ROOMS} ${ROOM_LIBS})
    endif()
    if(tests)
        add_executable(${target}_test ${tests})
        target_link_libraries(${target}_test PRIVATE ${target} Qt6::Core GTest::gtest GTest::gtest_main)
        target_precompile_headers(${target}_test REUSE_FROM morva_test_pch)
        add_test(NAME ${path} COMMAND ${target}_test --gtest_brief=1)
        set_tests_properties(${path} PROPERTIES TIMEOUT 600)
    endif()
    if(ROOM_PROGRAM AND EXISTS ${dir}/main.cpp)
        add_executable(${ROOM_PROGRAM} ${dir}/main.cpp)
        set_target_properties(${ROOM_PROGRAM} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})
        target_link_libraries(${ROOM_PROGRAM} PRIVATE ${target})
    endif()
endfunction()
