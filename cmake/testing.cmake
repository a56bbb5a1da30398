find_package(GTest REQUIRED)
include(GoogleTest)

# wdc_test(<name> [LSAN_SLOW_UNWIND] <sources...>): one test binary, its cases registered with
# CTest one by one. Under WDC_SANITIZE every test reads cmake/lsan.supp. LSAN_SLOW_UNWIND is for
# binaries whose suppressed leaks are allocated inside zlib: built without frame pointers, it
# stops the fast unwinder before our own frame, which the suppressions name.
function(wdc_test name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "LSAN_SLOW_UNWIND" "" "")
  add_executable(${name} ${arg_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE webdavconnect wdc_test_support GTest::gtest GTest::gmock
                                        GTest::gtest_main)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/tests)
  target_compile_definitions(${name} PRIVATE
    WDC_SOURCE_DIR="${PROJECT_SOURCE_DIR}"
    WDC_FIXTURES_DIR="${WDC_FIXTURES_DIR}")
  wdc_set_warnings(${name})
  set(properties TIMEOUT 300)
  if(WDC_SANITIZE)
    set(lsan_options "suppressions=${PROJECT_SOURCE_DIR}/cmake/lsan.supp:print_suppressions=0")
    if(arg_LSAN_SLOW_UNWIND)
      string(APPEND lsan_options ":fast_unwind_on_malloc=0")
    endif()
    list(APPEND properties ENVIRONMENT "LSAN_OPTIONS=${lsan_options}")
  endif()
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES ${properties})
endfunction()
