# Every external dependency of the project, in one place. Each one is a
# Debian 12 package; scripts/dev.sh installs the same list.
#   qt6-base-dev           Qt Core, Concurrent, Network, Gui, Test; Widgets for the
#                          example application (examples/robot-panel)
#   libboost-dev           smart pointers, Asio, Beast (headers)
#   libboost-system-dev    Boost.System
#   libmsgpack-cxx-dev     wire encoding
#   libgtest-dev libgmock-dev   unit and integration tests
#   libbenchmark-dev       benchmarks
#   clang libclang-rt-14-dev   fuzz targets (libFuzzer)
#   ccache                 incremental rebuilds across build directories
#   lld                    links in a fraction of GNU ld's time (cmake/NimiobBuildSpeed.cmake)
#   nginx libnginx-mod-http-xslt-filter   a standard HTTP server that the project
#                          transfer tests run against (WebDAV PUT and DELETE; the
#                          XSLT module turns its XML index into the robot's listing);
#                          found at test time, the test skips without it
# Not in the list: doxygen, which only `scripts/dev.sh docs` needs and installs
# on demand (the API reference from connection/*.h).
find_package(Qt6 6.2 REQUIRED COMPONENTS Core Concurrent Network Gui)
find_package(Boost 1.74 REQUIRED COMPONENTS system)
find_package(Threads REQUIRED)

# msgpack's own config pulls in Boost headers; MSGPACK_NO_BOOST keeps its
# Boost adaptors out of every translation unit, which halves their compile time.
find_package(msgpack REQUIRED CONFIG)
add_library(nimiob_msgpack INTERFACE)
target_link_libraries(nimiob_msgpack INTERFACE msgpackc-cxx)
target_compile_definitions(nimiob_msgpack INTERFACE MSGPACK_NO_BOOST)

if(NIMIOB_BUILD_TESTS)
  find_package(Qt6 6.2 REQUIRED COMPONENTS Test)
  find_package(GTest REQUIRED)
endif()
if(NIMIOB_BUILD_BENCH)
  find_package(benchmark REQUIRED)
endif()

set(CMAKE_AUTOMOC ON)
