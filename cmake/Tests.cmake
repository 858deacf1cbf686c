# How test programs are built, and how ctest runs them.

# The programs of scripts/test --quick: no root, no namespaces, fast.
add_custom_target(quick)
# The programs of scripts/coverage: built on request alone.
add_custom_target(coverage_programs)
option(KAVEL_COVERAGE "Define the programs that scripts/coverage runs" OFF)

# kavel_build_fast(TARGET...): compiles the headers of most tests once for all of these targets, and joins their sources.
function(kavel_build_fast)
  foreach(target ${ARGN})
    target_precompile_headers(${target} REUSE_FROM test_headers)
    kavel_join_sources(${target})
  endforeach()
endfunction()

# kavel_add_cases(NAME LABEL SECONDS COMMAND...): runs a test program as one entry of ctest. SECONDS is the time limit; an
# emulated processor gets ten times as long.
function(kavel_add_cases NAME LABEL SECONDS)
  if(CMAKE_CROSSCOMPILING_EMULATOR)
    math(EXPR SECONDS "${SECONDS} * 10")
  endif()
  add_test(NAME ${NAME}
    COMMAND ${PROJECT_SOURCE_DIR}/tests/run_cases ${SECONDS} ${CMAKE_CROSSCOMPILING_EMULATOR} ${ARGN})
  # run_cases stops the program first, and names the case that was running.
  math(EXPR limit "${SECONDS} + 30")
  set_tests_properties(${NAME} PROPERTIES LABELS ${LABEL} TIMEOUT ${limit})
endfunction()

# kavel_add_parts(NAME LABEL SECONDS COUNT COMMAND...): the same as COUNT entries NAME.1, NAME.2, ... with a part of the
# cases each. SECONDS is the limit of one entry.
function(kavel_add_parts NAME LABEL SECONDS COUNT)
  foreach(part RANGE 1 ${COUNT})
    kavel_add_cases(${NAME}.${part} ${LABEL} ${SECONDS} ${ARGN})
    math(EXPR index "${part} - 1")
    set_property(TEST ${NAME}.${part} PROPERTY ENVIRONMENT "GTEST_TOTAL_SHARDS=${COUNT}" "GTEST_SHARD_INDEX=${index}")
  endforeach()
endfunction()

# kavel_computes(TEST...): these tests use all of a core. scripts/test runs two tests for each core, because most of them
# wait for real processes and timers; one of these takes the place of two. They start first: later there would seldom be
# room for two.
function(kavel_computes)
  set_tests_properties(${ARGN} PROPERTIES PROCESSORS 2 COST 500)
endfunction()

# kavel_is_quick(TEST... PROGRAMS PROGRAM...): scripts/test --quick builds these programs and runs these tests.
function(kavel_is_quick)
  cmake_parse_arguments(ARG "" "" "PROGRAMS" ${ARGN})
  add_dependencies(quick ${ARG_PROGRAMS})
  set_property(TEST ${ARG_UNPARSED_ARGUMENTS} APPEND PROPERTY LABELS quick)
endfunction()

# kavel_for_coverage(PROGRAM): scripts/coverage builds and runs this program, nobody else.
function(kavel_for_coverage PROGRAM)
  set_target_properties(${PROGRAM} PROPERTIES EXCLUDE_FROM_ALL ON)
  add_dependencies(coverage_programs ${PROGRAM})
endfunction()

# kavel_counted(TARGET): defines TARGET_counted, the sources of the object library TARGET compiled so that they count
# what runs of them. The tests themselves are not counted, so these programs share their objects with the others.
function(kavel_counted TARGET)
  get_target_property(folder ${TARGET} SOURCE_DIR)
  get_target_property(sources ${TARGET} SOURCES)
  list(TRANSFORM sources PREPEND ${folder}/)
  add_library(${TARGET}_counted OBJECT EXCLUDE_FROM_ALL ${sources})
  # An object library passes on its requirements, not its objects.
  target_link_libraries(${TARGET}_counted PUBLIC ${TARGET})
  target_include_directories(${TARGET}_counted PRIVATE $<TARGET_PROPERTY:${TARGET},INCLUDE_DIRECTORIES>)
  target_compile_definitions(${TARGET}_counted PRIVATE $<TARGET_PROPERTY:${TARGET},COMPILE_DEFINITIONS>)
  target_compile_options(${TARGET}_counted PRIVATE $<TARGET_PROPERTY:${TARGET},COMPILE_OPTIONS>)
  get_target_property(generated ${TARGET} MANUALLY_ADDED_DEPENDENCIES)
  if(generated)
    add_dependencies(${TARGET}_counted ${generated})
  endif()
  get_target_property(is_joined ${TARGET} UNITY_BUILD)
  if(is_joined)
    kavel_join_sources(${TARGET}_counted)
  endif()
  target_compile_options(${TARGET}_counted PRIVATE -O0 --coverage)
  target_link_options(${TARGET}_counted INTERFACE --coverage)
endfunction()
