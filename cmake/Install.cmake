# Installs the plug-in, the static library, the host headers under
# include/tamrel/, a pkg-config file and a CMake package with the imported
# targets tamrelcore::plugin, tamrelcore::static and tamrelcore::headers. The
# agent and the DDI server install themselves (agent/, ddiserver/).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Headers only, for hosts that load the plug-in with dlopen and must not
# link it (nor libcurl, cJSON or OpenSSL).
add_library(tamrelcore_headers INTERFACE)
target_include_directories(tamrelcore_headers INTERFACE
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/tamrel>)
add_library(tamrelcore::headers ALIAS tamrelcore_headers)

foreach(target tamrelcore_shared tamrelcore_static)
  target_include_directories(${target} INTERFACE
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/tamrel>)
endforeach()
set_target_properties(tamrelcore_shared PROPERTIES EXPORT_NAME plugin)
set_target_properties(tamrelcore_static PROPERTIES EXPORT_NAME static)
set_target_properties(tamrelcore_headers PROPERTIES EXPORT_NAME headers)

install(TARGETS tamrelcore_shared tamrelcore_static tamrelcore_headers EXPORT tamrelcoreTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
foreach(header properties/lookup.h properties/simple_signal.h properties/value_container.h
    ddi/hawkbit_query.h ddi/artifact_path.h ddi/tamrel_export.h plugin/libtamrelcore.h)
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES ${PROJECT_SOURCE_DIR}/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tamrel/${folder})
endforeach()

install(EXPORT tamrelcoreTargets NAMESPACE tamrelcore::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tamrelcore)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/tamrelcoreConfig.cmake.in
  ${CMAKE_BINARY_DIR}/tamrelcoreConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tamrelcore)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/tamrelcoreConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/tamrelcoreConfig.cmake
  ${CMAKE_BINARY_DIR}/tamrelcoreConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tamrelcore)
# The prefix is found relative to the .pc file, so the tree can be moved and
# `cmake --install --prefix` works whatever the configured prefix was.
file(RELATIVE_PATH TAMREL_PC_TO_PREFIX "/p/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/p")
string(REGEX REPLACE "/$" "" TAMREL_PC_TO_PREFIX "${TAMREL_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/tamrelcore.pc.in ${CMAKE_BINARY_DIR}/tamrelcore.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/tamrelcore.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
