# Runs as a CTest script, one STEP at a time: "install" installs the build and
# moves the installed tree; "consumer" builds the consumer against it and runs
# it; "example" builds the installed example application and starts it. The
# last two need the first, and may run side by side.
set(prefix ${WORK_DIR}/prefix)
set(moved ${WORK_DIR}/moved)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(LAST_OUTPUT "${out}" PARENT_SCOPE)
endfunction()

# The build's own compiler, without optimisation: what is tested is that the
# package is found and its headers and libraries work, not the code made.
set(consumer_args -G ${GENERATOR} -DCMAKE_PREFIX_PATH=${moved} -DCMAKE_CXX_COMPILER=${CXX}
    -DCMAKE_BUILD_TYPE=)

if(STEP STREQUAL "install")
  file(REMOVE_RECURSE ${WORK_DIR})
  run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
  foreach(f include/connection/connection_manager.h lib/cmake/nimiob/nimiobConfig.cmake
            share/doc/nimiob/README.md share/doc/nimiob/platform/README.md
            share/doc/nimiob/examples/robot-panel/CMakeLists.txt)
    if(NOT EXISTS ${prefix}/${f})
      message(FATAL_ERROR "missing from the install: ${f}")
    endif()
  endforeach()

  # Nothing internal is installed: the connection object, the wire's inside,
  # private headers.
  foreach(f include/connection/connection.h include/wz/detail)
    if(EXISTS ${prefix}/${f})
      message(FATAL_ERROR "internal, yet installed: ${f}")
    endif()
  endforeach()
  file(GLOB_RECURSE private_headers ${prefix}/include/*_p.h)
  if(private_headers)
    message(FATAL_ERROR "private headers installed: ${private_headers}")
  endif()

  # Each exported target names its include directory once. The lists are read
  # with "|" for ";", which CMake would otherwise take for list separators.
  file(READ ${prefix}/lib/cmake/nimiob/nimiobTargets.cmake targets)
  string(REPLACE ";" "|" targets "${targets}")
  string(REGEX MATCHALL "INTERFACE_INCLUDE_DIRECTORIES \"[^\"]*\"" include_lines "${targets}")
  if(NOT include_lines)
    message(FATAL_ERROR "the exported targets name no include directory")
  endif()
  foreach(line IN LISTS include_lines)
    string(REGEX REPLACE "INTERFACE_INCLUDE_DIRECTORIES \"([^\"]*)\"" "\\1" dirs "${line}")
    string(REPLACE "|" ";" dirs "${dirs}")
    set(unique ${dirs})
    list(REMOVE_DUPLICATES unique)
    if(NOT unique STREQUAL dirs)
      message(FATAL_ERROR "an exported target lists an include directory twice: ${dirs}")
    endif()
  endforeach()

  # Move the installed tree: the package and the SDK prefix must follow it.
  file(RENAME ${prefix} ${moved})

elseif(STEP STREQUAL "consumer")
  run(${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/build ${consumer_args})
  run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
  run(${WORK_DIR}/build/consumer)
  file(REAL_PATH ${moved} moved_real)
  if(NOT LAST_OUTPUT MATCHES "sdk=${moved_real}\n")
    message(FATAL_ERROR "the consumer did not find the SDK at ${moved_real}:\n${LAST_OUTPUT}")
  endif()
  message(STATUS "consumer output:\n${LAST_OUTPUT}")

elseif(STEP STREQUAL "example")
  # The example application, as installed with the documentation, built against
  # the moved package alone, and started far enough to print its usage. As one
  # unit: its files parse the same framework headers, and it builds in half the
  # time (they compile one by one, with warnings as errors, in the tree).
  run(${CMAKE_COMMAND} -S ${moved}/share/doc/nimiob/examples/robot-panel -B ${WORK_DIR}/example
      ${consumer_args} -DCMAKE_UNITY_BUILD=ON)
  run(${CMAKE_COMMAND} --build ${WORK_DIR}/example)
  run(${CMAKE_COMMAND} -E env QT_QPA_PLATFORM=offscreen ${WORK_DIR}/example/robot-panel --help)
  if(NOT LAST_OUTPUT MATCHES "--robot <HOST\\[:PORT\\]>")
    message(FATAL_ERROR "the example did not start:\n${LAST_OUTPUT}")
  endif()
  message(STATUS "example built against the installed package:\n${LAST_OUTPUT}")

else()
  message(FATAL_ERROR "unknown STEP \"${STEP}\"")
endif()
