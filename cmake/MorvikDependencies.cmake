# The libraries of host/, the programs and the tests. Core and runtime need none of them.

if(MORVIK_BUILD_HOST OR MORVIK_BUILD_APPS)
  find_package(PkgConfig REQUIRED)
  find_package(Threads REQUIRED)
  find_package(CURL 7.87 REQUIRED)
  find_package(OpenSSL 3 REQUIRED)
  find_package(SQLite3 3.37 REQUIRED)
  find_package(ZLIB REQUIRED)
  find_package(simdjson 3 REQUIRED)
  pkg_check_modules(UV REQUIRED IMPORTED_TARGET libuv>=1.44)
  pkg_check_modules(DW REQUIRED IMPORTED_TARGET libdw>=0.180)
  set(MORVIK_HOST_LIBRARIES
      CURL::libcurl
      OpenSSL::SSL
      OpenSSL::Crypto
      SQLite::SQLite3
      ZLIB::ZLIB
      simdjson::simdjson
      PkgConfig::UV
      PkgConfig::DW
      Threads::Threads)
endif()

if(MORVIK_BUILD_APPS)
  find_package(CLI11 2.1 REQUIRED)
  find_package(nlohmann_json 3.11 REQUIRED)
  find_package(yaml-cpp 0.7 REQUIRED)
  find_package(SQLiteCpp 3.2 REQUIRED)
  pkg_check_modules(MICROHTTPD REQUIRED IMPORTED_TARGET libmicrohttpd>=0.9.75)
endif()

if(MORVIK_BUILD_TESTS)
  find_package(GTest 1.12 REQUIRED)
  find_program(MORVIK_PYTHON NAMES python3 PATHS /usr/bin NO_DEFAULT_PATH REQUIRED)
endif()

if(MORVIK_BUILD_BENCH)
  find_package(benchmark 1.7 REQUIRED)
  find_package(RapidJSON REQUIRED)
endif()
