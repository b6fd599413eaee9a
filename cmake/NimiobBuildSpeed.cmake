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
# -O2 and full debug information: together they are most of its compile time.
# The code under test keeps its build type's flags.
function(nimiob_test_flags target)
  target_compile_options(${target} PRIVATE $<$<CONFIG:RelWithDebInfo>:-O1 -g1>
                                           $<$<CONFIG:Debug>:-g1>)
endfunction()
