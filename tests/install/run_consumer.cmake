# Runs as a CTest script: install, configure and build the consumer, run it.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(LAST_OUTPUT "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
foreach(f include/connection/connection_manager.h lib/cmake/nimiob/nimiobConfig.cmake)
  if(NOT EXISTS ${prefix}/${f})
    message(FATAL_ERROR "missing from the install: ${f}")
  endif()
endforeach()

# Move the installed tree: the package and the SDK prefix must follow it.
set(moved ${WORK_DIR}/moved)
file(RENAME ${prefix} ${moved})

run(${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/build -G ${GENERATOR}
    -DCMAKE_PREFIX_PATH=${moved} -DCMAKE_BUILD_TYPE=Release)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run(${WORK_DIR}/build/consumer)
file(REAL_PATH ${moved} moved_real)
if(NOT LAST_OUTPUT MATCHES "sdk=${moved_real}\n")
  message(FATAL_ERROR "the consumer did not find the SDK at ${moved_real}:\n${LAST_OUTPUT}")
endif()
message(STATUS "consumer output:\n${LAST_OUTPUT}")
