# orvex_folder(NAME LIBRARIES ...): the folder's sources as one library, orvex_NAME, and its *_test.cpp as one test
# program beside it. Sources are found by name, so adding a file needs no edit here.
function(orvex_folder folder)
  cmake_parse_arguments(arg "" "" "LIBRARIES" ${ARGN})
  string(REPLACE "/" "_" name ${folder})
  file(GLOB sources CONFIGURE_DEPENDS ${folder}/*.cpp)
  file(GLOB tests CONFIGURE_DEPENDS ${folder}/*_test.cpp)
  if(tests)
    list(REMOVE_ITEM sources ${tests})
  endif()
  list(FILTER sources EXCLUDE REGEX "/(main|assembly|orvex_logging)\\.cpp$")
  if(sources)
    add_library(orvex_${name} STATIC ${sources})
    target_link_libraries(orvex_${name} PUBLIC ${arg_LIBRARIES})
  else()
    add_library(orvex_${name} INTERFACE)
    target_link_libraries(orvex_${name} INTERFACE ${arg_LIBRARIES})
  endif()
  if(ORVEX_TESTS AND tests)
    set_property(GLOBAL APPEND PROPERTY orvex_tests "${name}")
    set_property(GLOBAL PROPERTY orvex_tests_${name} "${tests}")
  endif()
endfunction()

# core/feedback_records.proto, compiled: included as "core/feedback_records.pb.h". A target of its own, since generated
# code keeps to nobody's warnings.
function(orvex_records)
  add_library(orvex_records STATIC core/feedback_records.proto)
  protobuf_generate(TARGET orvex_records LANGUAGE cpp)
  target_compile_options(orvex_records PRIVATE -w)
  target_include_directories(orvex_records SYSTEM PUBLIC ${CMAKE_BINARY_DIR})
  target_link_libraries(orvex_records PUBLIC protobuf::libprotobuf)
endfunction()

# The assembly and the loggers stand below the folders that use them, so they are a target of their own.
function(orvex_assembly)
  add_library(orvex_assembly STATIC daemon/assembly.cpp daemon/orvex_logging.cpp)
  target_link_libraries(orvex_assembly PUBLIC orvex_core)
endfunction()

function(orvex_program name source)
  add_executable(${name} ${source})
  target_link_libraries(${name} PRIVATE ${ARGN} ${ORVEX_SANITIZER_OPTIONS})
  target_compile_definitions(${name} PRIVATE ORVEX_VERSION="${PROJECT_VERSION}")
endfunction()

# The unit tests of every folder, each linked with the fakes and (for the contract tests) the real services.
function(orvex_add_unit_tests)
  get_property(names GLOBAL PROPERTY orvex_tests)
  foreach(name IN LISTS names)
    get_property(sources GLOBAL PROPERTY orvex_tests_${name})
    add_executable(${name}_test ${sources})
    target_link_libraries(${name}_test PRIVATE orvex_${name} orvex_platform_fakes orvex_platform_linux GTest::gmock_main
                          ${ORVEX_SANITIZER_OPTIONS})
    target_compile_options(${name}_test PRIVATE $<IF:$<CONFIG:Release>,-O1,-O0>)  # halves their build, not what they test
    gtest_discover_tests(${name}_test TEST_PREFIX ${name}/ DISCOVERY_TIMEOUT 120 PROPERTIES TIMEOUT 300)
  endforeach()
endfunction()
