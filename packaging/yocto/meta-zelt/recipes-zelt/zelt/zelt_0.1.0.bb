# NOT TESTED: no bitbake has ever read this. README.md beside the layer says what has been checked.
SUMMARY = "Link between a camera and its two-way radio, and what belongs to it"
LICENSE = "CLOSED"

SRC_URI = "git://${KOVA_REPOSITORY};protocol=${KOVA_PROTOCOL};branch=${KOVA_BRANCH}"
SRCREV = "${AUTOREV}"
S = "${WORKDIR}/git"

DEPENDS = "asio cli11 microsoft-gsl openssl protobuf protobuf-native systemd tomlplusplus zlib"

inherit cmake features_check pkgconfig systemd useradd
REQUIRED_DISTRO_FEATURES = "systemd usrmerge"

EXTRA_OECMAKE = "-DKOVA_TESTS=OFF -DKOVA_SHIPPED=ON"
OECMAKE_TARGET_COMPILE = "kova zelt-config zelt-keeper zeltcli radiosim zelt-testbed"

# "install" would build everything, the tools of the tests included.
do_install() {
    DESTDIR=${D} cmake --install ${B}
    rm -rf ${D}${datadir}/lintian ${D}${datadir}/doc
}

# As the packages of Debian: the first that names a file has it.
PACKAGES = "${PN}-dbg ${PN}-doc kova zelt-config zelt-keeper zelt-tools libzelt-dev"

FILES:kova = " \
    ${bindir}/kova \
    ${nonarch_libdir}/systemd/system/kova.service \
    ${nonarch_libdir}/sysusers.d/kova.conf \
    ${nonarch_libdir}/tmpfiles.d/kova.conf \
    ${nonarch_libdir}/udev/rules.d/70-kova-serial.rules \
    ${datadir}/dbus-1/system.d/zelt.service.Kova.conf \
"
FILES:zelt-config = " \
    ${bindir}/zelt-config \
    ${nonarch_libdir}/systemd/system/zelt-config.service \
    ${nonarch_libdir}/sysusers.d/zelt-config.conf \
    ${nonarch_libdir}/tmpfiles.d/zelt-config.conf \
    ${datadir}/dbus-1/system.d/zelt.conf \
    ${sysconfdir}/zelt/config.toml \
"
FILES:zelt-keeper = " \
    ${bindir}/zelt-keeper \
    ${nonarch_libdir}/systemd/system/zelt-keeper.service \
    ${nonarch_libdir}/sysusers.d/zelt-keeper.conf \
"
FILES:zelt-tools = " \
    ${bindir}/zeltcli \
    ${bindir}/radiosim \
    ${bindir}/zelt-testbed \
    ${datadir}/bash-completion/completions/* \
    ${datadir}/zsh/vendor-completions/* \
"
FILES:libzelt-dev = " \
    ${includedir} \
    ${libdir}/*.a \
    ${libdir}/cmake \
    ${datadir}/zelt \
"
CONFFILES:zelt-config = "${sysconfdir}/zelt/config.toml"

RDEPENDS:kova = "zelt-config dbus"
RDEPENDS:zelt-config = "dbus"
RDEPENDS:zelt-keeper = "kova"

SYSTEMD_PACKAGES = "kova zelt-config zelt-keeper"
SYSTEMD_SERVICE:kova = "kova.service"
SYSTEMD_SERVICE:zelt-config = "zelt-config.service"
SYSTEMD_SERVICE:zelt-keeper = "zelt-keeper.service"

# Those of the sysusers files, when the image is made.
USERADD_PACKAGES = "kova zelt-config zelt-keeper"
GROUPADD_PARAM:zelt-config = "--system zelt; --system zelt-tools; --system zelt-config"
USERADD_PARAM:zelt-config = "--system --no-create-home --home-dir / --gid zelt-config --groups zelt zelt-config"
GROUPADD_PARAM:kova = "--system zelt; --system zelt-config; --system kova"
USERADD_PARAM:kova = "--system --no-create-home --home-dir / --gid kova --groups zelt,zelt-config kova"
GROUPADD_PARAM:zelt-keeper = "--system zelt; --system zelt-keeper"
USERADD_PARAM:zelt-keeper = "--system --no-create-home --home-dir / --gid zelt-keeper --groups zelt zelt-keeper"
