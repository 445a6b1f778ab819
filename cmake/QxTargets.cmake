# Functions that make this project's targets. Every target gets the warnings, the sanitizer and the hardening of the
# build. A folder's CMakeLists.txt only lists the sources of a target and the libraries that it links.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -g1")
set(CMAKE_C_FLAGS_RELEASE "-O2 -g1")
# With a sanitizer each inlined access gets its check, so few optimisations compile fastest. The threaded tests run for seconds
# without any. Reports show lines, which needs -g1.
if(QX_SANITIZE STREQUAL "thread")
  set(CMAKE_CXX_FLAGS_DEBUG "-O0 -g1")
elseif(QX_SANITIZE)
  set(CMAKE_CXX_FLAGS_DEBUG "-Og -g1")
endif()
if(QX_SANITIZE)
  set(CMAKE_C_FLAGS_DEBUG ${CMAKE_CXX_FLAGS_DEBUG})
endif()
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)

find_package(Threads REQUIRED)

add_library(qx_flags INTERFACE)
# No built file contains the path of the sources or of the build folder, so its bytes do not depend on them.
target_compile_options(qx_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}/= -ffile-prefix-map=${PROJECT_BINARY_DIR}=.)
# POSIX and GNU interfaces are used throughout (close_range, pthread_t printing, program_invocation_short_name).
target_compile_definitions(qx_flags INTERFACE _GNU_SOURCE)
if(QX_COVERAGE)
  target_compile_definitions(qx_flags INTERFACE QX_COUNTS_COVERAGE)
  target_link_options(qx_flags INTERFACE --coverage)
endif()
target_include_directories(qx_flags INTERFACE ${PROJECT_SOURCE_DIR})
target_link_libraries(qx_flags INTERFACE Threads::Threads)

if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # With unique symbols (GNU_UNIQUE), the module would stay mapped after dlclose.
  target_compile_options(qx_flags INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-fno-gnu-unique>)
endif()

if(QX_SANITIZE STREQUAL "address")
  target_compile_options(qx_flags INTERFACE -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer
    $<$<BOOL:$<TARGET_PROPERTY:QX_COMPILE_FAST>>:-fno-sanitize=null,alignment>)
  target_compile_definitions(qx_flags INTERFACE QX_ADDRESS_SANITIZER)
  target_link_options(qx_flags INTERFACE -fsanitize=address,undefined)
elseif(QX_SANITIZE STREQUAL "thread")
  target_compile_options(qx_flags INTERFACE -fsanitize=thread -fno-omit-frame-pointer)
  target_link_options(qx_flags INTERFACE -fsanitize=thread)
elseif(NOT QX_SANITIZE STREQUAL "")
  message(FATAL_ERROR "QX_SANITIZE is '${QX_SANITIZE}'; it may be empty, 'address' or 'thread'")
else()
  target_compile_options(qx_flags INTERFACE -fstack-protector-strong -fstack-clash-protection)
  target_link_options(qx_flags INTERFACE -Wl,-z,relro,-z,now -Wl,-z,noexecstack -Wl,-z,text)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64)$")
    target_compile_options(qx_flags INTERFACE -fcf-protection)
    # The C library's start files are not marked for the shadow stack, although they work with it. Without this option,
    # the linker would not mark the program either.
    target_link_options(qx_flags INTERFACE -Wl,-z,shstk)
  elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
    # Signed return addresses and landing pads. The linker does not mark the program for landing pads, because the C
    # library's start files have none.
    target_compile_options(qx_flags INTERFACE -mbranch-protection=standard)
  endif()
  if(CMAKE_BUILD_TYPE MATCHES "^(Release|RelWithDebInfo|MinSizeRel)$")  # the C library checks lengths only where it optimises
    target_compile_definitions(qx_flags INTERFACE $<$<NOT:$<BOOL:$<TARGET_PROPERTY:QX_IS_TEST>>>:_FORTIFY_SOURCE=3>)
  endif()
  # The standard library checks indices and empty containers.
  target_compile_definitions(qx_flags INTERFACE _GLIBCXX_ASSERTIONS)
  # A local variable never shows what was on the stack before. This would slow the benchmarks of libraries that copy
  # texts through buffers on the stack by a fifth; these libraries opt out with the property QX_SPEED_COUNTS. clang 14
  # would need a second flag for this one, which later versions lack.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(qx_flags INTERFACE
      $<$<NOT:$<BOOL:$<TARGET_PROPERTY:QX_SPEED_COUNTS>>>:-ftrivial-auto-var-init=zero>)
  endif()
endif()
# A sanitizer's programs are large; this linker takes a third of the time for them. What ships is linked by the default one.
if(QX_SANITIZE AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang" AND NOT QX_BUILD_FUZZ)
  find_program(QX_LLD ld.lld)
  mark_as_advanced(QX_LLD)
  if(QX_LLD)
    target_link_options(qx_flags INTERFACE -fuse-ld=lld)
  endif()
  # The tests start programs thousands of times. At fixed addresses, and without unused sections, a program needs a third fewer
  # pages until it has ended.
  if(QX_SANITIZE STREQUAL "address")
    string(APPEND CMAKE_EXE_LINKER_FLAGS " -no-pie -Wl,--gc-sections")
  endif()
endif()
if(QX_BUILD_FUZZ)
  target_compile_options(qx_flags INTERFACE -fsanitize=fuzzer-no-link)
  target_link_options(qx_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()

# Only the tested code gets the counters of coverage: the tests themselves compile and run faster without them.
function(qx_count_coverage target)
  if(QX_COVERAGE)
    target_compile_options(${target} PRIVATE --coverage -fprofile-update=atomic)
  endif()
endfunction()

# qx_library(NAME [FAST_BUILD | SPEED_COUNTS] [APART] SOURCES a.cpp... DEPS qx_other...): a subsystem library. It sees only what
# it links. APART: its sources are never joined, because programs link some of them without what the others need.
# The flags are used only in this build: programs that link an installed library do not get them.
function(qx_library name)
  cmake_parse_arguments(arg "FAST_BUILD;SPEED_COUNTS;APART" "" "SOURCES;DEPS" ${ARGN})
  # Without a sanitizer, what ships in the module is compiled as it ships, and shows that each source includes what it names.
  if(QX_JOIN_SOURCES AND NOT arg_APART AND (arg_FAST_BUILD OR QX_SANITIZE))
    qx_join_sources(arg_SOURCES ${name})
  endif()
  add_library(${name} STATIC ${arg_SOURCES})
  target_link_libraries(${name} PUBLIC $<BUILD_INTERFACE:qx_flags> ${arg_DEPS})
  set(headers qx_headers)
  if(arg_FAST_BUILD)
    qx_compile_fast(${name})
    set(headers qx_headers_of_tools)
  elseif(arg_SPEED_COUNTS)
    set_target_properties(${name} PROPERTIES QX_SPEED_COUNTS ON)
    set(headers qx_headers_of_fast_code)
  endif()
  if(QX_PRECOMPILE_HEADERS AND NOT QX_COVERAGE)
    qx_precompile_headers(${headers})
    target_precompile_headers(${name} REUSE_FROM ${headers})
    qx_ignore_warnings_in_precompiled_headers(${name})
  endif()
  qx_count_coverage(${name})
endfunction()

# qx_area(PROGRAM NAME [FAST_BUILD] SOURCES a.cpp... DEPS qx_other...): the library PROGRAM_NAME of a program's area, whose sources
# are in the folder NAME. FAST_BUILD: the program waits there for files or for others, so it need not be fast.
function(qx_area program name)
  cmake_parse_arguments(arg "FAST_BUILD" "" "SOURCES;DEPS" ${ARGN})
  list(TRANSFORM arg_SOURCES PREPEND ${name}/)
  set(speed)
  if(arg_FAST_BUILD)
    set(speed FAST_BUILD)
  endif()
  qx_library(${program}_${name} ${speed} SOURCES ${arg_SOURCES} DEPS ${arg_DEPS})
endfunction()

# Replaces the sources in the list by joined ones, which include up to ten of them each: a third of the work. A source that was
# given options of its own before stays alone.
function(qx_join_sources sources name)
  list(LENGTH ${sources} left)
  if(left LESS 2)
    return()
  endif()
  find_package(Python3 REQUIRED COMPONENTS Interpreter)
  set(script ${PROJECT_SOURCE_DIR}/script/join_sources.py)
  file(RELATIVE_PATH folder ${PROJECT_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR})
  set(alone)
  foreach(source ${${sources}})
    get_source_file_property(options ${source} COMPILE_OPTIONS)
    if(options)
      list(APPEND alone ${source})
      list(REMOVE_ITEM ${sources} ${source})
    endif()
  endforeach()
  if(folder)
    list(TRANSFORM ${sources} PREPEND ${folder}/)
  endif()
  list(LENGTH ${sources} left)
  math(EXPR parts "(${left} + 9) / 10")
  set(joined)
  while(parts GREATER 0)
    math(EXPR count "(${left} + ${parts} - 1) / ${parts}")
    math(EXPR left "${left} - ${count}")
    math(EXPR parts "${parts} - 1")
    list(SUBLIST ${sources} ${left} ${count} members)
    set(output ${CMAKE_CURRENT_BINARY_DIR}/joined/${name}_${parts}.cpp)
    set(files ${members})
    list(TRANSFORM files PREPEND ${PROJECT_SOURCE_DIR}/)
    add_custom_command(OUTPUT ${output} COMMAND ${Python3_EXECUTABLE} ${script} ${output} ${members}
      WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} DEPENDS ${files} ${script} VERBATIM)
    list(APPEND joined ${output})
  endwhile()
  add_custom_target(${name}_joined DEPENDS ${joined})  # written without waiting for what the library links
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    set_property(SOURCE ${joined} PROPERTY COMPILE_OPTIONS -Wno-subobject-linkage)  # takes a joined source for a header
  endif()
  set(${sources} ${joined} ${alone} PARENT_SCOPE)
endfunction()

# g++ 12 does not recognise precompiled code as that of system headers. Where it optimises, it reports warnings in it.
function(qx_ignore_warnings_in_precompiled_headers target)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${target} PRIVATE
      -Wno-array-bounds -Wno-stringop-overflow -Wno-stringop-overread -Wno-restrict)
  endif()
endfunction()

# The compiler reads these headers once for all libraries with the same flags: that is a third of the work of a whole build.
function(qx_precompile_headers target)
  if(TARGET ${target})
    return()
  endif()
  file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/${target}.cpp CONTENT "namespace qx {}\n")
  add_library(${target} STATIC ${PROJECT_BINARY_DIR}/${target}.cpp)
  target_link_libraries(${target} PRIVATE qx_flags)
  if(target STREQUAL "qx_headers_of_tools")
    qx_compile_fast(${target})
  elseif(target STREQUAL "qx_headers_of_fast_code")
    set_target_properties(${target} PROPERTIES QX_SPEED_COUNTS ON)
  endif()
  target_precompile_headers(${target} PRIVATE <algorithm> <array> <charconv> <chrono> <cstdint> <cstdio> <cstring>
    <filesystem> <functional> <map> <memory> <optional> <set> <span> <string> <string_view> <utility> <vector>)
endfunction()

# The headers of nearly every test, which the compiler reads once for all of them: that is a third of the work. A source still
# includes what it names, because clang-release does not do this.
function(qx_precompile_test_headers target)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND NOT QX_SANITIZE)
    return()
  endif()
  if(NOT TARGET qx_test_headers)
    file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/qx_test_headers.cpp CONTENT "int main() {}\n")
    add_executable(qx_test_headers ${PROJECT_BINARY_DIR}/qx_test_headers.cpp)
    target_link_libraries(qx_test_headers PRIVATE qx_flags GTest::gtest GTest::gmock)
    qx_compile_as_test(qx_test_headers)
    target_precompile_headers(qx_test_headers PRIVATE <gmock/gmock.h> <gtest/gtest.h> <algorithm> <chrono> <filesystem>
      <fstream> <functional> <map> <memory> <optional> <random> <sstream> <string> <thread> <vector>)
  endif()
  target_precompile_headers(${target} REUSE_FROM qx_test_headers)
  if(CMAKE_CROSSCOMPILING)  # others are not optimised
    qx_ignore_warnings_in_precompiled_headers(${target})
  endif()
endfunction()

# A program in C that links a library of ours. The sanitizer of that library needs the C++ runtime.
function(qx_link_c_program target)
  target_link_libraries(${target} PRIVATE qx_flags ${ARGN})
  if(QX_SANITIZE)
    set_target_properties(${target} PROPERTIES LINKER_LANGUAGE CXX)
  endif()
endfunction()

# Tested code is built as it ships, or with the optimisation for its sanitizer. The tool need not be fast: with fewer
# optimisations it compiles in two thirds of the time, with a sanitizer in one third. Checks for null and unaligned
# pointers would be a quarter of the sanitizer's work, so the tool has none: a null pointer ends a program anyway, and
# unaligned ones are found in the libraries.
function(qx_compile_fast target)
  target_compile_options(${target} PRIVATE $<$<CONFIG:Release>:-O1>)
  if(QX_SANITIZE)
    target_compile_options(${target} PRIVATE -O0 -g1)
  endif()
  set_target_properties(${target} PROPERTIES QX_COMPILE_FAST ON)
endfunction()

# The tests themselves are not optimised, unless an emulator runs them. Line numbers, a seventh of the work, are only for sanitizers
# and debuggers.
function(qx_compile_as_test target)
  target_compile_options(${target} PRIVATE $<IF:$<BOOL:${CMAKE_CROSSCOMPILING}>,-O1,-O0> $<IF:$<CONFIG:Release>,-g0,-g1>)
  set_target_properties(${target} PROPERTIES QX_COMPILE_FAST ON QX_IS_TEST ON)
endfunction()

# The longest tests are started first, so that none of them is left at the end.
set(long_tests "qxctl_module_test|qxctl_test|qxctl_records_test|docs_test|qxctl_settings_test|reportfile_test|reporttools_test|\
debug_test|trace_tools_test|qxctl_attacks_test|report_transfer_test|qxrelay_process_test|qxrelay_cluster_test")

# qx_test(NAME SOURCES a.cpp... DEPS qx_lib...): one GoogleTest program, one ctest test, run in shuffled order.
# Under the thread sanitizer only suites whose name contains "Threads" run, as the others have one thread to watch; so
# only the sources that have such suites are built, with what they share.
function(qx_test name)
  cmake_parse_arguments(arg "" "" "SOURCES;DEPS" ${ARGN})
  if(QX_SANITIZE STREQUAL "thread")
    qx_keep_threaded_tests(arg_SOURCES has_threads)
    if(NOT has_threads)
      add_executable(${name} EXCLUDE_FROM_ALL ${arg_SOURCES})  # others may still set its properties
      return()
    endif()
  endif()
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE qx_test_support ${arg_DEPS} GTest::gtest GTest::gmock)
  qx_compile_as_test(${name})
  qx_precompile_test_headers(${name})
  if(QX_JOIN_TEST_SOURCES)
    set_target_properties(${name} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 16)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
      target_compile_options(${name} PRIVATE -Wno-subobject-linkage)  # takes a joined source for a header
    endif()
  endif()
  set(filter)
  if(QX_SANITIZE STREQUAL "thread")
    set(filter --gtest_filter=*Threads*)
  elseif(CMAKE_CROSSCOMPILING)
    qx_leave_out_emulated_tests(${name} filter)
  endif()
  add_test(NAME ${name} COMMAND ${name} --gtest_shuffle --gtest_brief=1 ${filter})
  set_tests_properties(${name} PROPERTIES TIMEOUT 600)
  if(name MATCHES "^(${long_tests})$")
    set_tests_properties(${name} PROPERTIES COST 100)
  endif()
endfunction()

# Tests that the emulator cannot run are in a list, each with its reason: PROGRAM TEST REASON... The filter leaves out those of one
# program. A whole program is left out by script/test.
function(qx_leave_out_emulated_tests name filter)
  set(list ${PROJECT_SOURCE_DIR}/tests/not-emulated.txt)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${list})
  file(STRINGS ${list} lines REGEX "^${name} ")
  set(left_out)
  foreach(line ${lines})
    string(REGEX REPLACE "^[^ ]+ +([^ ]+) .*" "\\1" test ${line})
    list(APPEND left_out ${test})
  endforeach()
  list(JOIN left_out ":" left_out)
  if(left_out)
    set(${filter} --gtest_filter=-${left_out} PARENT_SCOPE)
  endif()
endfunction()

# Removes test sources without a threaded suite from the list, unless all would be removed. Other sources stay.
function(qx_keep_threaded_tests sources has_threads)
  set(kept)
  set(found FALSE)
  foreach(source ${${sources}})
    file(STRINGS ${source} mentions REGEX "Threads" LIMIT_COUNT 1)
    if(mentions)
      set(found TRUE)
    endif()
    if(mentions OR NOT source MATCHES "Test\\.cpp$")
      list(APPEND kept ${source})
    endif()
  endforeach()
  if(found)
    set(${sources} ${kept} PARENT_SCOPE)
  endif()
  set(${has_threads} ${found} PARENT_SCOPE)
endfunction()

# qx_fuzz(NAME SOURCE x.cpp CORPUS dir [DICT words.dict] DEPS qx_lib...): with QX_BUILD_FUZZ a libFuzzer program, and a
# file NAME.inputs next to it with its seeds and its dictionary for script/fuzz; otherwise the same entry run over every
# file of the corpus as an ordinary test.
function(qx_fuzz name)
  cmake_parse_arguments(arg "" "SOURCE;CORPUS;DICT" "DEPS" ${ARGN})
  add_executable(${name} ${arg_SOURCE})
  add_dependencies(qx_fuzz_targets ${name})
  target_link_libraries(${name} PRIVATE qx_fuzz_support ${arg_DEPS})
  if(QX_BUILD_FUZZ)
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
    set(inputs ${CMAKE_CURRENT_SOURCE_DIR}/${arg_CORPUS})
    if(arg_DICT)
      string(APPEND inputs "\n-dict=${CMAKE_CURRENT_SOURCE_DIR}/${arg_DICT}")
    endif()
    file(CONFIGURE OUTPUT ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/${name}.inputs CONTENT "${inputs}\n" @ONLY)
  else()
    add_test(NAME ${name} COMMAND ${name} ${CMAKE_CURRENT_SOURCE_DIR}/${arg_CORPUS})
    set_tests_properties(${name} PROPERTIES TIMEOUT 300)
  endif()
endfunction()

# qx_find_library(NAME header library package tier): the target qx_NAME, if the header and the library are installed.
function(qx_find_library name header library package tier)
  if(TARGET qx_${name})
    return()
  endif()
  string(TOUPPER ${name} upper)
  find_path(QX_${upper}_INCLUDE_DIR ${header})
  find_library(QX_${upper}_LIBRARY ${library})
  mark_as_advanced(QX_${upper}_INCLUDE_DIR QX_${upper}_LIBRARY)
  if(NOT QX_${upper}_INCLUDE_DIR OR NOT QX_${upper}_LIBRARY)
    message(STATUS "${package} is not installed (script/bootstrap ${tier})")
    return()
  endif()
  add_library(qx_${name} INTERFACE)
  target_include_directories(qx_${name} SYSTEM INTERFACE ${QX_${upper}_INCLUDE_DIR})
  target_link_libraries(qx_${name} INTERFACE ${QX_${upper}_LIBRARY})
endfunction()

# What qxrelay links: the client library of NATS as the target qx_nats, and libmicrohttpd as qx_microhttpd. The CMake
# package of NATS is not used: it requires development packages that a program with the shared library does not need.
function(qx_find_relay_libraries)
  qx_find_library(microhttpd microhttpd.h microhttpd libmicrohttpd-dev relay)
  if(TARGET qx_microhttpd)
    qx_find_library(nats nats/nats.h nats libnats-dev relay)
  endif()
endfunction()

# What qxview links: libmicrohttpd, and GnuTLS, which libmicrohttpd links, too.
function(qx_find_view_libraries)
  qx_find_library(microhttpd microhttpd.h microhttpd libmicrohttpd-dev view)
  qx_find_library(gnutls gnutls/gnutls.h gnutls libgnutls28-dev view)
endfunction()
