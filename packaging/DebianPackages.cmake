# SPDX-License-Identifier: MIT
# The Debian packages: the library, the stand-in for the platform's classes, development files, the
# BIST program, the simulator.
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
# A library of the platform that is in no Debian package is found, and depended on by no name.
foreach(library ${PLATFORM_LIBRARIES})
  if(IS_ABSOLUTE ${library})
    cmake_path(GET library PARENT_PATH directory)
    list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${directory})
  endif()
endforeach()
if(CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
  list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
       ${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
endif()
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS OFF)
# Directories of the system keep the rights that the system gives them.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/SetTimes.cmake)

# Every package tells this of all of them, after its own line and before its own contents.
set(about "
Board identification, PCIe diagnostics and module slot control of a test
instrument, for the built-in-self-test programs that test it.
.
This package has")
# A dependency on at least this version: upgrading one package removes no other.
set(library "libbist-talvero-hw-lib0 (>= ${PROJECT_VERSION})")
set(components runtime dev tools simulator)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libbist-talvero-hw-lib0)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "hardware access for built-in-self-test programs - library${about} the shared library.")

if(TARGET talvero-platform)
  list(APPEND components standin)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libtalvero-platform-standin | libtalvero-platform0")
  # The platform's package has libtalvero-platform.so.0 as well: it provides libtalvero-platform0,
  # for which the library's dependency holds, and conflicts with and replaces this package.
  set(CPACK_DEBIAN_STANDIN_PACKAGE_NAME libtalvero-platform-standin)
  set(CPACK_DEBIAN_STANDIN_PACKAGE_SECTION libs)
  set(CPACK_DEBIAN_STANDIN_PACKAGE_PROVIDES libtalvero-platform0)
  set(CPACK_DEBIAN_STANDIN_PACKAGE_REPLACES "libbist-talvero-hw-lib0 (<< 0.2.0)")
  set(CPACK_DEBIAN_STANDIN_PACKAGE_BREAKS "libbist-talvero-hw-lib0 (<< 0.2.0)")
  set(CPACK_DEBIAN_STANDIN_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)
  set(CPACK_COMPONENT_STANDIN_DESCRIPTION
      "hardware access for built-in-self-test programs - platform stand-in${about} a stand-in for \
the platform's own classes, which
switches no clock source. On an instrument, the platform's package takes its
place.")
endif()

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libbist-talvero-hw-lib-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${library}")
set(CPACK_COMPONENT_DEV_DESCRIPTION
    "hardware access for built-in-self-test programs - development files${about} headers, CMake \
package, pkg-config file and pages.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME talvero-bist)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${library}")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS talvero-sim)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
    "hardware access for built-in-self-test programs - test program${about} talvero-bist, which \
tests the hardware and reports what it
found.")

set(CPACK_DEBIAN_SIMULATOR_PACKAGE_NAME talvero-sim)
set(CPACK_DEBIAN_SIMULATOR_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_SIMULATOR_PACKAGE_DEPENDS umockdev)
set(CPACK_DEBIAN_SIMULATOR_PACKAGE_SUGGESTS talvero-bist)
set(CPACK_DEBIAN_SIMULATOR_PACKAGE_REPLACES "talvero-bist (<< 0.2.0)")
set(CPACK_DEBIAN_SIMULATOR_PACKAGE_BREAKS "talvero-bist (<< 0.2.0)")
set(CPACK_COMPONENT_SIMULATOR_DESCRIPTION
    "hardware access for built-in-self-test programs - simulator${about} talvero-sim, which runs a \
program on a simulated instrument.")

set(CPACK_COMPONENTS_ALL ${components})

if(DEBIAN_PACKAGES)
  # The libraries are where the dynamic linker looks for them.
  set_target_properties(bist-talvero-hw-lib PROPERTIES INSTALL_RPATH "" INSTALL_RPATH_USE_LINK_PATH OFF)
  if(TARGET talvero-bist)
    set_target_properties(talvero-bist PROPERTIES INSTALL_RPATH "")
  endif()
  execute_process(COMMAND gzip -9nc ${PROJECT_SOURCE_DIR}/packaging/changelog
                  OUTPUT_FILE ${PROJECT_BINARY_DIR}/changelog.gz COMMAND_ERROR_IS_FATAL ANY)
  foreach(component ${components})
    string(TOUPPER ${component} upper)
    set(directory ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
    install(FILES LICENSE DESTINATION ${directory} RENAME copyright COMPONENT ${component})
    install(FILES ${PROJECT_BINARY_DIR}/changelog.gz DESTINATION ${directory}
            COMPONENT ${component})
  endforeach()
endif()

include(CPack)
