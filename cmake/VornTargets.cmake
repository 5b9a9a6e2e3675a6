# The compilation of every target of this project.

include(CheckCXXCompilerFlag)
set(CMAKE_REQUIRED_FLAGS -Werror)  # Clang only warns about unknown options
check_cxx_compiler_flag(-fcf-protection=full VORN_HAS_CF_PROTECTION)
check_cxx_compiler_flag(-mbranch-protection=standard VORN_HAS_BRANCH_PROTECTION)
check_cxx_compiler_flag(-fstack-clash-protection VORN_HAS_STACK_CLASH_PROTECTION)
unset(CMAKE_REQUIRED_FLAGS)

# Hardens one of our targets against exploits: the launcher often runs as root.
# The program is position independent, its relocations are read-only. Without
# optimization _FORTIFY_SOURCE has no effect. A sanitizer does more, and half of the
# time of a short command would be its relocations.
function(vorn_harden target)
  if(VORN_SANITIZE)
    target_compile_options(${target} PRIVATE
      $<$<NOT:$<BOOL:$<TARGET_PROPERTY:POSITION_INDEPENDENT_CODE>>>:-fno-pie>)
    target_link_options(${target} PRIVATE
      $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:-no-pie>)
    return()
  endif()
  target_compile_options(${target} PRIVATE
    $<$<NOT:$<BOOL:$<TARGET_PROPERTY:POSITION_INDEPENDENT_CODE>>>:-fPIE>
    -fstack-protector-strong
    $<$<BOOL:${VORN_HAS_STACK_CLASH_PROTECTION}>:-fstack-clash-protection>
    $<$<BOOL:${VORN_HAS_CF_PROTECTION}>:-fcf-protection=full>
    $<$<BOOL:${VORN_HAS_BRANCH_PROTECTION}>:-mbranch-protection=standard>)
  target_compile_options(${target} PRIVATE -U_FORTIFY_SOURCE
    $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
  target_link_options(${target} PRIVATE
    LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack
    $<IF:$<BOOL:$<TARGET_PROPERTY:VORN_IS_STATIC>>,-static-pie,-pie>)
endfunction()

# Clang links its sanitizers statically, where --wrap would replace their own calls.
set(VORN_SANITIZER_RUNTIME "")
if(VORN_SANITIZE AND NOT VORN_FUZZ AND CMAKE_CXX_COMPILER_ID STREQUAL Clang)
  execute_process(
    COMMAND ${CMAKE_CXX_COMPILER} -print-runtime-dir
    OUTPUT_VARIABLE directory OUTPUT_STRIP_TRAILING_WHITESPACE)
  set(VORN_SANITIZER_RUNTIME -shared-libasan LINKER:-rpath,${directory})
endif()

# Language level, warnings, hardening, sanitizers and counters of one of our
# targets.
function(vorn_compile_options target)
  target_compile_features(${target} PUBLIC cxx_std_17)
  set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF)
  # A log call whose values do not fit its text must not compile at all.
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion
    -Wformat=2 -Werror=format)
  vorn_harden(${target})
  if(VORN_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  if(VORN_SANITIZE)
    target_compile_options(${target} PRIVATE
      -fsanitize=${VORN_SANITIZE} -fno-sanitize-recover=all
      -fno-omit-frame-pointer
      # GCC 12 warns about its own <regex> when it sanitizes.
      $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
    target_link_options(${target} PRIVATE
      -fsanitize=${VORN_SANITIZE} ${VORN_SANITIZER_RUNTIME})
  endif()
  if(VORN_COVERAGE)
    # Without the branches by which threads would wait for a static object.
    target_compile_options(${target} PRIVATE
      --coverage -fno-threadsafe-statics)
    target_link_options(${target} PRIVATE --coverage)
    get_target_property(type ${target} TYPE)
    if(type STREQUAL EXECUTABLE)
      target_sources(${target} PRIVATE
        ${PROJECT_SOURCE_DIR}/tests/support/coverage_end.cpp)
      target_link_options(${target} PRIVATE
        LINKER:--wrap=_exit LINKER:--wrap=execv LINKER:--wrap=execve)
    endif()
    if(target MATCHES "^vorn(ctl|run)$")
      target_sources(${target} PRIVATE
        ${PROJECT_SOURCE_DIR}/tests/support/coverage_signals.cpp)
      target_link_options(${target} PRIVATE
        LINKER:--wrap=sigaction LINKER:--wrap=signal)
    endif()
  endif()
endfunction()

# vorn_add_tests(name LIBRARIES lib... [SOURCES file...] [WRAP symbol...])
#
# Builds one test program from all *_test.cpp in the current directory, so that no
# file is forgotten, and the SOURCES. CTest runs each test in a process of its own, because
# the singletons live as long as the process. WRAP names the system calls that the
# tests replace at link time.
function(vorn_add_tests name)
  cmake_parse_arguments(ARG "" "" "LIBRARIES;WRAP;SOURCES" ${ARGN})
  if(NOT BUILD_TESTING OR NOT GTest_FOUND)
    return()
  endif()
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*_test.cpp)
  add_executable(${name} ${sources} ${ARG_SOURCES})
  if(VORN_UNITY)
    set_target_properties(${name} PROPERTIES
      UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 30)
  endif()
  vorn_compile_options(${name})
  target_link_libraries(${name} PRIVATE
    ${ARG_LIBRARIES} GTest::gmock GTest::gtest_main)
  # The tested code is built as shipped; the tests do not have to be fast.
  target_compile_options(${name} PRIVATE -O0 -g1 -U_FORTIFY_SOURCE)
  foreach(symbol IN LISTS ARG_WRAP)
    target_link_options(${name} PRIVATE LINKER:--wrap=${symbol})
  endforeach()
  include(GoogleTest)
  # A case is known by its name, not by the bytes of its parameter.
  gtest_discover_tests(${name} NO_PRETTY_VALUES
    PROPERTIES TIMEOUT 60 LABELS unit)
endfunction()
