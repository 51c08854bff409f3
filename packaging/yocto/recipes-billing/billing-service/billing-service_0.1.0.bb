SUMMARY = "What apps sell and what users have bought, over D-Bus"
DESCRIPTION = "A daemon for a device that sells: each call on the system bus becomes one HTTPS request to the store, \
made with the device's certificate and with a key that never leaves its PKCS#11 token."
SECTION = "net"
LICENSE = "Apache-2.0"
LIC_FILES_CHKSUM = "file://LICENSE;md5=3b83ef96387f14655fc854ddc3c6bd57"

# The recipe comes with the sources that it builds. For a source of your own set SRC_URI and SRCREV in a .bbappend, and
# EXTERNALSRC to nothing.
inherit externalsrc
EXTERNALSRC ?= "${@os.path.realpath(d.getVar('THISDIR') + '/../../../..')}"

inherit meson pkgconfig systemd useradd features_check
REQUIRED_DISTRO_FEATURES = "systemd"

# efl: Ecore, from a layer of yours. Only headers of p11-kit and cli11 are used.
DEPENDS = "glib-2.0 efl curl openssl jsoncpp p11-kit cli11 python3-native"

# The platform's folder under platform/. With another than "linux" there is no billing-provision.
BILLING_PLATFORM ?= "linux"
EXTRA_OEMESON = "-Dtests=false -Dplatform=${BILLING_PLATFORM} -Dsystemdsystemunitdir=${systemd_system_unitdir}"

# The lab is for developers' machines, and needs Python packages that images have not.
do_install:append() {
    rm -rf ${D}${datadir}/billing-lab ${D}${bindir}/billing-lab ${D}${mandir}/man1/billing-lab.1
}

# For root file systems that are read-only: the same as sysusers.d says.
USERADD_PACKAGES = "${PN}"
GROUPADD_PARAM:${PN} = "--system billing"
USERADD_PARAM:${PN} = "--system --user-group --no-create-home --home-dir /var/lib/billing-service \
    --shell /sbin/nologin --comment 'Billing service' billing-service"

# The bus starts it at the first call. Set to "enable" to have it from boot on.
SYSTEMD_SERVICE:${PN} = "billing-service.service"
SYSTEMD_AUTO_ENABLE = "disable"

# The library has a place of its own, so that a device's own can take it; its plain name is for those who write one.
PACKAGES =+ "billingctl"
FILES:billingctl = "${bindir}/billingctl ${datadir}/bash-completion/completions/billingctl \
    ${datadir}/zsh/site-functions/_billingctl"
FILES:${PN} += "${libexecdir}/billing-service ${sbindir}/billing-provision \
    ${datadir}/bash-completion/completions/billing-provision \
    ${libdir}/billing-service/libbilling-platform.so.* \
    ${systemd_system_unitdir}/billing-service.service \
    ${nonarch_libdir}/sysusers.d/billing-service.conf ${nonarch_libdir}/tmpfiles.d/billing-service.conf \
    ${datadir}/dbus-1/system.d/org.plevo.billingservice.conf \
    ${datadir}/dbus-1/system-services/org.plevo.billingservice.service"
FILES:${PN}-dev += "${libdir}/billing-service/libbilling-platform.so ${libdir}/pkgconfig/billing-platform.pc \
    ${includedir}/billing-service ${datadir}/dbus-1/interfaces/org.plevo.billingservice.xml"
FILES:${PN}-doc += "${docdir}/billing-service ${mandir}"

# What is opened at run time and seen by no linker: the bus. The key's PKCS#11 module is the device's choice.
RDEPENDS:${PN} = "dbus"
RRECOMMENDS:${PN} = "billingctl"
RSUGGESTS:${PN} = "softhsm"
