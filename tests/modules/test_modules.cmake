# Test module libraries, all built from test_module.cpp with compile-time knobs (see
# test_module_probe.h). They land in this build folder (VIGILD_TEST_MODULE_DIR of the tests).

# The probes and the shared event journal, linked by every module and every test. Its name
# does not begin with lib_vd_, so the loader never takes it for a module.
add_library(vd_test_probe SHARED ${CMAKE_CURRENT_LIST_DIR}/test_module_probe.cpp)
set_target_properties(vd_test_probe PROPERTIES OUTPUT_NAME vd_test_probe)
target_include_directories(vd_test_probe PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(vd_test_probe PUBLIC vigild_module_api)

add_custom_target(vd_test_modules)

# vd_test_module(<file name without .so> NAME <name> [VERSION <v>] [DEFS <extra>...])
function(vd_test_module file)
  cmake_parse_arguments(ARG "" "NAME;VERSION" "DEFS" ${ARGN})
  if(NOT ARG_VERSION)
    set(ARG_VERSION "14.0.0.1")
  endif()
  set(target vd_test_module_${file})
  add_library(${target} MODULE ${CMAKE_CURRENT_LIST_DIR}/test_module.cpp)
  set_target_properties(${target} PROPERTIES PREFIX "" OUTPUT_NAME ${file}
    LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
  target_compile_definitions(${target} PRIVATE
    VDTEST_NAME="${ARG_NAME}" VDTEST_VERSION="${ARG_VERSION}" ${ARG_DEFS})
  target_link_libraries(${target} PRIVATE vd_test_probe vigild_module_api)
  add_dependencies(vd_test_modules ${target})
endfunction()

vd_test_module(lib_vd_alpha NAME B)
vd_test_module(lib_vd_beta NAME A VERSION 14.0.3.1)
vd_test_module(lib_vd_zzz NAME ZZZ VERSION 14.0.0.2)
vd_test_module(lib_vd_new NAME New VERSION 14.0.99.7)
vd_test_module(lib_vd_old NAME Old VERSION 14.0)
vd_test_module(lib_vd_wrong NAME Wrong VERSION 114.0.1)
vd_test_module(lib_vd_skip NAME Skip DEFS VDTEST_SHOULD_LOAD=1)
vd_test_module(lib_vd_noentry NAME NoEntry DEFS VDTEST_NO_ENTRY)
vd_test_module(lib_vd_nullname NAME NullName DEFS VDTEST_NULL_NAME)
vd_test_module(lib_vd_nullversion NAME NullVersion DEFS VDTEST_NULL_VERSION)
vd_test_module(lib_vd_lts NAME LTSModule DEFS VDTEST_SETTINGS=2)
vd_test_module(lib_vd_logcat NAME LogcatModule)
vd_test_module(lib_vd_settings NAME SettingsModule DEFS VDTEST_SETTINGS=1)
vd_test_module(libvd_x NAME Ignored)
vd_test_module(lib_VD_x NAME Ignored)

# Every test can load them and read their probes.
add_dependencies(vigild_test_support vd_test_modules)
target_link_libraries(vigild_test_support PUBLIC vd_test_probe)
