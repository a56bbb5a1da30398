find_package(GTest REQUIRED)
include(GoogleTest)

# wdc_test(<name> <sources...>): one test binary, its cases registered with CTest one by one.
function(wdc_test name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE webdavconnect wdc_test_support GTest::gtest GTest::gmock
                                        GTest::gtest_main)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/tests)
  target_compile_definitions(${name} PRIVATE
    WDC_SOURCE_DIR="${PROJECT_SOURCE_DIR}"
    WDC_FIXTURES_DIR="${WDC_FIXTURES_DIR}")
  wdc_set_warnings(${name})
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endfunction()
