# Run by CTest with the variables of CMakeLists.txt beside this file: the examples against an installation.
cmake_minimum_required(VERSION 3.25)
set(prefix "${WORK_DIR}/prefix")
file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}/series")
unset(ENV{LD_LIBRARY_PATH})

# run(PATTERN command...): the command succeeds and prints what matches.
function(run pattern)
  execute_process(COMMAND ${ARGN} WORKING_DIRECTORY "${WORK_DIR}"
    RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE errors)
  if(NOT result EQUAL 0 OR NOT output MATCHES "${pattern}")
    string(JOIN " " command ${ARGN})
    message(FATAL_ERROR "${command}\nended with ${result}, expected '${pattern}'\n${output}${errors}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

run("" "${CMAKE_COMMAND}" --install "${BUILD_DIR}" --prefix "${prefix}")
run("" "${CMAKE_COMMAND}" -S "${SOURCE_DIR}/examples" -B "${WORK_DIR}/build" -G "${GENERATOR}"
    "-DCMAKE_PREFIX_PATH=${prefix}" "-DCMAKE_INSTALL_PREFIX=${WORK_DIR}/elsewhere"
    "-DCMAKE_CXX_COMPILER=${COMPILER}" "-DCMAKE_CXX_FLAGS=${FLAGS}")
run("" "${CMAKE_COMMAND}" --build "${WORK_DIR}/build")
run("" "${CMAKE_COMMAND}" --install "${WORK_DIR}/build")

# Two crystals, and a file that is none.
set(vrk "${prefix}/bin/vrk")
set(how --size 128 --dmin 1 --tilts=-40:40:4 --axis 20 --write-axis)
run("" "${vrk}" simulate -o series/a.mrc --cell 4,5,6,90,90,90 ${how})
run("" "${vrk}" simulate -o series/b.mrc --cell 5,5,6,90,90,120 ${how})
file(WRITE "${WORK_DIR}/series/c.mrc" "no series")
run("" "${vrk}" run series/a.mrc -o result --keep-volume --no-pictures --no-integration)

set(build "${WORK_DIR}/build")
set(cell "^oP [34]\\.[0-9]+ [45]\\.[0-9]+ [56]\\.[0-9]+ 90 90 90\n$")
run("${cell}" "${build}/file_to_cell" series/a.mrc)
run("${cell}" "${WORK_DIR}/elsewhere/bin/file_to_cell" series/a.mrc)
run("^oP, [0-9]+ reflections, 0 of them in the ring\n$" "${build}/own_stage" series/a.mrc)
run("^128 x 128 of [0-9]+ slices" "${build}/volume_slice" result/volume.mrc slice.pgm)
file(SIZE "${WORK_DIR}/slice.pgm" size)
if(NOT size EQUAL 16399)
  message(FATAL_ERROR "the picture of 128 x 128 pixels has ${size} bytes")
endif()
run("a.mrc: oP .*" "${build}/screen_folder" series)
foreach(line IN ITEMS "b.mrc: hP 4\\.9|b.mrc: hP 5\\.0" "c.mrc: [^\n]*not" "confidence high")
  if(NOT output MATCHES "${line}")
    message(FATAL_ERROR "expected '${line}', got\n${output}")
  endif()
endforeach()

# The same crystal, turned.
foreach(turn IN ITEMS 10,20,30 100,80,0)
  run("" "${vrk}" simulate -o turned.mrc --cell 4,5,6,90,90,90 --orientation ${turn} ${how})
  run("" "${vrk}" run turned.mrc -o "turned ${turn}" --no-pictures)
endforeach()
set(crystals "turned 10,20,30" "turned 100,80,0")
set(line ": correlation 0\\.[89][^\n]*\n")
run("${line}.*${line}oP, [0-9]+ reflections, CC1/2 of the crystals (0\\.[89]|1)" "${build}/merge_crystals" merged ${crystals})
run("^whole" "${vrk}" verify merged)

# The nodes of a lattice.
set(list "")
foreach(h RANGE 0 6)
  foreach(k RANGE 0 6)
    foreach(l RANGE 0 6)
      math(EXPR x "10 * (${h} - 3)")
      math(EXPR y "13 * (${k} - 3)")
      math(EXPR z "17 * (${l} - 3)")
      string(APPEND list "${x} ${y} ${z} 100\n")
    endforeach()
  endforeach()
endforeach()
file(WRITE "${WORK_DIR}/list" "${list}")
run("^oP 5\\.88[0-9]* 7\\.69[0-9]* 10 90 90 90\n34[0-9] of 343" "${build}/own_reflections" list 1e8)

# The linker's way with pkg-config.
set(ENV{PKG_CONFIG_PATH} "${prefix}/${LIBDIR}/pkgconfig")
run("-I.*eigen3" pkg-config --cflags VRKPipeline)
run("rpath" pkg-config --libs VRKPipeline)
separate_arguments(libraries UNIX_COMMAND "${output}")
run("" "${COMPILER}" ${FLAGS} "${build}/CMakeFiles/file_to_cell.dir/file_to_cell.cpp.o" -o "${WORK_DIR}/linked" ${libraries})
run("${cell}" "${WORK_DIR}/linked" series/a.mrc)

# The module that was installed, where it is built.
if(PYTHON)
  set(ENV{PYTHONPATH} "${prefix}/${LIBDIR}/python3/dist-packages")
  run("^oP [0-9]" "${PYTHON}" "${SOURCE_DIR}/examples/file_to_cell.py" series/a.mrc)
endif()

# What the README shows is the first of them.
file(READ "${SOURCE_DIR}/README.md" readme)
file(READ "${SOURCE_DIR}/examples/file_to_cell.cpp" program)
string(REGEX REPLACE "^[^\n]*\n" "" program "${program}")
string(FIND "${readme}" "${program}" place)
if(place EQUAL -1)
  message(FATAL_ERROR "the README does not show examples/file_to_cell.cpp as it is")
endif()
