# Functions that declare the targets of this project: one target per folder of src/ and platform/, each with the targets
# that it uses. Headers are included as "folder/file.h"; .ci/lint checks which folder may include which.

add_library(qel_options INTERFACE)
target_compile_options(qel_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor -Woverloaded-virtual
  -Wcast-align -Wformat=2 -Wimplicit-fallthrough -Wundef
  $<$<BOOL:${QEL_WARNINGS_AS_ERRORS}>:-Werror>)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # GCC 12 gives false warnings about the code of std::string in optimised builds.
  target_compile_options(qel_options INTERFACE -Wno-restrict)
endif()
if(QEL_SANITIZE)
  target_compile_options(qel_options INTERFACE
    -fsanitize=${QEL_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(qel_options INTERFACE -fsanitize=${QEL_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # GCC gives false warnings about the code that sanitizers add to the standard library.
    target_compile_options(qel_options INTERFACE -Wno-maybe-uninitialized)
  endif()
endif()
if(QEL_HARDEN)
  target_compile_options(qel_options INTERFACE -fstack-protector-strong -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|amd64|AMD64|i[3-6]86)$")
    target_compile_options(qel_options INTERFACE -fcf-protection)
  endif()
  target_link_options(qel_options INTERFACE -Wl,-z,relro -Wl,-z,now)
  set(CMAKE_POSITION_INDEPENDENT_CODE ON)
  include(CheckPIESupported)
  check_pie_supported()
endif()

# qel_library(NAME <target> SOURCES <files> [USES <targets>] [PRIVATE_USES <targets>])
# A static library. Its headers are included relative to the parent folder (src/ or platform/).
function(qel_library)
  cmake_parse_arguments(ARG "" "NAME" "SOURCES;USES;PRIVATE_USES" ${ARGN})
  add_library(${ARG_NAME} STATIC ${ARG_SOURCES})
  target_include_directories(${ARG_NAME} PUBLIC $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/..>)
  target_link_libraries(${ARG_NAME} PUBLIC ${ARG_USES} PRIVATE $<BUILD_INTERFACE:qel_options> ${ARG_PRIVATE_USES})
endfunction()

# qel_program(NAME <target> SOURCES <files> [USES <targets>])
function(qel_program)
  cmake_parse_arguments(ARG "" "NAME" "SOURCES;USES" ${ARGN})
  add_executable(${ARG_NAME} ${ARG_SOURCES})
  target_link_libraries(${ARG_NAME} PRIVATE qel_options ${ARG_USES})
endfunction()

# qel_label_test(<target> <label>...)
# Adds the test to the target <label>_tests, which builds all tests with this label.
function(qel_label_test test)
  foreach(label ${ARGN})
    if(NOT TARGET ${label}_tests)
      add_custom_target(${label}_tests)
    endif()
    add_dependencies(${label}_tests ${test})
  endforeach()
endfunction()

# qel_folder_label(<variable>)
# The folder of tests/ that is being read: the label of all its tests.
function(qel_folder_label variable)
  file(RELATIVE_PATH folder ${PROJECT_SOURCE_DIR}/tests ${CMAKE_CURRENT_SOURCE_DIR})
  string(REGEX REPLACE "/.*" "" folder ${folder})
  set(${variable} ${folder} PARENT_SCOPE)
endfunction()

# qel_test(NAME <target> SOURCES <files> [USES <targets>] [LABELS <labels>] [TIMEOUT <seconds>])
# A GoogleTest program that runs as one test; its folder is one of its labels.
function(qel_test)
  cmake_parse_arguments(ARG "" "NAME;TIMEOUT" "SOURCES;USES;LABELS" ${ARGN})
  add_executable(${ARG_NAME} ${ARG_SOURCES})
  target_link_libraries(${ARG_NAME} PRIVATE qel_options ${ARG_USES} GTest::gmock GTest::gtest_main)
  add_test(NAME ${ARG_NAME} COMMAND ${ARG_NAME})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  qel_folder_label(folder)
  set_tests_properties(${ARG_NAME} PROPERTIES LABELS "${folder};${ARG_LABELS}" TIMEOUT ${ARG_TIMEOUT})
  qel_label_test(${ARG_NAME} ${folder} ${ARG_LABELS})
endfunction()
