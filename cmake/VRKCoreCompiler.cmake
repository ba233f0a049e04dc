# Language level, warnings and floating-point rules that every target of the project shares.
add_library(vrk_compiler_options INTERFACE)
target_compile_features(vrk_compiler_options INTERFACE cxx_std_20)
target_compile_options(vrk_compiler_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion
  # Results are defined to the last bit, so no multiply may fuse with an addition.
  -ffp-contract=off
  # Nobody asks errno about a root, for which every one would be a branch that vector units do not have.
  -fno-math-errno)
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND NOT CMAKE_DISABLE_PRECOMPILE_HEADERS)
  # The standard library switches these off around its strings, where they are wrong; GCC forgets that when the
  # header is precompiled.
  target_compile_options(vrk_compiler_options INTERFACE
    -Wno-array-bounds -Wno-stringop-overflow -Wno-stringop-overread)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND CMAKE_UNITY_BUILD)
  # A folder at once fills what GCC takes before it first looks for garbage, 128 MB, again and again: a tenth of the
  # time of compiling. Half a GB is filled by few.
  target_compile_options(vrk_compiler_options INTERFACE --param=ggc-min-heapsize=524288)
endif()
if(VRKCORE_WARNINGS_AS_ERRORS)
  target_compile_options(vrk_compiler_options INTERFACE -Werror)
endif()
if(VRKCORE_HARDENING AND NOT VRKCORE_SANITIZE)
  add_compile_options(-fstack-protector-strong -fstack-clash-protection -Wformat -Werror=format-security
    "$<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>"
    $<$<STREQUAL:${CMAKE_SYSTEM_PROCESSOR},x86_64>:-fcf-protection>)
  add_link_options(-Wl,-z,relro,-z,now)
  include(CheckPIESupported)
  check_pie_supported()
endif()
if(VRKCORE_SANITIZE)
  add_compile_options(-fsanitize=${VRKCORE_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VRKCORE_SANITIZE})
  add_compile_definitions(_GLIBCXX_ASSERTIONS)
  if(VRKCORE_SANITIZE MATCHES thread)
    # What chooses a function's variant for the processor runs before ThreadSanitizer has begun, and would call it.
    add_compile_options("-Dtarget_clones(...)=unused")
  endif()
  if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND VRKCORE_SANITIZE MATCHES undefined)
    # These two ask about every pointer, which takes GCC a third of the time that it compiles. AddressSanitizer stops at
    # null as well; the fuzz targets by Clang, where all of foreign bytes is read, ask about the alignment.
    add_compile_options(-fno-sanitize=null,alignment)
  endif()
  # Among the checks of sanitizers GCC loses sight of what was set; the release build warns of it.
  add_compile_options($<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
endif()
if(VRKCORE_BUILD_FUZZERS AND CMAKE_CXX_COMPILER_ID MATCHES Clang)
  set(_uninstrumented "${PROJECT_SOURCE_DIR}/tests/fuzz/uninstrumented.txt")
  add_compile_options(-fsanitize=fuzzer-no-link "-fsanitize-ignorelist=${_uninstrumented}"
    "-fsanitize-coverage-ignorelist=${_uninstrumented}")
endif()

set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
  set(CMAKE_BUILD_TYPE Release CACHE STRING "Build type" FORCE)
endif()

# Where CMAKE_UNITY_BUILD is on, the sources of a folder are compiled as one: what they include is read, and its templates
# are made, once a folder. Names in unnamed namespaces are therefore a folder's, not a source's.
function(vrk_compile_folders_as_one target)
  set_target_properties(${target} PROPERTIES UNITY_BUILD_MODE GROUP)
  get_target_property(_sources ${target} SOURCES)
  get_target_property(_root ${target} SOURCE_DIR)
  foreach(_source IN LISTS _sources)
    if(_source MATCHES "\\.cpp$")
      file(REAL_PATH "${_source}" _path BASE_DIRECTORY "${_root}")
      get_filename_component(_folder "${_path}" DIRECTORY)
      file(RELATIVE_PATH _folder "${PROJECT_SOURCE_DIR}" "${_folder}")
      string(MAKE_C_IDENTIFIER "${_folder}" _group)
      set_source_files_properties("${_source}" TARGET_DIRECTORY ${target} PROPERTIES UNITY_GROUP "${_group}")
    endif()
  endforeach()
endfunction()

# What nearly every source includes, compiled once a target instead of once a source. Sources include what they
# use all the same; scripts/tidy.sh reads them without (CMAKE_DISABLE_PRECOMPILE_HEADERS).
set(VRKCORE_COMMON_HEADERS
  <algorithm> <array> <cmath> <cstdint> <filesystem> <fstream> <functional> <iostream> <limits> <map> <memory>
  <optional> <span> <sstream> <string> <utility> <vector>)
