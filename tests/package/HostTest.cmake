# Run by CTest with the variables of CMakeLists.txt beside this file.
cmake_minimum_required(VERSION 3.25)
set(host_source "${CMAKE_CURRENT_LIST_DIR}/host")
set(prefix "${WORK_DIR}/prefix")
set(expected "61 patterns from -60 degrees")
file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}")

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT result EQUAL 0)
    string(JOIN " " command ${ARGN})
    message(FATAL_ERROR "${command}\nended with ${result}\n${out}${err}")
  endif()
  set(output "${out}" PARENT_SCOPE)
endfunction()

function(expect text)
  if(NOT output MATCHES "${text}")
    message(FATAL_ERROR "expected '${text}', got\n${output}")
  endif()
endfunction()

run("${CMAKE_COMMAND}" --install "${BUILD_DIR}" --prefix "${prefix}")

# The CMake package.
run("${CMAKE_COMMAND}" -S "${host_source}" -B "${WORK_DIR}/host" -G "${GENERATOR}"
    "-DCMAKE_PREFIX_PATH=${prefix}" "-DCMAKE_CXX_COMPILER=${COMPILER}" "-DCMAKE_BUILD_TYPE=${CONFIG}"
    "-DCMAKE_CXX_FLAGS=${FLAGS}")
run("${CMAKE_COMMAND}" --build "${WORK_DIR}/host")
run("${WORK_DIR}/host/host")
expect("${expected}")

# pkg-config, and every public header on its own feet: those of the dependencies are not in reach.
set(ENV{PKG_CONFIG_PATH} "${prefix}/${LIBDIR}/pkgconfig")
run(pkg-config --cflags --libs VRKCore)
separate_arguments(package_flags UNIX_COMMAND "${output}")
run("${COMPILER}" -std=c++20 ${FLAGS} "${host_source}/main.cpp" -o "${WORK_DIR}/pkg_config_host" ${package_flags})
set(ENV{LD_LIBRARY_PATH} "${prefix}/${LIBDIR}")
run("${WORK_DIR}/pkg_config_host")
expect("${expected}")
file(GLOB_RECURSE headers RELATIVE "${prefix}/include/VRKCore" "${prefix}/include/VRKCore/*.h")
# The core alone needs no other package; the pipeline has Eigen types.
list(FILTER headers EXCLUDE REGEX "^pipeline/")
set(includes "")
foreach(header IN LISTS headers)
  string(APPEND includes "#include \"${header}\"\n")
endforeach()
file(WRITE "${WORK_DIR}/all_headers.cpp" "${includes}")
run("${COMPILER}" -std=c++20 -fsyntax-only "${WORK_DIR}/all_headers.cpp" ${package_flags})

# The program, where it was installed with the library.
if(EXISTS "${prefix}/bin/vrk")
  unset(ENV{LD_LIBRARY_PATH})
  run("${prefix}/bin/vrk" --version)
  expect("^vrk [0-9]")
endif()
