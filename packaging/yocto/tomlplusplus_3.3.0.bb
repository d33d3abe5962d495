# The parser that appconfig reads its definitions with: headers alone.
SUMMARY = "TOML parser for C++17"
HOMEPAGE = "https://marzer.github.io/tomlplusplus/"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=90960f22c10049c117d56ed2ee5ee167"

SRC_URI = "git://github.com/marzer/tomlplusplus.git;protocol=https;nobranch=1;tag=v${PV}"
S = "${WORKDIR}/git"

inherit allarch

do_configure[noexec] = "1"
do_compile[noexec] = "1"
do_install() {
    install -d ${D}${includedir}
    cp -r --no-preserve=ownership ${S}/include/toml++ ${D}${includedir}/
}
ALLOW_EMPTY:${PN} = "1"
