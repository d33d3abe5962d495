# Debian packages made of the install's components, by CPack; scripts/package runs it.
set(APPCONFIG_MAINTAINER "The appconfig developers <developers@appconfig.example>" CACHE STRING
    "Whom a package names for questions: who makes packages for a device, puts an address of their own here")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME appconfig)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR appconfig)
# The first line of each package's own description is its summary.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
# What a debugger needs goes into packages that scripts/package makes.
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/debian/finish.cmake)
set(CPACK_APPCONFIG_SOURCE_DIR ${PROJECT_SOURCE_DIR})

set(CPACK_COMPONENTS_ALL library development documentation service tools)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${APPCONFIG_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# CPack of Debian 12 has no variable for this field, and writes the one before it as it stands: the library
# for two architectures lies side by side, and a program serves those of any.
set(same "optional\nMulti-Arch: same")
set(foreign "optional\nMulti-Arch: foreign")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Only the library's package has a shared library to tell of.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(debian ${PROJECT_SOURCE_DIR}/packaging/debian)

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libappconfig1)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_PRIORITY ${same})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${debian}/triggers)
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "client library of a device's configuration
Applications of an embedded Linux device read and change its configuration
through this library. It keeps what was read, is told of changes, and talks
to the configuration service of the package appconfig-service.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libappconfig-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_PRIORITY ${same})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS appconfig-doc)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "libappconfig1 (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "client library of a device's configuration - development files
Headers, CMake and pkg-config files for those who build applications with
libappconfig, and the schema of its messages.")

set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_NAME appconfig-doc)
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_SECTION doc)
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_PRIORITY ${foreign})
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_ARCHITECTURE all)
set(CPACK_COMPONENT_DOCUMENTATION_DESCRIPTION "configuration of an embedded device - documentation
How-to pages, the reference of definitions and protocol, and examples, for
those who build applications with libappconfig or define variables for a
device.")

set(CPACK_DEBIAN_SERVICE_PACKAGE_NAME appconfig-service)
set(CPACK_DEBIAN_SERVICE_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_SERVICE_PACKAGE_PRIORITY ${foreign})
# What makes the service's user and directories: systemd itself, or, on a device without it, two small
# programs of it.
set(CPACK_DEBIAN_SERVICE_PACKAGE_DEPENDS
    "systemd-standalone-sysusers | systemd-sysusers, systemd-standalone-tmpfiles | systemd-tmpfiles")
set(CPACK_DEBIAN_SERVICE_PACKAGE_RECOMMENDS appconfig-tools)
set(CPACK_DEBIAN_SERVICE_PACKAGE_CONTROL_EXTRA
    ${debian}/postinst ${debian}/prerm ${debian}/postrm ${debian}/conffiles)
set(CPACK_COMPONENT_SERVICE_DESCRIPTION "configuration service of an embedded device
Owns the configuration of a device: serves the variables that definitions
name, checks every change, stores it durably, and tells the applications
that asked to be told.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME appconfig-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOLS_PACKAGE_PRIORITY ${foreign})
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "command line of a device's configuration
appcfg reads, changes and watches the configuration variables of a device,
takes them from one device to another, and shows what its configuration
service is doing.")

include(CPack)
