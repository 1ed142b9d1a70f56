# Builds the host program of tests/package against zelmgrid and checks what it prints.
#
#   cmake -DMODE=installed|subdirectory -DSOURCE=<zelmgrid's sources> -DBUILD=<zelmgrid's build>
#         -DWORK=<scratch directory> -DGENERATOR=... -DCXX=... -DCXXFLAGS=... -DBUILD_TYPE=...
#         -DGRID=<grid file> -DEXPECTED=<the line it must print> -P check.cmake
#
# installed: `cmake --install BUILD --prefix WORK/prefix`, then find_package from that prefix.
# subdirectory: add_subdirectory(SOURCE), which builds the library anew in WORK/build.
function(run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "${what} failed (${status}):\n${out}")
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK})
set(options -G ${GENERATOR} -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_CXX_FLAGS=${CXXFLAGS})
if(MODE STREQUAL "installed")
  run("cmake --install" ${CMAKE_COMMAND} --install ${BUILD} --prefix ${WORK}/prefix)
  list(APPEND options -DCMAKE_BUILD_TYPE=${BUILD_TYPE} -DCMAKE_PREFIX_PATH=${WORK}/prefix
    -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF)
elseif(MODE STREQUAL "subdirectory")
  # The library is compiled anew here, unoptimised to keep the test short.
  list(APPEND options -DCMAKE_BUILD_TYPE= -DZELMGRID_SOURCE_DIR=${SOURCE})
else()
  message(FATAL_ERROR "MODE must be installed or subdirectory, not '${MODE}'")
endif()
run("configuring the host" ${CMAKE_COMMAND} -S ${SOURCE}/tests/package -B ${WORK}/build ${options})
run("building the host" ${CMAKE_COMMAND} --build ${WORK}/build --parallel 2)

if(MODE STREQUAL "installed")
  # The package found is the one just installed, not another on the machine.
  file(STRINGS ${WORK}/build/CMakeCache.txt dir REGEX "^zelmgrid_DIR:")
  string(FIND "${dir}" "${WORK}/prefix/" at)
  if(NOT at GREATER 0)
    message(FATAL_ERROR "the host found another zelmgrid package: ${dir}")
  endif()
endif()

execute_process(COMMAND ${WORK}/build/gridcounts ${GRID} RESULT_VARIABLE status OUTPUT_VARIABLE out
  ERROR_VARIABLE err OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT status EQUAL 0 OR NOT out STREQUAL EXPECTED)
  message(FATAL_ERROR "gridcounts ${GRID}: status ${status}, printed\n  '${out}'\nexpected\n  '${EXPECTED}'\n${err}")
endif()
message(STATUS "gridcounts (${MODE}): ${out}")
