# Helpers shared by every directory of the tree.

# tolvar_library(NAME SOURCES... INCLUDE dir DEPENDS libs... DESCRIPTION text)
# Builds a library (static, or shared with BUILD_SHARED_LIBS), installs it
# as libtolvar-NAME with its headers under include/tolvar and a pkg-config
# file tolvar-NAME.pc whose --libs link.  The libraries it needs are
# Requires, not Requires.private: a static library needs them on the link
# line, and the headers of a shared one use their declarations too.
function(tolvar_library name)
  cmake_parse_arguments(L "" "INCLUDE;DESCRIPTION" "SOURCES;DEPENDS" ${ARGN})
  add_library(${name} ${L_SOURCES})
  set_target_properties(${name} PROPERTIES OUTPUT_NAME tolvar-${name})
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/${L_INCLUDE}>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/tolvar>)
  if(L_DEPENDS)
    target_link_libraries(${name} PUBLIC ${L_DEPENDS})
  endif()
  install(TARGETS ${name} ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
                          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/${L_INCLUDE}/
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tolvar
          FILES_MATCHING PATTERN "*.h")
  set(PC_NAME ${name})
  set(PC_DESCRIPTION "${L_DESCRIPTION}")
  set(PC_REQUIRES "")
  foreach(dep ${L_DEPENDS})
    string(APPEND PC_REQUIRES " tolvar-${dep}")
  endforeach()
  configure_file(${PROJECT_SOURCE_DIR}/cmake/library.pc.in
                 ${CMAKE_BINARY_DIR}/pkgconfig/tolvar-${name}.pc @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/pkgconfig/tolvar-${name}.pc
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()

# tolvar_gtest(NAME SOURCES... DEPENDS libs...)
function(tolvar_gtest name)
  if(TOLVAR_FUZZ OR NOT TOLVAR_TESTS)
    return()
  endif()
  cmake_parse_arguments(T "" "" "SOURCES;DEPENDS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_DEPENDS} GTest::gtest GTest::gtest_main)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endfunction()

# tolvar_fuzzer(NAME SOURCES... DEPENDS libs...): only in a TOLVAR_FUZZ build.
function(tolvar_fuzzer name)
  if(NOT TOLVAR_FUZZ)
    return()
  endif()
  cmake_parse_arguments(F "" "" "SOURCES;DEPENDS" ${ARGN})
  # Every target runs inside a TOLVAR_ROOT of its own.
  add_executable(${name} ${F_SOURCES}
    ${PROJECT_SOURCE_DIR}/tests/fuzz/fuzz_root.cc)
  target_link_libraries(${name} PRIVATE ${F_DEPENDS})
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/fuzz)
endfunction()

# tolvar_bench(NAME SOURCES... DEPENDS libs...): a benchmark program in
# build/bench/, run by "make bench".  Not built for fuzzing.
function(tolvar_bench name)
  if(TOLVAR_FUZZ)
    return()
  endif()
  cmake_parse_arguments(B "" "" "SOURCES;DEPENDS" ${ARGN})
  add_executable(${name} ${B_SOURCES})
  target_link_libraries(${name} PRIVATE ${B_DEPENDS})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bench)
endfunction()
