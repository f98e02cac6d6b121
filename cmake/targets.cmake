# How this project's targets are made. Every library and program is built with
# the same warnings; what runs inside the daemon also without exceptions and
# RTTI, as the platform builds its daemons.

if(VANTREL_BUILD_TESTS)
  enable_testing()
  find_package(GTest REQUIRED)
  include(GoogleTest)
endif()

add_library(vantrel_flags INTERFACE)
target_include_directories(vantrel_flags INTERFACE ${PROJECT_SOURCE_DIR})
# A change of sign is no fault where sizes and differences meet; clang++ counts
# it among the conversions, g++ does not.
target_compile_options(vantrel_flags INTERFACE -Wall -Wextra -Wshadow
                       -Wconversion -Wno-sign-conversion)

# 32-bit machines: files of more than 2 GiB, inodes of 64 bits, years after 2038.
# A device's own C library has no such choice.
if(CMAKE_SIZEOF_VOID_P EQUAL 4 AND NOT VANTREL_ANDROID_HEADERS)
  add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()

# Sanitizers for every target, so that the fuzz targets never run without.
if(VANTREL_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "VANTREL_FUZZ needs clang++, as the preset fuzz has it")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined
                      -fno-sanitize=vptr -fno-sanitize-recover=undefined
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

# What the daemon reads comes from any application and from the companion, so
# optimised builds carry the compiler's defences, whatever its defaults are, and
# the checks of the C and C++ libraries. All of it together costs less than can
# be measured in the daemon's processor time. Sanitizers have better checks.
# The type None is what distributions build with, and with their own options.
set(VANTREL_HARDENED OFF)
if(CMAKE_BUILD_TYPE MATCHES "^(Release|RelWithDebInfo|MinSizeRel|None)$"
   AND NOT VANTREL_FUZZ AND NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize=")
  set(VANTREL_HARDENED ON)
  add_compile_options(-fstack-protector-strong -fPIE -U_FORTIFY_SOURCE
                      -D_FORTIFY_SOURCE=2 -D_GLIBCXX_ASSERTIONS)
  add_link_options(-pie -Wl,-z,relro -Wl,-z,now)
endif()

# What no program calls is not part of it.
if(VANTREL_HARDENED)
  add_compile_options(-ffunction-sections -fdata-sections)
  add_link_options(-Wl,--gc-sections)
endif()

# vantrel_library(NAME SOURCES... LINK LIBRARIES...): a library of the daemon.
function(vantrel_library name)
  cmake_parse_arguments(ARG "" "" "LINK" ${ARGN})
  add_library(${name} STATIC ${ARG_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PUBLIC vantrel_flags ${ARG_LINK})
  target_compile_options(${name} PRIVATE -fno-exceptions -fno-rtti)
endfunction()

# vantrel_seam(NAME REAL.cc DOUBLE.cc): what tests link in place of REAL, a source of
# this folder's library that has nothing else in it. The linker takes the double,
# which stands before the library, and leaves the library's object out; so no
# program can be told anything that only a test may say.
function(vantrel_seam name real double)
  set_source_files_properties(${real} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
  if(VANTREL_BUILD_TESTS)
    add_library(${name} OBJECT ${double})
    target_link_libraries(${name} PUBLIC vantrel_flags)
    target_compile_options(${name} PRIVATE -fno-exceptions -fno-rtti)
  endif()
endfunction()

# vantrel_unit_test(NAME SOURCES... LINK LIBRARIES...): one GoogleTest program;
# each of its cases becomes one test of ctest.
function(vantrel_unit_test name)
  if(NOT VANTREL_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "" "LINK" ${ARGN})
  add_executable(${name} ${ARG_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE vantrel_flags ${ARG_LINK}
                                        GTest::gmock GTest::gtest_main)
  # Test doubles derive from the libraries' classes, which carry no RTTI. What
  # they test is optimised; they themselves need half the time to compile so.
  target_compile_options(${name} PRIVATE -fno-rtti
                         $<$<NOT:$<CONFIG:Debug>>:-Og>)
  set_target_properties(${name} PROPERTIES
    RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/test-bin)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60
                       PROPERTIES TIMEOUT 120 LABELS unit
                       ${VANTREL_TEST_FILTER})
endfunction()
