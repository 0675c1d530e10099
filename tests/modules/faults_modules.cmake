# Module libraries for the fault tests, built into modules/faults/ of the build folder so the
# loader tests that scan modules/ never see them.
add_library(vd_blocking_start_module MODULE
  ${CMAKE_CURRENT_LIST_DIR}/faults/blocking_start_module.cpp)
set_target_properties(vd_blocking_start_module PROPERTIES PREFIX "" OUTPUT_NAME lib_vd_blockstart
  LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/faults)
target_link_libraries(vd_blocking_start_module PRIVATE vigild_module_api)

# The fault tests run the real daemon with this module: build both before them. Deferred to
# the end of the tests folder, where the test targets exist.
cmake_language(DEFER DIRECTORY ${CMAKE_SOURCE_DIR}/tests CALL
  add_dependencies faults_e2e_test vigild vd_standin vd_blocking_start_module)
