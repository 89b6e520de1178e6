# SPDX-License-Identifier: MIT
# The Debian packages: runtime, development, tools with the simulator.
#
# DEBIAN_PACKAGES adds what Debian wants in a package and others do not want installed.
option(DEBIAN_PACKAGES "Prepare the installation for Debian packages" OFF)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR "The libbist-talvero-hw-lib developers")
set(CPACK_PACKAGE_CONTACT "${CPACK_PACKAGE_VENDOR} <developers@libbist-talvero-hw-lib.example>")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}
                                                ${PROJECT_BINARY_DIR}/simulator)
if(CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
  list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
       ${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
endif()
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS OFF)
# Directories of the system keep the rights that the system gives them.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libbist-talvero-hw-lib0)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "hardware access for built-in-self-test programs
 Board identification, PCIe diagnostics and module slot control of a test
 instrument, for the programs that test it.")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libbist-talvero-hw-lib-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libbist-talvero-hw-lib0 (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEV_DESCRIPTION
    "hardware access for built-in-self-test programs - development files
 Headers, CMake package and pkg-config file for programs that use
 libbist-talvero-hw-lib.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME talvero-bist)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
    "libbist-talvero-hw-lib0 (= ${PROJECT_VERSION}), umockdev")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
    "tests a test instrument, or a simulated one
 talvero-bist tests the instrument's hardware and reports what it found;
 talvero-sim runs it, or any other program, on a simulated instrument.")

if(DEBIAN_PACKAGES)
  # The libraries are where the dynamic linker looks for them.
  set_target_properties(bist-talvero-hw-lib PROPERTIES INSTALL_RPATH "")
  if(TARGET talvero-bist)
    set_target_properties(talvero-bist PROPERTIES INSTALL_RPATH "")
  endif()
  execute_process(COMMAND gzip -9nc ${PROJECT_SOURCE_DIR}/CHANGELOG.md
                  OUTPUT_FILE ${PROJECT_BINARY_DIR}/changelog.gz COMMAND_ERROR_IS_FATAL ANY)
  foreach(component runtime dev tools)
    string(TOUPPER ${component} upper)
    set(directory ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
    install(FILES LICENSE DESTINATION ${directory} RENAME copyright COMPONENT ${component})
    install(FILES ${PROJECT_BINARY_DIR}/changelog.gz DESTINATION ${directory}
            COMPONENT ${component})
  endforeach()
  set(directory ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_DEV_PACKAGE_NAME})
  install(FILES README.md CONTRIBUTING.md DESTINATION ${directory} COMPONENT dev)
  install(DIRECTORY docs DESTINATION ${directory} COMPONENT dev FILES_MATCHING PATTERN *.md)
endif()

include(CPack)
