# The installed tree, which may be moved: headers, the C library, and how CMake and pkg-config find
# them. The wheel has the same tree in its folder bitfold.

include(CMakePackageConfigHelpers)
include(GNUInstallDirs)

if(SKBUILD)
  set(BITFOLD_INSTALL_LIBDIR bitfold/lib)
  set(BITFOLD_INSTALL_INCLUDEDIR bitfold/include)
else()
  set(BITFOLD_INSTALL_LIBDIR ${CMAKE_INSTALL_LIBDIR})
  set(BITFOLD_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR})
endif()
set(cmake_dir ${BITFOLD_INSTALL_LIBDIR}/cmake/bitfold)
set(pkg_config_dir ${BITFOLD_INSTALL_LIBDIR}/pkgconfig)

# ---- Headers: those of the exported functions, and the definitions -------------------------------

install(
  DIRECTORY ${PROJECT_SOURCE_DIR}/include/bitfold
  DESTINATION ${BITFOLD_INSTALL_INCLUDEDIR}
  COMPONENT development
  FILES_MATCHING
  PATTERN "*.h")

# ---- CMake: bitfold::steps and bitfold::arithmetic -----------------------------------------------

set_target_properties(bitfold_steps PROPERTIES EXPORT_NAME steps)
set_target_properties(bitfold_definitions PROPERTIES EXPORT_NAME arithmetic)
set_target_properties(bitfold_numerics PROPERTIES EXPORT_NAME numerics)
install(
  TARGETS bitfold_steps bitfold_definitions bitfold_numerics
  EXPORT bitfold
  LIBRARY DESTINATION ${BITFOLD_INSTALL_LIBDIR} COMPONENT development
  INCLUDES
  DESTINATION ${BITFOLD_INSTALL_INCLUDEDIR})
install(
  EXPORT bitfold
  FILE bitfoldTargets.cmake
  NAMESPACE bitfold::
  DESTINATION ${cmake_dir}
  COMPONENT development)

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/bitfoldConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/bitfoldConfig.cmake
                              INSTALL_DESTINATION ${cmake_dir})
# A change of a bit is a breaking change, and before 1.0 one comes with a new minor version.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/bitfoldConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(
  FILES ${PROJECT_BINARY_DIR}/bitfoldConfig.cmake ${PROJECT_BINARY_DIR}/bitfoldConfigVersion.cmake
  DESTINATION ${cmake_dir}
  COMPONENT development)

# ---- pkg-config: bitfold-steps and bitfold-arithmetic --------------------------------------------

# The folders as they lie from that of the files.
cmake_path(ABSOLUTE_PATH pkg_config_dir BASE_DIRECTORY /prefix OUTPUT_VARIABLE here)
foreach(folder LIBDIR INCLUDEDIR)
  set(there ${BITFOLD_INSTALL_${folder}})
  cmake_path(ABSOLUTE_PATH there BASE_DIRECTORY /prefix)
  cmake_path(RELATIVE_PATH there BASE_DIRECTORY ${here} OUTPUT_VARIABLE BITFOLD_${folder}_FROM_HERE)
endforeach()
get_target_property(flags bitfold_numerics INTERFACE_COMPILE_OPTIONS)
list(JOIN flags " " BITFOLD_NUMERICS_CFLAGS)
get_target_property(flags bitfold_numerics INTERFACE_LINK_OPTIONS)
list(JOIN flags " " BITFOLD_NUMERICS_LIBS)

foreach(package bitfold-steps bitfold-arithmetic)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/${package}.pc.in ${PROJECT_BINARY_DIR}/${package}.pc
                 @ONLY)
  install(
    FILES ${PROJECT_BINARY_DIR}/${package}.pc
    DESTINATION ${pkg_config_dir}
    COMPONENT development)
endforeach()
