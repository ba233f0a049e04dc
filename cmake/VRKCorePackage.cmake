# Installation: library, headers, CMake package and pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS VRKCore EXPORT VRKCoreTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/VRKCore)
install(DIRECTORY "${PROJECT_SOURCE_DIR}/src/" DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/VRKCore
  FILES_MATCHING PATTERN "*.h" PATTERN "detail" EXCLUDE)
install(FILES "${PROJECT_BINARY_DIR}/src/VRKCoreExport.h"
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/VRKCore)
install(EXPORT VRKCoreTargets NAMESPACE VRKCore::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/VRKCore)
if(TARGET VRKPipeline)
  install(TARGETS VRKPipeline EXPORT VRKCoreTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/VRKCore)
  install(DIRECTORY "${PROJECT_SOURCE_DIR}/pipeline" DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/VRKCore
    FILES_MATCHING PATTERN "*.h" PATTERN "detail" EXCLUDE)
endif()
if(TARGET vrk)
  install(TARGETS vrk RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  # The program writes its manual itself, from what its help is made of.
  set(_manual "${PROJECT_BINARY_DIR}/man")
  install(CODE "execute_process(COMMAND \"${CMAKE_COMMAND}\" -D \"PROGRAM=$<TARGET_FILE:vrk>\"
    -D \"FOLDER=${_manual}\" -P \"${PROJECT_SOURCE_DIR}/cmake/ManPages.cmake\" COMMAND_ERROR_IS_FATAL ANY)")
  install(DIRECTORY "${_manual}/" DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endif()

configure_package_config_file(cmake/VRKCoreConfig.cmake.in
  "${PROJECT_BINARY_DIR}/VRKCoreConfig.cmake"
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/VRKCore PATH_VARS CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/VRKCoreConfigVersion.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/VRKCoreConfig.cmake"
              "${PROJECT_BINARY_DIR}/VRKCoreConfigVersion.cmake"
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/VRKCore)

# The installation may be moved: pkg-config finds the prefix from where its file lies.
file(RELATIVE_PATH VRKCORE_PC_TO_PREFIX
  "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
set(_pc_files VRKCore)
if(TARGET VRKPipeline)
  list(APPEND _pc_files VRKPipeline)
endif()
foreach(_pc IN LISTS _pc_files)
  configure_file(cmake/${_pc}.pc.in "${PROJECT_BINARY_DIR}/${_pc}.pc" @ONLY)
  install(FILES "${PROJECT_BINARY_DIR}/${_pc}.pc" DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
