# Installs the build BUILD_DIR into a fresh PREFIX and checks what a user of the package meets there: the
# program starts from its prefix (no LD_LIBRARY_PATH) and names the version, tessaline.pc gives that
# version and the libraries, the headers and the mesh library are in place; with PYTHON and PYTHON_DIR,
# the installed Python module imports from the prefix too.
foreach(var BUILD_DIR PREFIX VERSION)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "CheckInstall.cmake needs -D${var}=...")
  endif()
endforeach()
file(REMOVE_RECURSE "${PREFIX}")
execute_process(COMMAND ${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${PREFIX}"
  RESULT_VARIABLE rc OUTPUT_QUIET ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "cmake --install failed: ${err}")
endif()

function(expect_file pattern what)
  file(GLOB_RECURSE found "${PREFIX}/${pattern}")
  if(NOT found)
    message(FATAL_ERROR "${what} is not installed (${PREFIX}/${pattern})")
  endif()
endfunction()
expect_file("include/tessaline/Tessaline.h" "the public header")
expect_file("include/tessaline/TessalineMesh.h" "the mesh library's header")
expect_file("libtessaline_mesh.so*" "the mesh library")
file(GLOB_RECURSE version_header "${PREFIX}/include/tessaline/TessalineVersion.h")
if(NOT version_header)
  message(FATAL_ERROR "the version header is not installed")
endif()
file(READ "${version_header}" text)
if(NOT text MATCHES "#define TESSALINE_VERSION_STRING \"${VERSION}\"")
  message(FATAL_ERROR "the installed version header does not say ${VERSION}")
endif()

# The program, started with nothing that points at the prefix's libraries.
if(EXISTS "${PREFIX}/bin/tessaline")
  execute_process(COMMAND env -u LD_LIBRARY_PATH "${PREFIX}/bin/tessaline" --version
    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0 OR NOT out MATCHES "^tessaline ${VERSION}, backend: ")
    message(FATAL_ERROR "the installed program does not start: ${rc} ${out} ${err}")
  endif()
  execute_process(COMMAND env -u LD_LIBRARY_PATH "${PREFIX}/bin/tessaline" --check-device
    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "the installed program cannot reach its library: ${out} ${err}")
  endif()
endif()

# pkg-config finds the prefix from where the file lies.
file(GLOB_RECURSE pc "${PREFIX}/*/pkgconfig/tessaline.pc")
if(NOT pc)
  message(FATAL_ERROR "tessaline.pc is not installed")
endif()
get_filename_component(pc_dir "${pc}" DIRECTORY)
find_program(PKG_CONFIG pkg-config)
if(PKG_CONFIG)
  execute_process(COMMAND env "PKG_CONFIG_PATH=${pc_dir}" "${PKG_CONFIG}" --modversion tessaline
    OUTPUT_VARIABLE version OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE rc)
  execute_process(COMMAND env "PKG_CONFIG_PATH=${pc_dir}" "${PKG_CONFIG}" --libs --cflags tessaline
    OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE)
  string(REGEX MATCH "-I([^ ]+)" include_flag "${flags}")
  get_filename_component(include_dir "${CMAKE_MATCH_1}" REALPATH)
  get_filename_component(expected_dir "${PREFIX}/include" REALPATH)
  if(NOT rc EQUAL 0 OR NOT version STREQUAL VERSION OR NOT flags MATCHES "-ltessaline"
     OR NOT flags MATCHES "-ltessaline_mesh" OR NOT include_dir STREQUAL expected_dir)
    message(FATAL_ERROR "pkg-config says '${version}' and '${flags}' for ${pc}")
  endif()
else()
  file(READ "${pc}" text)
  if(NOT text MATCHES "Version: ${VERSION}")
    message(FATAL_ERROR "${pc} does not say ${VERSION}")
  endif()
endif()

if(DEFINED PYTHON AND DEFINED PYTHON_DIR)
  execute_process(COMMAND env -u LD_LIBRARY_PATH "PYTHONPATH=${PREFIX}/${PYTHON_DIR}" "${PYTHON}" -c
    "import tessaline; print(tessaline.__version__, tessaline.__file__)"
    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0 OR NOT out MATCHES "^${VERSION} ${PREFIX}")
    message(FATAL_ERROR "the installed Python module does not import from the prefix: ${out} ${err}")
  endif()
endif()
message(STATUS "installed into ${PREFIX}: program, libraries, headers and tessaline.pc in place")
