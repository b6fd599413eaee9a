# Warnings are errors on the project's own code only.
function(nimiob_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()

function(nimiob_optional_subdirectory dir)
  if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${dir}/CMakeLists.txt)
    add_subdirectory(${dir})
  endif()
endfunction()

# nimiob_test_precompiled(out): the precompiled header of gtest, Qt and Boost
# that the test programs of the calling directory share. One a directory: Qt's
# test module defines the directory of each program, and a precompiled header
# serves only programs compiled with the same definitions.
function(nimiob_test_precompiled out)
  file(RELATIVE_PATH dir ${PROJECT_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR})
  string(MAKE_C_IDENTIFIER "${dir}" id)
  set(pch nimiob_pch_${id})
  if(NOT TARGET ${pch})
    add_library(${pch} OBJECT ${PROJECT_SOURCE_DIR}/tests/support/precompiled.cpp)
    target_link_libraries(${pch} PRIVATE nimiob_test_main)
    set_target_properties(${pch} PROPERTIES AUTOMOC OFF)
    nimiob_warnings(${pch})
    nimiob_test_flags(${pch})
    nimiob_precompile(${pch} STD QT BOOST)
    target_precompile_headers(${pch} PRIVATE
      <gtest/gtest.h> <QDeadlineTimer> <QDir> <QElapsedTimer> <QEventLoop> <QFile> <QSignalSpy>
      <QTemporaryDir>)
  endif()
  set(${out} ${pch} PARENT_SCOPE)
endfunction()

# nimiob_add_test(NAME name SOURCES a.cpp... LIBS libs... LABELS unit|integration...
#                 [TIMEOUT seconds] [OPTIMIZED])
# One GoogleTest executable, registered with CTest as one test so that a
# suite can share one simulated robot among its cases.
function(nimiob_add_test)
  cmake_parse_arguments(T "OPTIMIZED" "NAME;TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
  add_executable(${T_NAME} ${T_SOURCES})
  target_link_libraries(${T_NAME} PRIVATE ${T_LIBS} nimiob_test_main)
  nimiob_warnings(${T_NAME})
  # OPTIMIZED: a test whose own loops are its running time keeps the build
  # type's flags, and so parses its headers itself.
  if(NOT T_OPTIMIZED)
    nimiob_test_flags(${T_NAME})
    nimiob_test_precompiled(pch)
    target_precompile_headers(${T_NAME} REUSE_FROM ${pch})
  endif()
  # moc runs only over programs that declare a QObject of their own: for the
  # others it would scan every header they include, for nothing.
  set(automoc OFF)
  foreach(source IN LISTS T_SOURCES)
    if(NOT IS_ABSOLUTE ${source})
      set(source ${CMAKE_CURRENT_SOURCE_DIR}/${source})
    endif()
    file(STRINGS ${source} qobject REGEX "Q_OBJECT|Q_GADGET")
    if(qobject)
      set(automoc ON)
    endif()
  endforeach()
  set_target_properties(${T_NAME} PROPERTIES AUTOMOC ${automoc})
  add_test(NAME ${T_NAME} COMMAND ${T_NAME})
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 300)
  endif()
  set_tests_properties(${T_NAME} PROPERTIES LABELS "${T_LABELS}" TIMEOUT ${T_TIMEOUT})
endfunction()

function(nimiob_add_bench)
  cmake_parse_arguments(B "" "NAME" "SOURCES;LIBS" ${ARGN})
  add_executable(${B_NAME} ${B_SOURCES})
  target_link_libraries(${B_NAME} PRIVATE ${B_LIBS} benchmark::benchmark)
  nimiob_warnings(${B_NAME})
  # Line tables are enough to read a profile; the optimisation stays.
  target_compile_options(${B_NAME} PRIVATE $<$<CONFIG:RelWithDebInfo,Debug>:-g1>)
endfunction()

# nimiob_add_fuzz(NAME fuzz_<corpus> SOURCES a.cpp... LIBS libs...)
# In the fuzz build: a libFuzzer target, fed from fuzz/corpus/<corpus>/. In a
# test build: the same entry function behind a plain driver, and a CTest test
# that replays every saved input of fuzz/corpus/<corpus>/ through it.
function(nimiob_add_fuzz)
  cmake_parse_arguments(F "" "NAME" "SOURCES;LIBS" ${ARGN})
  if(NIMIOB_BUILD_FUZZ)
    add_executable(${F_NAME} ${F_SOURCES})
    target_compile_options(${F_NAME} PRIVATE -fsanitize=fuzzer,address,undefined)
    target_link_options(${F_NAME} PRIVATE -fsanitize=fuzzer,address,undefined)
  else()
    add_executable(${F_NAME} ${F_SOURCES} ${PROJECT_SOURCE_DIR}/fuzz/replay_main.cpp)
    nimiob_warnings(${F_NAME})
    string(REGEX REPLACE "^fuzz_" "" corpus ${F_NAME})
    add_test(NAME ${F_NAME}_corpus COMMAND ${F_NAME} ${PROJECT_SOURCE_DIR}/fuzz/corpus/${corpus})
    set_tests_properties(${F_NAME}_corpus PROPERTIES LABELS unit TIMEOUT 60)
  endif()
  target_link_libraries(${F_NAME} PRIVATE ${F_LIBS})
  set_property(GLOBAL APPEND PROPERTY NIMIOB_FUZZ_TARGETS ${F_NAME})
endfunction()

# nimiob_install_library(target HEADERS_DIR dir [HEADERS_DEST subdir])
# Installs a shared library with VERSION/SOVERSION into the exported set.
# Its include directory comes from the target's own INSTALL_INTERFACE; an
# INCLUDES DESTINATION here as well would list it twice in the exported targets.
function(nimiob_install_library target)
  cmake_parse_arguments(L "" "HEADERS_DIR;HEADERS_DEST" "" ${ARGN})
  set_target_properties(${target} PROPERTIES VERSION ${PROJECT_VERSION}
                                             SOVERSION ${PROJECT_VERSION_MAJOR})
  install(TARGETS ${target} EXPORT nimiobTargets
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
          ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
          RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  if(L_HEADERS_DIR)
    install(DIRECTORY ${L_HEADERS_DIR}/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${L_HEADERS_DEST}
            FILES_MATCHING PATTERN "*.h")
  endif()
endfunction()
