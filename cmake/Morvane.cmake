# Project-wide helpers: one place for warnings, sanitizers, tests, benchmarks and fuzzers,
# so that every folder's CMakeLists.txt stays a plain list of sources.

include_guard(GLOBAL)

set(MORVANE_WARNINGS
    -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wcast-align
    -Woverloaded-virtual -Wnull-dereference -Wimplicit-fallthrough)
# GCC 12 reports -Wrestrict inside std::string's own code when optimising (GCC bug 105329):
# a false positive about the library, not about our code, so it is not asked for there.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 12
   AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    list(APPEND MORVANE_WARNINGS -Wno-restrict)
endif()
if(MORVANE_WERROR)
    list(APPEND MORVANE_WARNINGS -Werror)
endif()

# Compile options for code of ours; third-party headers are included as SYSTEM.
function(morvane_target_defaults target)
    target_compile_options(${target} PRIVATE ${MORVANE_WARNINGS})
    target_compile_features(${target} PUBLIC cxx_std_20)
endfunction()

# morvane_add_library(<name> SOURCES ... [DEPS ...] [PRIVATE_DEPS ...])
# One static library per folder of src/; headers are included as "<folder>/<File>.h".
function(morvane_add_library name)
    cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;PRIVATE_DEPS" ${ARGN})
    add_library(morvane_${name} STATIC ${ARG_SOURCES})
    add_library(morvane::${name} ALIAS morvane_${name})
    target_include_directories(morvane_${name} PUBLIC ${PROJECT_SOURCE_DIR}/src ${PROJECT_BINARY_DIR}/src)
    target_link_libraries(morvane_${name} PUBLIC ${ARG_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
    morvane_target_defaults(morvane_${name})
endfunction()

# morvane_add_test(<name> SOURCES ... [LIBS ...] [TSAN] [TIMEOUT seconds])
# A GoogleTest executable whose cases CTest lists one by one. TSAN adds it to the
# ThreadSanitizer pass that scripts/test runs in a build of its own.
function(morvane_add_test name)
    if(NOT MORVANE_BUILD_TESTS)
        return()
    endif()
    cmake_parse_arguments(ARG "TSAN" "TIMEOUT" "SOURCES;LIBS" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE ${ARG_LIBS} morvane_testsupport GTest::gtest GTest::gmock)
    morvane_target_defaults(${name})
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 120)
    endif()
    # One label a suite, the name of its folder, so that `ctest -L settings` picks a suite out
    # (ctest -L takes a regular expression). A suite in the ThreadSanitizer pass is marked
    # "<folder>.tsan", which `ctest -L tsan` finds. Several labels cannot travel through test
    # discovery, whose property list would split them.
    get_filename_component(area ${CMAKE_CURRENT_SOURCE_DIR} NAME)
    set(label ${area})
    if(ARG_TSAN)
        set(label ${area}.tsan)
        set_property(GLOBAL APPEND PROPERTY MORVANE_TSAN_TESTS ${name})
    endif()
    set(properties TIMEOUT ${ARG_TIMEOUT} LABELS ${label})
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES ${properties})
endfunction()

# morvane_add_benchmark(<name> SOURCES ... [LIBS ...])
# Benchmarks are built with the project and run by hand or by scripts/bench; never by CTest.
function(morvane_add_benchmark name)
    if(NOT MORVANE_BUILD_BENCH)
        return()
    endif()
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE ${ARG_LIBS} benchmark::benchmark)
    target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/bench)
    morvane_target_defaults(${name})
    set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bench)
endfunction()

# morvane_add_fuzzer(<name> SOURCES ... [LIBS ...])
# A libFuzzer target, built only in the fuzzing configuration (clang, MORVANE_FUZZ=ON).
# Its seed corpus is fuzz/<area>/corpus/<name> when that folder exists.
function(morvane_add_fuzzer name)
    if(NOT MORVANE_FUZZ)
        return()
    endif()
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE ${ARG_LIBS})
    target_compile_options(${name} PRIVATE -fsanitize=fuzzer)
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
    morvane_target_defaults(${name})
    set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/fuzzers)
    set_property(GLOBAL APPEND PROPERTY MORVANE_FUZZERS ${name})
endfunction()

# Adds every immediate sub-folder of the current folder that has a CMakeLists.txt, in the
# given order first and the rest alphabetically, so that areas can be added independently.
function(morvane_add_subdirectories)
    file(GLOB children RELATIVE ${CMAKE_CURRENT_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR}/*)
    list(SORT children)
    set(ordered ${ARGN})
    foreach(child IN LISTS children)
        if(IS_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/${child} AND NOT child IN_LIST ordered)
            list(APPEND ordered ${child})
        endif()
    endforeach()
    foreach(child IN LISTS ordered)
        if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${child}/CMakeLists.txt)
            add_subdirectory(${child})
        endif()
    endforeach()
endfunction()
