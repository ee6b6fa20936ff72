# What the installed package needs beside the targets: the version header made from the project's
# version, a pkg-config file, and an install RPATH so that the installed program finds its libraries.
# Included by the top-level CMakeLists.txt once the targets exist.

if(TESSALINE_CUDA)
  set(TESSALINE_BACKEND_NAME "CUDA")
else()
  set(TESSALINE_BACKEND_NAME "host (OpenMP)")
endif()
set(TESSALINE_GENERATED_INCLUDE_DIR ${PROJECT_BINARY_DIR}/include)
configure_file(${PROJECT_SOURCE_DIR}/cmake/TessalineVersion.h.in
  ${TESSALINE_GENERATED_INCLUDE_DIR}/tessaline/TessalineVersion.h @ONLY)
foreach(target tessaline_objects tessaline tessaline_static tessaline_tools)
  if(TARGET ${target})
    target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${TESSALINE_GENERATED_INCLUDE_DIR}>)
  endif()
endforeach()
install(FILES ${TESSALINE_GENERATED_INCLUDE_DIR}/tessaline/TessalineVersion.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tessaline)

# The pkg-config file finds the prefix from its own place, so that `cmake --install --prefix` anywhere works.
file(RELATIVE_PATH TESSALINE_PC_PREFIX_FROM_PCFILEDIR "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
configure_file(${PROJECT_SOURCE_DIR}/cmake/tessaline.pc.in ${PROJECT_BINARY_DIR}/tessaline.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tessaline.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(TARGET tessaline_cli)
  file(RELATIVE_PATH _tessaline_bin_to_lib "/prefix/${CMAKE_INSTALL_BINDIR}" "/prefix/${CMAKE_INSTALL_LIBDIR}")
  set_target_properties(tessaline_cli PROPERTIES INSTALL_RPATH "$ORIGIN/${_tessaline_bin_to_lib}")
endif()
