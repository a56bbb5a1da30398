# Every dependency is a Debian package (scripts/install-deps.sh installs them).
# They are gathered into one interface target so layers need not repeat them.
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(ZLIB REQUIRED)
find_package(CURL REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(nlohmann_json 3 REQUIRED)
find_package(LibArchive REQUIRED)
find_package(spdlog REQUIRED)
find_package(fmt REQUIRED)
find_package(CLI11 REQUIRED)
find_package(ICU REQUIRED COMPONENTS uc i18n data)
pkg_check_modules(PLIST REQUIRED IMPORTED_TARGET libplist-2.0)
pkg_check_modules(NETTLE REQUIRED IMPORTED_TARGET nettle)
find_library(CLD2_LIBRARY NAMES cld2 REQUIRED)
find_path(CLD2_INCLUDE_DIR NAMES cld2/public/compact_lang_det.h REQUIRED)
# Debian's cpp-httplib is a compiled library: its .pc file carries the switches it was built with.
pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)

add_library(wdc_deps INTERFACE)
add_library(wdc::deps ALIAS wdc_deps)
target_link_libraries(wdc_deps INTERFACE
  ZLIB::ZLIB CURL::libcurl OpenSSL::SSL OpenSSL::Crypto nlohmann_json::nlohmann_json
  LibArchive::LibArchive spdlog::spdlog fmt::fmt CLI11::CLI11 ICU::uc ICU::i18n ICU::data
  PkgConfig::PLIST PkgConfig::NETTLE ${CLD2_LIBRARY})
target_include_directories(wdc_deps SYSTEM INTERFACE ${CLD2_INCLUDE_DIR})

add_library(wdc_httplib INTERFACE)
add_library(wdc::httplib ALIAS wdc_httplib)
target_link_libraries(wdc_httplib INTERFACE PkgConfig::HTTPLIB OpenSSL::SSL OpenSSL::Crypto ZLIB::ZLIB)
