# The library, and confsim as a package of its own where PACKAGECONFIG has it. The layer that takes
# this recipe in says by CONFSVC_URI where the sources are, and by SRCREV which of them.
SUMMARY = "Configuration service library for network devices"
DESCRIPTION = "Plugins of a network device link to it to take part in its configuration service."
SECTION = "libs"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=a461ee4e9fbc6ebd2de4c5088f4a1146"

CONFSVC_URI ?= "git://git.example.org/confsvc.git;protocol=https;branch=main"
SRC_URI = "${CONFSVC_URI} file://run-ptest"
SRCREV ?= "${AUTOREV}"
S = "${WORKDIR}/git"

DEPENDS = "libxml2 libpcre2 cjson"

inherit cmake pkgconfig ptest

PACKAGECONFIG ??= ""
PACKAGECONFIG:class-native ??= "confsim"
PACKAGECONFIG:class-nativesdk ??= "confsim"
PACKAGECONFIG[confsim] = "-DCONFSVC_TOOLS=ON,-DCONFSVC_TOOLS=OFF,cli11 libedit libyang nlohmann-json"

EXTRA_OECMAKE = "-DCMAKE_SKIP_RPATH=ON -DCONFSVC_INSTALL=ON -DCONFSVC_EXAMPLES=OFF \
    -DCONFSVC_TESTS=${@bb.utils.contains('PTEST_ENABLED', '1', 'ON', 'OFF', d)}"
DEPENDS += "${@bb.utils.contains('PTEST_ENABLED', '1', 'googletest', '', d)}"

# The programs of the unit tests, each of which enters namespaces of its own.
do_install_ptest() {
    install -d ${D}${PTEST_PATH}/tests
    install -m 0755 ${B}/tests/*_test ${D}${PTEST_PATH}/tests
}
RDEPENDS:${PN}-ptest += "bash"

PACKAGES =+ "confsim ${PN}-examples"
FILES:confsim = "${bindir}/confsim ${mandir}/man1 ${datadir}/bash-completion ${datadir}/confsvc ${datadir}/zsh ${libdir}/confsim ${libdir}/python3"
FILES:${PN} = "${libdir}/libconfsvc.so.*"
FILES:${PN}-dev = "${includedir} ${libdir}/libconfsvc.so ${libdir}/cmake ${libdir}/pkgconfig"
FILES:${PN}-examples = "${docdir}/confsvc/examples"
FILES:${PN}-doc = "${docdir} ${mandir}"
RDEPENDS:${PN}-examples += "bash"

BBCLASSEXTEND = "native nativesdk"
