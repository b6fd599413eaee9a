# What keeps a cold build and a one-file rebuild short on a two-core machine.
# Each choice was measured before it was kept (README.md, "Build times").
include_guard(GLOBAL)
include(CheckLinkerFlag)

# lld links the test programs, each with its copy of the library's archive
# and debug information, in a fraction of GNU ld's time: the links are most
# of a rebuild after one source file of the library changed.
option(NIMIOB_FAST_LINKER "Link with lld when the compiler accepts -fuse-ld=lld" ON)
if(NIMIOB_FAST_LINKER)
  check_linker_flag(CXX -fuse-ld=lld NIMIOB_HAVE_LLD)
  if(NIMIOB_HAVE_LLD)
    add_link_options(-fuse-ld=lld)
  endif()
endif()

# A program is not linked again when only a shared library it uses changed:
# it finds the library's symbols when it starts, not when it is linked.
set(CMAKE_LINK_DEPENDS_NO_SHARED ON)

# ccache reuses a result compiled with a precompiled header only when told
# that the header's defines and timestamps may be trusted.
set(NIMIOB_CCACHE_SLOPPINESS pch_defines,time_macros,include_file_mtime,include_file_ctime)
find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER env CCACHE_SLOPPINESS=${NIMIOB_CCACHE_SLOPPINESS}
                                  ${CCACHE_PROGRAM})
endif()

# nimiob_test_flags(target)
# A test program's own code needs line numbers in a failure's backtrace, not
# optimisation and full debug information: together they are most of its
# compile time (a connection test: 9.4 s at -O1, 6.1 s at -O0 with clang).
# The code under test keeps its build type's flags.
function(nimiob_test_flags target)
  target_compile_options(${target} PRIVATE $<$<CONFIG:RelWithDebInfo>:-O0 -g1>
                                           $<$<CONFIG:Debug>:-g1>)
endfunction()

# The system headers that nearly every source of a target includes, parsed
# once per target (or once for the test programs of a directory) instead of
# once per file.
# Only system headers, so that a change to the project's own headers does not
# rebuild a whole target through its precompiled header.
set(NIMIOB_PCH_STD <algorithm> <atomic> <chrono> <condition_variable> <functional> <map>
                   <memory> <mutex> <stdexcept> <string> <thread> <vector>)
set(NIMIOB_PCH_QT <QCoreApplication> <QFuture> <QFutureWatcher> <QMetaObject> <QMetaType>
                  <QMutex> <QMutexLocker> <QObject> <QString> <QStringList> <QThread> <QTimer>
                  <QtConcurrentRun>)
set(NIMIOB_PCH_BOOST <boost/enable_shared_from_this.hpp> <boost/make_shared.hpp>
                     <boost/shared_ptr.hpp> <boost/weak_ptr.hpp>)
set(NIMIOB_PCH_ASIO <boost/asio/bind_executor.hpp> <boost/asio/io_context.hpp>
                    <boost/asio/ip/tcp.hpp> <boost/asio/post.hpp> <boost/asio/steady_timer.hpp>
                    <boost/asio/strand.hpp>)

# nimiob_precompile(target STD|QT|BOOST|ASIO...): one precompiled header of those sets.
function(nimiob_precompile target)
  set(headers)
  foreach(set IN LISTS ARGN)
    list(APPEND headers ${NIMIOB_PCH_${set}})
  endforeach()
  target_precompile_headers(${target} PRIVATE ${headers})
endfunction()

# Unity builds: a target's sources compiled a batch at a time, so that the
# templates they all instantiate (Qt's, Boost's, wz's) are compiled once a
# batch instead of once a file. scripts/dev.sh turns it on for the everyday
# build; the sanitizer builds keep one file a unit, so CI still proves that
# every source includes what it uses.
option(NIMIOB_UNITY_BUILD "Compile the larger targets in batches of sources" OFF)

# nimiob_unity(target): the target builds in batches when NIMIOB_UNITY_BUILD
# is on. Each source keeps its own log category under the one name the
# sources use for it (k_category, kCategory): in a batch the name is made
# unique to the file it appears in. Anything else a source keeps to itself
# must have a name no other source of the target uses.
function(nimiob_unity target)
  if(NOT NIMIOB_UNITY_BUILD)
    return()
  endif()
  set(before [=[
#define NIMIOB_UNITY_JOIN2(a, b) a##b
#define NIMIOB_UNITY_JOIN(a, b) NIMIOB_UNITY_JOIN2(a, b)
#define k_category NIMIOB_UNITY_JOIN(k_category_, NIMIOB_UNITY_ID)
#define kCategory NIMIOB_UNITY_JOIN(kCategory_, NIMIOB_UNITY_ID)
]=])
  set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 8
                        UNITY_BUILD_UNIQUE_ID NIMIOB_UNITY_ID
                        UNITY_BUILD_CODE_BEFORE_INCLUDE "${before}")
endfunction()
