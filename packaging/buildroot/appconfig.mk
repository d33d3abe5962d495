################################################################################
#
# appconfig
#
################################################################################

APPCONFIG_VERSION = 0.2.0
# Where your copy of the sources is: the archive that
# "git archive --prefix=appconfig-$(APPCONFIG_VERSION)/" makes.
APPCONFIG_SITE = https://sources.example.com
APPCONFIG_SOURCE = appconfig-$(APPCONFIG_VERSION).tar.xz
APPCONFIG_LICENSE = Apache-2.0
APPCONFIG_LICENSE_FILES = LICENSE
APPCONFIG_INSTALL_STAGING = YES
APPCONFIG_DEPENDENCIES = cli11 host-protobuf json-for-modern-cpp protobuf sqlite
APPCONFIG_CONF_OPTS = \
	-DAPPCONFIG_TESTS=OFF \
	-DAPPCONFIG_BENCH=OFF \
	-DCMAKE_INSTALL_SYSCONFDIR=/etc \
	-DCMAKE_INSTALL_LOCALSTATEDIR=/var \
	-DAPPCONFIG_INSTALL_UNITS=/usr/lib/systemd/system \
	-DTOMLPLUSPLUS_INCLUDE_DIR=$(APPCONFIG_TOMLPLUSPLUS_DIR)/include \
	-DProtobuf_PROTOC_EXECUTABLE=$(HOST_DIR)/bin/protoc

# Headers that nobody else in the image needs: unpacked beside the sources.
APPCONFIG_TOMLPLUSPLUS_VERSION = 3.3.0
APPCONFIG_TOMLPLUSPLUS_DIR = $(@D)/tomlplusplus
APPCONFIG_EXTRA_DOWNLOADS = https://github.com/marzer/tomlplusplus/archive/refs/tags/v$(APPCONFIG_TOMLPLUSPLUS_VERSION).tar.gz

define APPCONFIG_EXTRACT_TOMLPLUSPLUS
	mkdir -p $(APPCONFIG_TOMLPLUSPLUS_DIR)
	$(call suitable-extractor,v$(APPCONFIG_TOMLPLUSPLUS_VERSION).tar.gz) \
		$(APPCONFIG_DL_DIR)/v$(APPCONFIG_TOMLPLUSPLUS_VERSION).tar.gz | \
		$(TAR) --strip-components=1 -C $(APPCONFIG_TOMLPLUSPLUS_DIR) $(TAR_OPTIONS) -
endef
APPCONFIG_POST_EXTRACT_HOOKS += APPCONFIG_EXTRACT_TOMLPLUSPLUS

define APPCONFIG_USERS
	appconfig -1 appconfig -1 * - - - Configuration service
endef

define APPCONFIG_INSTALL_INIT_SYSV
	$(INSTALL) -D -m 0755 $(APPCONFIG_PKGDIR)/S30appconfig \
		$(TARGET_DIR)/etc/init.d/S30appconfig
endef

# The state has an owner, which the image's own files do not tell a running device.
define APPCONFIG_PERMISSIONS
	/var/lib/appconfig d 700 appconfig appconfig - - - - -
endef

$(eval $(cmake-package))
