# Debian packages by CPack: libudtrecvN, libudtrecv-dev, udtrecv-tools. packaging/build.sh makes and checks them.
set(UDT_DEBIAN_REVISION 1)
set(UDT_DEBIAN_LIBRARY libudtrecv${PROJECT_VERSION_MAJOR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME udtrecv)
set(CPACK_PACKAGE_VENDOR "The udtrecv authors")
set(CPACK_PACKAGE_CONTACT "The udtrecv authors <maintainers@udtrecv.example>" CACHE STRING "Maintainer of the packages")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY ${PROJECT_DESCRIPTION})
set(CPACK_COMPONENTS_ALL library dev tools)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${UDT_DEBIAN_REVISION})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS OFF)

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${UDT_DEBIAN_LIBRARY})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
# Tells what a program that links with the library depends on, and has ldconfig run after an installation.
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/packaging/shlibs @ONLY
     CONTENT "libudtrecv ${PROJECT_VERSION_MAJOR} ${UDT_DEBIAN_LIBRARY} (>= ${PROJECT_VERSION})\n")
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/packaging/triggers CONTENT "activate-noawait ldconfig\n" @ONLY)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA
    ${PROJECT_BINARY_DIR}/packaging/shlibs ${PROJECT_BINARY_DIR}/packaging/triggers)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION "Takes decoded media packets of real-time calls, files them per stream, asks
for those that were lost, and plays every stream out in order on an adaptive
timeline that absorbs jitter and keeps sound and picture in step.

This package contains the shared library.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libudtrecv-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "${UDT_DEBIAN_LIBRARY} (= ${PROJECT_VERSION}-${UDT_DEBIAN_REVISION})")
set(CPACK_DEBIAN_DEV_PACKAGE_RECOMMENDS libre-dev) # udt::rtp alone needs it
set(CPACK_DEBIAN_DEV_DESCRIPTION "Takes decoded media packets of real-time calls, files them per stream, asks
for those that were lost, and plays every stream out in order on an adaptive
timeline that absorbs jitter and keeps sound and picture in step.

This package contains headers, static libraries, the CMake package, pkg-config
files and examples. The RTP side needs libre-dev as well.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME udtrecv-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION comm)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "The program udtlab plays recorded calls through the receiver of udtrecv and
simulates calls over bad networks, in virtual time, and shows what happened to
every stream: lost, asked for again, late, played, and with which delay.")

# What every package has to have: its copyright and its changelog, packed as the policy wants.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(UDT_CHANGELOG ${PROJECT_BINARY_DIR}/packaging/changelog.Debian.gz)
  file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/packaging)
  execute_process(COMMAND gzip -9nc ${PROJECT_SOURCE_DIR}/packaging/changelog OUTPUT_FILE ${UDT_CHANGELOG}
                  COMMAND_ERROR_IS_FATAL ANY)
  foreach(PAIR library=${UDT_DEBIAN_LIBRARY} dev=libudtrecv-dev tools=udtrecv-tools)
    string(REGEX MATCH "(.*)=(.*)" PAIR ${PAIR})
    install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${UDT_CHANGELOG}
            DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CMAKE_MATCH_2} COMPONENT ${CMAKE_MATCH_1})
  endforeach()
endif()
include(CPack)
