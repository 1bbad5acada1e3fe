# What `cmake --install` puts where, in three components: library (the shared library), dev (headers, static
# library, CMake package, pkg-config, examples) and tools (udtlab and what belongs to it).
include(CMakePackageConfigHelpers)

set(UDT_HEADER_DIR ${CMAKE_INSTALL_INCLUDEDIR}/udtrecv)
set(UDT_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/udtrecv)
set(UDT_INSTALLED_COMPONENTS)

# Headers of the given folders, each by its bare name in one folder. Private ones end in Inner.h.
function(udt_install_headers)
  foreach(FOLDER ${ARGN})
    file(GLOB HEADERS CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${FOLDER}/*.h)
    list(FILTER HEADERS EXCLUDE REGEX "Inner\\.h$")
    install(FILES ${HEADERS} DESTINATION ${UDT_HEADER_DIR} COMPONENT dev)
  endforeach()
endfunction()

# NAME.pc beside the library; what stands between the braces of REQUIRES goes to it as it is.
function(udt_install_pkgconfig NAME DESCRIPTION REQUIRES LIBS_PRIVATE)
  cmake_path(SET DIR NORMALIZE ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
  file(RELATIVE_PATH UDT_PC_PREFIX /prefix/${DIR} /prefix)
  set(UDT_PC_NAME ${NAME})
  set(UDT_PC_DESCRIPTION ${DESCRIPTION})
  set(UDT_PC_REQUIRES ${REQUIRES})
  set(UDT_PC_LIBS_PRIVATE ${LIBS_PRIVATE})
  configure_file(${PROJECT_SOURCE_DIR}/cmake/library.pc.in ${PROJECT_BINARY_DIR}/${NAME}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${NAME}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
endfunction()

# udt_install_side(COMPONENT TARGET FOLDER DESCRIPTION REQUIRES): a static library beside the receiver, as udt::COMPONENT.
function(udt_install_side COMPONENT TARGET FOLDER DESCRIPTION REQUIRES)
  # Installed, all headers are in one folder; and what a static library only compiles with, nobody links.
  get_target_property(FOLDERS ${TARGET} INTERFACE_INCLUDE_DIRECTORIES)
  list(TRANSFORM FOLDERS REPLACE "^(/.*)$" "$<BUILD_INTERFACE:\\1>")
  get_target_property(LIBRARIES ${TARGET} INTERFACE_LINK_LIBRARIES)
  list(FILTER LIBRARIES EXCLUDE REGEX "LINK_ONLY:nlohmann_json")
  set_target_properties(${TARGET} PROPERTIES EXPORT_NAME ${COMPONENT} INTERFACE_INCLUDE_DIRECTORIES "${FOLDERS}"
                        INTERFACE_LINK_LIBRARIES "${LIBRARIES}" POSITION_INDEPENDENT_CODE ON)
  install(TARGETS ${TARGET} EXPORT udt${COMPONENT}Targets
          ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
          INCLUDES DESTINATION ${UDT_HEADER_DIR})
  install(EXPORT udt${COMPONENT}Targets NAMESPACE udt:: DESTINATION ${UDT_CMAKE_DIR} COMPONENT dev)
  udt_install_headers(${FOLDER})
  udt_install_pkgconfig(${TARGET} ${DESCRIPTION} "Requires: ${REQUIRES}" "")
  set(UDT_INSTALLED_COMPONENTS ${UDT_INSTALLED_COMPONENTS} ${COMPONENT} PARENT_SCOPE)
endfunction()

set_target_properties(udtrecv PROPERTIES EXPORT_NAME recv)
set_target_properties(udtrecv_shared PROPERTIES EXPORT_NAME recv_shared)
install(TARGETS udtrecv udtrecv_shared EXPORT udtrecvTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT dev
        INCLUDES DESTINATION ${UDT_HEADER_DIR})
install(EXPORT udtrecvTargets NAMESPACE udt:: DESTINATION ${UDT_CMAKE_DIR} COMPONENT dev)
udt_install_headers(include udt common xplatform/include)
udt_install_pkgconfig(udtrecv ${PROJECT_DESCRIPTION} "" "-lstdc++ -pthread")

if(TARGET udtrtp)
  udt_install_side(rtp udtrtp rtp "RTP and RTCP to packets of udtrecv" "udtrecv, libre")
endif()
if(TARGET udtstats)
  udt_install_side(stats udtstats stats "Derived statistics of udtrecv" "udtrecv")
endif()

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/udtrecvConfig.cmake.in
  ${PROJECT_BINARY_DIR}/udtrecvConfig.cmake INSTALL_DESTINATION ${UDT_CMAKE_DIR})
# Before 1.0 a minor version may change the interface.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/udtrecvConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/udtrecvConfig.cmake ${PROJECT_BINARY_DIR}/udtrecvConfigVersion.cmake
        DESTINATION ${UDT_CMAKE_DIR} COMPONENT dev)

file(GLOB UDT_EXAMPLES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/examples/*.cpp ${PROJECT_SOURCE_DIR}/examples/*.c
     ${PROJECT_SOURCE_DIR}/examples/*.py ${PROJECT_SOURCE_DIR}/examples/*.h)
install(FILES ${UDT_EXAMPLES} DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libudtrecv-dev/examples COMPONENT dev)

if(TARGET udtlab)
  if(CMAKE_INSTALL_PREFIX STREQUAL "/usr") # a package of the distribution
    set(UDT_ZSH_FOLDER vendor-completions)
  else()
    set(UDT_ZSH_FOLDER site-functions)
  endif()
  install(TARGETS udtlab RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/lab/scenarios DESTINATION ${CMAKE_INSTALL_DATADIR}/udtrecv COMPONENT tools
          PATTERN "*.py" EXCLUDE)
  install(FILES ${PROJECT_SOURCE_DIR}/lab/completion/udtlab.bash RENAME udtlab
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
  install(FILES ${PROJECT_SOURCE_DIR}/lab/completion/_udtlab
          DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/${UDT_ZSH_FOLDER} COMPONENT tools)
endif()
