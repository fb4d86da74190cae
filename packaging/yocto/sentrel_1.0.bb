# SPDX-License-Identifier: Apache-2.0
SUMMARY = "Operations that need root, by an agent on the system bus"
DESCRIPTION = "A client library, a command and an agent that mounts, makes device nodes, loads \
modules and drives the service manager for ordinary processes, by rules."
HOMEPAGE = "https://sentrel.org/"
SECTION = "base"
LICENSE = "Apache-2.0"
LIC_FILES_CHKSUM = "file://LICENSE;md5=3b83ef96387f14655fc854ddc3c6bd57"

# A fixed revision belongs here; the layer that uses the recipe sets SRCREV.
SRC_URI = "git://sentrel.org/source/sentrel.git;protocol=https;branch=main"
SRCREV ?= "${AUTOREV}"
PV = "1.0.0+git"
S = "${WORKDIR}/git"

DEPENDS = "dbus boost"

inherit cmake pkgconfig systemd useradd bash-completion

# agent, cli: the two programs. re2: regular expressions in rules; without it globs remain, and a
# rule with a regular expression answers status 2. dlog: the platform's own log.
PACKAGECONFIG ??= "agent cli re2 ${@bb.utils.filter('DISTRO_FEATURES', 'systemd', d)}"
PACKAGECONFIG[agent] = "-DSENTREL_AGENT=ON,-DSENTREL_AGENT=OFF,tomlplusplus nlohmann-json utfcpp libseccomp"
PACKAGECONFIG[cli] = "-DSENTREL_CLI=ON,-DSENTREL_CLI=OFF,nlohmann-json utfcpp"
PACKAGECONFIG[re2] = "-DSENTREL_RE2=ON,-DSENTREL_RE2=OFF,re2"
PACKAGECONFIG[systemd] = ",,systemd"
PACKAGECONFIG[dlog] = ",-DSENTREL_DLOG_LIBRARY=,dlog"

EXTRA_OECMAKE = "-DSENTREL_TESTS=OFF -DSENTREL_BENCH=OFF -DSENTREL_WERROR=OFF \
    -DSENTREL_UNIT_DIR=${systemd_system_unitdir} -DSENTREL_DBUS_DATADIR=${datadir}"

PACKAGES =+ "${PN}-agent ${PN}-cli ${PN}-dlog"

FILES:${PN}-agent = "${sbindir}/sentrel-agent ${datadir}/dbus-1 ${systemd_system_unitdir} \
    ${nonarch_libdir}/sysusers.d ${sysconfdir}/sentrel ${datadir}/doc/sentrel-agent"
FILES:${PN}-cli = "${bindir}/sentrel"
FILES:${PN}-dlog = "${libdir}/libsentrel-dlog${SOLIBS}"
CONFFILES:${PN}-agent = ""

SYSTEMD_PACKAGES = "${@bb.utils.contains('PACKAGECONFIG', 'agent', '${PN}-agent', '', d)}"
SYSTEMD_SERVICE:${PN}-agent = "sentrel-agent.service"

# The group whose programs may send to the agent; the bus's policy names it.
USERADD_PACKAGES = "${@bb.utils.contains('PACKAGECONFIG', 'agent', '${PN}-agent', '${PN}', d)}"
GROUPADD_PARAM:${PN}-agent = "-r sentrel"
GROUPADD_PARAM:${PN} = "-r sentrel"

# --no-canonicalize is util-linux's: with another mount the agent could not pin a mount point.
RDEPENDS:${PN}-agent += "dbus util-linux-mount util-linux-umount kmod coreutils"
RRECOMMENDS:${PN}-agent += "cifs-utils"

do_install:append() {
    if ${@bb.utils.contains('PACKAGECONFIG', 'agent', 'true', 'false', d)}; then
        install -d -m 0755 ${D}${sysconfdir}/sentrel/rules.d
        # useradd makes the group.
        rm -rf ${D}${nonarch_libdir}/sysusers.d
    fi
}
