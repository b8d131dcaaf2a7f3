# The rooms of src/, lowest floor first, and what each may include. A room that includes anything else does not build.

set(all_rooms matrix probability host syntax language engine optimizer model parallel evaluation data modes
    integration sampling compartment solve inference graphics report run)
set(TORVALE_ROOMS ${all_rooms} CACHE STRING "Rooms to configure (a part of the house builds alone)")

set(may_include_matrix "")
set(may_include_probability matrix)
set(may_include_host optimizer/messages) # the words of its messages, nothing else of it
set(may_include_syntax host)
set(may_include_language syntax host)
set(may_include_engine syntax host probability)
set(may_include_optimizer matrix)
set(may_include_model engine optimizer syntax host)
set(may_include_parallel model ${may_include_model})
set(may_include_evaluation parallel model matrix probability host syntax engine optimizer)
set(may_include_data evaluation ${may_include_evaluation})
set(may_include_modes evaluation ${may_include_evaluation})
set(may_include_integration modes ${may_include_modes})
set(may_include_sampling integration ${may_include_integration})
set(may_include_compartment language syntax host)
set(may_include_solve integration data ${may_include_integration})
set(may_include_inference solve ${may_include_solve})
set(may_include_graphics host)
set(may_include_report inference sampling graphics host)
set(may_include_run inference sampling report graphics compartment language ${may_include_inference})

# Inner folders of the large rooms, lowest first, and what each may include beside itself. The room's own level (the files
# that stand in the room's folder) is below them all and may be included by each; where "may_include_ROOM_own" is set it
# is above those it lists, and none of them may include it.
set(inner_engine kernels graph functions derivatives translation stages native execution)
set(may_include_engine_kernels "")
set(may_include_engine_graph kernels)
set(may_include_engine_functions graph kernels)
set(may_include_engine_derivatives functions graph)
set(may_include_engine_translation functions graph)
set(may_include_engine_stages graph kernels)
set(may_include_engine_native stages kernels)
set(may_include_engine_execution stages graph kernels)

set(inner_optimizer messages active_set derivatives updates line_search techniques covariance control)
set(may_include_optimizer_messages "")
set(may_include_optimizer_active_set "")
set(may_include_optimizer_derivatives messages active_set)
set(may_include_optimizer_updates active_set derivatives)
set(may_include_optimizer_line_search active_set derivatives)
set(may_include_optimizer_techniques line_search updates derivatives active_set)
set(may_include_optimizer_covariance messages active_set derivatives)
set(may_include_optimizer_control covariance techniques line_search updates derivatives active_set messages)

set(inner_host values storage messages results data writers)
set(may_include_host_values "")
set(may_include_host_storage values)
set(may_include_host_messages values)
set(may_include_host_results messages values)
set(may_include_host_data results messages storage values)
set(may_include_host_writers data results values)
set(may_include_host_own ${inner_host})

set(inner_integration rules subjects nests posterior methods)
set(may_include_integration_rules "")
set(may_include_integration_subjects rules)
set(may_include_integration_nests subjects)
set(may_include_integration_posterior nests subjects)
set(may_include_integration_methods posterior subjects)
set(may_include_integration_own ${inner_integration})

set(inner_solve course start judgement)
set(may_include_solve_course "")
set(may_include_solve_start "")
set(may_include_solve_judgement course start)
set(may_include_solve_own ${inner_solve})

set(inner_inference tables outputs pictures)
set(may_include_inference_tables "")
set(may_include_inference_outputs tables)
set(may_include_inference_pictures outputs)
set(may_include_inference_own ${inner_inference})

set(inner_run statements)
set(may_include_run_statements "")
set(may_include_run_own ${inner_run})

# Headers that the build writes lie here, one folder a room.
set(TORVALE_GENERATED "${PROJECT_BINARY_DIR}/generated")

# torvale_room(NAME SOURCES files... [LIBRARIES external targets...])
# Declares src/NAME as the library torvale_NAME, linked with the rooms that it may include.
function(torvale_room name)
  cmake_parse_arguments(ROOM "" "" "SOURCES;LIBRARIES" ${ARGN})
  add_library(torvale_${name} STATIC ${ROOM_SOURCES})
  target_include_directories(torvale_${name} PUBLIC "${PROJECT_SOURCE_DIR}/src" "${TORVALE_GENERATED}")
  target_link_libraries(torvale_${name} PUBLIC ${ROOM_LIBRARIES} PRIVATE torvale_flags)
  foreach(lower IN LISTS may_include_${name})
    if(EXISTS "${PROJECT_SOURCE_DIR}/src/${lower}/CMakeLists.txt")
      string(REPLACE "/" "_" library "torvale_${lower}")
      target_link_libraries(torvale_${name} PUBLIC ${library})
    endif()
  endforeach()
  add_custom_target(check_room_${name}
    COMMAND ${CMAKE_COMMAND} -DROOM=${name} -DSOURCE_DIR=${PROJECT_SOURCE_DIR}
            -P "${PROJECT_SOURCE_DIR}/cmake/check_includes.cmake" VERBATIM)
  add_dependencies(torvale_${name} check_room_${name})
endfunction()

# torvale_test(NAME ROOM room SOURCES files...): one GoogleTest program, discovered by ctest.
function(torvale_test name)
  cmake_parse_arguments(TEST "" "" "SOURCES;ROOMS;LIBRARIES" ${ARGN})
  add_executable(${name} ${TEST_SOURCES})
  target_include_directories(${name} PRIVATE "${PROJECT_SOURCE_DIR}/tests" "${PROJECT_SOURCE_DIR}/src" "${PROJECT_SOURCE_DIR}/include")
  foreach(room IN LISTS TEST_ROOMS)
    target_link_libraries(${name} PRIVATE torvale_${room})
  endforeach()
  target_link_libraries(${name} PRIVATE torvale_flags ${TEST_LIBRARIES} GTest::gmock GTest::gtest GTest::gtest_main)
  target_compile_definitions(${name} PRIVATE TORVALE_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
  # Tests run once for each time they are built: half the time of the compiler is worth more than theirs.
  target_compile_options(${name} PRIVATE $<$<CONFIG:Release>:-O1>)
  # Four files a compilation: half of one is headers. Fixtures may then have types of anonymous namespaces.
  set_target_properties(${name} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 4)
  target_compile_options(${name} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 600)
endfunction()

# torvale_bench(NAME ROOMS rooms SOURCES files...): one Google Benchmark program.
function(torvale_bench name)
  cmake_parse_arguments(BENCH "" "" "SOURCES;ROOMS;LIBRARIES" ${ARGN})
  if(TORVALE_BENCH STREQUAL "CHECK")
    add_library(${name} OBJECT ${BENCH_SOURCES})
    target_compile_options(${name} PRIVATE -O0)
  else()
    add_executable(${name} ${BENCH_SOURCES})
  endif()
  foreach(room IN LISTS BENCH_ROOMS)
    target_link_libraries(${name} PRIVATE torvale_${room})
  endforeach()
  target_include_directories(${name} PRIVATE "${PROJECT_SOURCE_DIR}/src" "${PROJECT_SOURCE_DIR}/include" "${PROJECT_SOURCE_DIR}/bench")
  target_link_libraries(${name} PRIVATE torvale_flags ${BENCH_LIBRARIES} benchmark::benchmark)
  target_compile_definitions(${name} PRIVATE TORVALE_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
endfunction()
