# The configuration service of a device, its client library and its command line. To be copied into a layer;
# docs/howto/build-for-another-target.md says what else the layer needs.
SUMMARY = "Configuration of an embedded Linux device: client library, service, command line"
SECTION = "base"
LICENSE = "Apache-2.0"
LIC_FILES_CHKSUM = "file://LICENSE;md5=3b83ef96387f14655fc854ddc3c6bd57"

# Where your copy of the sources is: the archive that "git archive --prefix=appconfig-${PV}/" makes.
SRC_URI = "https://sources.example.com/appconfig-${PV}.tar.xz"
SRC_URI[sha256sum] = "0000000000000000000000000000000000000000000000000000000000000000"

DEPENDS = "protobuf protobuf-native sqlite3 tomlplusplus cli11 nlohmann-json"

inherit cmake pkgconfig systemd useradd

EXTRA_OECMAKE = " \
    -DAPPCONFIG_TESTS=OFF \
    -DAPPCONFIG_BENCH=OFF \
    -DCMAKE_INSTALL_SYSCONFDIR=${sysconfdir} \
    -DCMAKE_INSTALL_LOCALSTATEDIR=${localstatedir} \
    -DAPPCONFIG_INSTALL_UNITS=${systemd_system_unitdir} \
    -DProtobuf_PROTOC_EXECUTABLE=${STAGING_BINDIR_NATIVE}/protoc \
"

# The library alone is what an application's package depends on.
PACKAGES =+ "lib${BPN} ${PN}-tools"
FILES:lib${BPN} = "${libdir}/libappconfig.so.*"
FILES:${PN}-tools = "${bindir}/appcfg ${datadir}/bash-completion ${datadir}/zsh"
FILES:${PN} += "${systemd_system_unitdir} ${nonarch_libdir}/sysusers.d ${nonarch_libdir}/tmpfiles.d"
FILES:${PN}-dev += "${datadir}/appconfig"

SYSTEMD_SERVICE:${PN} = "appconfig.socket appconfig.service"
USERADD_PACKAGES = "${PN}"
USERADD_PARAM:${PN} = "--system --no-create-home --home-dir / --shell /sbin/nologin --user-group appconfig"
CONFFILES:${PN} = "${sysconfdir}/appconfig/roles.toml"
