# Where things go at an install, beyond what GNUInstallDirs knows. All are relative to the prefix, so
# that an install can be moved, except where the prefix is /usr: there /etc is the place for settings.
include(GNUInstallDirs)

# "platform/messaging/endpoint.h" cannot lie directly in an include directory that everybody shares, and
# two major versions should be able to lie beside each other.
set(APPCONFIG_INSTALL_HEADERS ${CMAKE_INSTALL_INCLUDEDIR}/appconfig-1)
set(APPCONFIG_INSTALL_CMAKE ${CMAKE_INSTALL_LIBDIR}/cmake/appconfig)
# The schema's files import each other by their path below this one.
set(APPCONFIG_INSTALL_SCHEMA ${CMAKE_INSTALL_DATADIR}/appconfig)
set(APPCONFIG_INSTALL_ZSH_COMPLETIONS ${CMAKE_INSTALL_DATADIR}/zsh/site-functions CACHE STRING
    "Directory of zsh's completion functions")
set(APPCONFIG_INSTALL_UNITS lib/systemd/system CACHE STRING "Directory of systemd's units")

# Where the service finds its settings and keeps its state: /etc and /var/lib when the prefix is /usr.
set(APPCONFIG_CONFIG_DIR ${CMAKE_INSTALL_FULL_SYSCONFDIR}/appconfig)
# What a product's packages bring; the settings beside /etc lie over it.
set(APPCONFIG_PRODUCT_DIR ${CMAKE_INSTALL_FULL_DATADIR}/appconfig)
set(APPCONFIG_STATE_DIR ${CMAKE_INSTALL_FULL_LOCALSTATEDIR}/lib/appconfig)
set(APPCONFIG_INSTALL_CONFIG ${CMAKE_INSTALL_SYSCONFDIR}/appconfig)
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(APPCONFIG_INSTALL_CONFIG ${APPCONFIG_CONFIG_DIR})
endif()
