# Messaging framework tests (wz). Included from tests/platform/CMakeLists.txt.
nimiob_add_test(NAME wz_unit_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/wz_values_test.cpp
  LIBS wz wz_wire LABELS unit TIMEOUT 60)
nimiob_add_test(NAME wz_session_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/wz_session_test.cpp
          ${CMAKE_CURRENT_LIST_DIR}/wz_robustness_test.cpp
  LIBS wz wz_wire LABELS integration TIMEOUT 120)
if(NIMIOB_SANITIZE STREQUAL "thread" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  target_compile_options(wz_session_test PRIVATE -Wno-error=tsan)
endif()
