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
# An imported target rather than a path, so the installed package names it and finds it again
# on the host (cmake/webdavconnectConfig.cmake.in) instead of carrying this machine's path.
add_library(wdc::cld2 UNKNOWN IMPORTED)
set_target_properties(wdc::cld2 PROPERTIES IMPORTED_LOCATION ${CLD2_LIBRARY})
# Debian's cpp-httplib is a compiled library: its .pc file carries the switches it was built with.
pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)

# Installed with the library as webdavconnect::deps (cmake/packaging.cmake). Header-only pieces,
# libplist (the payload benchmark's baseline) and include paths only our sources need are
# BUILD_INTERFACE: hosts include our public headers, which include none of them.
add_library(wdc_deps INTERFACE)
add_library(wdc::deps ALIAS wdc_deps)
set_target_properties(wdc_deps PROPERTIES EXPORT_NAME deps)
target_link_libraries(wdc_deps INTERFACE
  ZLIB::ZLIB CURL::libcurl OpenSSL::SSL OpenSSL::Crypto
  $<BUILD_INTERFACE:nlohmann_json::nlohmann_json>
  LibArchive::LibArchive spdlog::spdlog fmt::fmt $<BUILD_INTERFACE:CLI11::CLI11>
  ICU::uc ICU::i18n ICU::data $<BUILD_INTERFACE:PkgConfig::PLIST> PkgConfig::NETTLE wdc::cld2)
target_include_directories(wdc_deps SYSTEM INTERFACE $<BUILD_INTERFACE:${CLD2_INCLUDE_DIR}>)

add_library(wdc_httplib INTERFACE)
add_library(wdc::httplib ALIAS wdc_httplib)
target_link_libraries(wdc_httplib INTERFACE PkgConfig::HTTPLIB OpenSSL::SSL OpenSSL::Crypto ZLIB::ZLIB)
