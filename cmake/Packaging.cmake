# What is installed, and as which packages; read last, when every target is there.
#
#   kova          the service, its unit, user, bus policy and serial port
#   zelt-config   Config, and what all services of the camera share: their groups and bus policy
#   zelt-keeper   the service that keeps the link up, its unit and user
#   zelt-tools    zeltcli, radiosim, zelt-testbed
#   libzelt-dev   what services are built with
#
# scripts/package makes them.
include_guard()
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(KOVA_PACKAGE_REVISION 1 CACHE STRING "Debian revision of the packages")
set(packaging "${PROJECT_SOURCE_DIR}/packaging")
set(packages kova zelt-config zelt-keeper zelt-tools libzelt-dev)

# kova_install_files(COMPONENT DIRECTORY FILE [NAME]): FILE from packaging/COMPONENT.
function(kova_install_file component directory file)
  set(name ${file})
  if(ARGC GREATER 3)
    set(name ${ARGV3})
  endif()
  install(FILES "${packaging}/${component}/${file}" DESTINATION "${directory}" RENAME "${name}"
    COMPONENT ${component})
endfunction()

# --- kova, zelt-config, zelt-keeper ----------------------------------------------------------------

foreach(service kova zelt-config zelt-keeper)
  install(TARGETS ${service} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ${service})
  kova_install_file(${service} lib/systemd/system ${service}.service)
  kova_install_file(${service} lib/sysusers.d ${service}.sysusers ${service}.conf)
  if(EXISTS ${packaging}/${service}/${service}.tmpfiles)
    kova_install_file(${service} lib/tmpfiles.d ${service}.tmpfiles ${service}.conf)
  endif()
  kova_install_file(${service} ${CMAKE_INSTALL_MANDIR}/man8 ${service}.8)
endforeach()
kova_install_file(kova ${CMAKE_INSTALL_DATADIR}/dbus-1/system.d zelt.service.Kova.conf)
kova_install_file(kova lib/udev/rules.d 70-kova-serial.rules)
kova_install_file(zelt-config ${CMAKE_INSTALL_DATADIR}/dbus-1/system.d zelt.conf)
install(FILES service/config/config.toml DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/zelt
  COMPONENT zelt-config)

# --- zelt-tools ------------------------------------------------------------------------------------

# A tool that is not built yet adds its target here, its manual page and, if it has one, its
# completion below.
foreach(tool zeltcli radiosim zelt-testbed kova-replay)
  if(TARGET ${tool})
    install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT zelt-tools)
  endif()
endforeach()
install(FILES tools/zeltcli/zeltcli.1 packaging/zelt-tools/radiosim.1
  packaging/zelt-tools/zelt-testbed.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT zelt-tools)
foreach(tool zeltcli zelt-testbed)
  kova_install_file(zelt-tools ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
    ${tool}.bash-completion ${tool})
  kova_install_file(zelt-tools ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions _${tool})
endforeach()

# --- libzelt-dev -----------------------------------------------------------------------------------

set(libraries
  zelt_Base zelt_Logger zelt_ProtoBuf zelt_ServiceIPC zelt_ServiceModel zelt_Config zelt_Device
  zelt_Process orka_RadioCodec orka_RadioProtocol)
set(headers ${CMAKE_INSTALL_INCLUDEDIR}/libzelt)
# In the build each library has folders of its own; installed, all headers lie in one. Our warnings
# are nobody else's.
foreach(library ${libraries})
  string(REPLACE "_" "::" name ${library})
  get_target_property(include ${library} INTERFACE_INCLUDE_DIRECTORIES)
  get_target_property(link ${library} INTERFACE_LINK_LIBRARIES)
  list(FILTER link EXCLUDE REGEX kova_warnings)
  set_target_properties(${library} PROPERTIES
    EXPORT_NAME ${name}
    INTERFACE_INCLUDE_DIRECTORIES "$<BUILD_INTERFACE:${include}>"
    INTERFACE_LINK_LIBRARIES "${link}")
endforeach()
get_target_property(generated zelt_ProtoBuf BINARY_DIR)
set_target_properties(zelt_ProtoBuf PROPERTIES
  INTERFACE_SYSTEM_INCLUDE_DIRECTORIES "$<BUILD_INTERFACE:${generated}>")

install(TARGETS ${libraries} EXPORT zelt
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT libzelt-dev
  INCLUDES DESTINATION ${headers})
install(EXPORT zelt FILE zeltTargets.cmake DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zelt
  COMPONENT libzelt-dev)
configure_package_config_file(${packaging}/libzelt-dev/zeltConfig.cmake.in zeltConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zelt PATH_VARS CMAKE_INSTALL_DATADIR)
write_basic_package_version_file(zeltConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zeltConfig.cmake ${PROJECT_BINARY_DIR}/zeltConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zelt COMPONENT libzelt-dev)
foreach(library Base Logger ServiceIPC ServiceModel Config Device Process RadioProtocol)
  install(DIRECTORY common/lib/${library}/include/ DESTINATION ${headers} COMPONENT libzelt-dev)
endforeach()
install(DIRECTORY ${generated}/ DESTINATION ${headers} COMPONENT libzelt-dev
  FILES_MATCHING PATTERN *.pb.h PATTERN CMakeFiles EXCLUDE)
install(DIRECTORY common/lib/ProtoBuf/ DESTINATION ${CMAKE_INSTALL_DATADIR}/zelt/proto
  COMPONENT libzelt-dev FILES_MATCHING PATTERN *.proto)

# --- The packages ----------------------------------------------------------------------------------

set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL ${packages})
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_SET_DESTDIR ON)  # what goes to /etc is not below the prefix
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_NAME kova)
set(CPACK_PACKAGE_CONTACT "Kova maintainers <kova@example.org>")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${CPACK_PACKAGE_CONTACT}")
set(CPACK_DEBIAN_PACKAGE_RELEASE ${KOVA_PACKAGE_REVISION})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
if(CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
endif()
set(CPACK_PRE_BUILD_SCRIPTS ${packaging}/deb/tidy.cmake)
set(CPACK_KOVA_STRIP ${CMAKE_STRIP})

# kova_package(NAME SECTION section DEPENDS text SUGGESTS text DESCRIPTION text)
# What is of one package alone lies in packaging/NAME; the lines of shell in "purge" there undo what
# its service left, and only services have maintainer scripts.
function(kova_package PACKAGE)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "SECTION;DEPENDS;SUGGESTS;DESCRIPTION" "")
  set(source ${packaging}/${PACKAGE})
  set(work ${PROJECT_BINARY_DIR}/packaging/${PACKAGE})
  set(control)
  if(EXISTS ${source}/purge)
    file(READ ${source}/purge PURGE)
    foreach(script postinst prerm postrm)
      configure_file(${packaging}/deb/${script}.in ${work}/${script} @ONLY)
      list(APPEND control ${work}/${script})
    endforeach()
  endif()
  if(EXISTS ${source}/conffiles)
    list(APPEND control ${source}/conffiles)
  endif()

  configure_file(${packaging}/deb/changelog.in ${work}/changelog.Debian @ONLY)
  install(FILES ${work}/changelog.Debian ${packaging}/deb/copyright
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${PACKAGE} COMPONENT ${PACKAGE})
  if(EXISTS ${source}/lintian-overrides)
    kova_install_file(${PACKAGE} ${CMAKE_INSTALL_DATADIR}/lintian/overrides lintian-overrides
      ${PACKAGE})
  endif()

  string(TOUPPER CPACK_DEBIAN_${PACKAGE} prefix)
  set(${prefix}_PACKAGE_NAME ${PACKAGE} PARENT_SCOPE)
  set(${prefix}_PACKAGE_SECTION ${arg_SECTION} PARENT_SCOPE)
  set(${prefix}_PACKAGE_DEPENDS "${arg_DEPENDS}" PARENT_SCOPE)
  set(${prefix}_PACKAGE_SUGGESTS "${arg_SUGGESTS}" PARENT_SCOPE)
  set(${prefix}_PACKAGE_SHLIBDEPS ON PARENT_SCOPE)
  set(${prefix}_PACKAGE_CONTROL_EXTRA "${control}" PARENT_SCOPE)
  set(${prefix}_DESCRIPTION "${arg_DESCRIPTION}" PARENT_SCOPE)
endfunction()

kova_package(kova SECTION misc
  DEPENDS "zelt-config (>= ${PROJECT_VERSION}), default-dbus-system-bus | dbus-system-bus, systemd"
  SUGGESTS "zelt-tools"
  DESCRIPTION "link between a camera and its two-way radio
The service Kova owns the link to the radio, over TCP or the serial port. It
takes messages of the camera's other services over the bus, forwards them to
the radio, and brings every answer and notification back.")
kova_package(zelt-config SECTION misc
  DEPENDS "default-dbus-system-bus | dbus-system-bus, systemd"
  DESCRIPTION "configuration of a camera
The service Config publishes the configuration of the camera to its other
services. With it comes what these share: their groups, and who may do what
on the bus.")
kova_package(zelt-keeper SECTION misc
  DEPENDS "kova (>= ${PROJECT_VERSION}), systemd"
  SUGGESTS "zelt-tools"
  DESCRIPTION "keeps a camera's link to its radio up
The service Keeper starts the link once Kova is ready, and again after a loss
or a failed handshake. A link that was stopped on purpose it leaves alone.")
kova_package(zelt-tools SECTION utils
  SUGGESTS "kova, zelt-keeper, dbus-daemon, bash-completion"
  DESCRIPTION "tools for the services of a camera
zeltcli talks to the services of the camera over the bus, and through Kova to
the radio. radiosim is a radio to try the camera with; zelt-testbed starts
all of it for a test, where kova, zelt-config and dbus-daemon are installed.")
kova_package(libzelt-dev SECTION libdevel
  DEPENDS "libprotobuf-dev (>= 3.21), libprotobuf-dev (<< 3.22), libsystemd-dev, libmsgsl-dev, zlib1g-dev, pkg-config"
  SUGGESTS "protobuf-compiler"
  DESCRIPTION "development files for services of a camera
Headers, static libraries and a CMake package (zelt) for what services are
written with: messages over the bus, timers, logging, configuration, the link
to the radio; and the definitions of all messages.")
set(CPACK_DEBIAN_LIBZELT-DEV_PACKAGE_SHLIBDEPS OFF)

include(CPack)
