SUMMARY = "USB storage daemon of a media device"
DESCRIPTION = "Finds USB sticks, mounts them, prepares disks for recording, repairs them and announces what comes \
and goes, through an Apache Thrift service on a local socket."
SECTION = "base"
LICENSE = "CLOSED"

# util-linux: libblkid, and libmount for the client.
DEPENDS = "boost cli11 nlohmann-json thrift thrift-native util-linux"

inherit cmake pkgconfig externalsrc systemd update-rc.d useradd bash-completion

# This layer is a folder of the sources, and builds the sources around it.
EXTERNALSRC = "${@os.path.normpath(os.path.join(d.getVar('THISDIR'), '../../../..'))}"
EXTERNALSRC_SYMLINKS = ""

# The group whose members may call the service. A group that another recipe makes is used unchanged.
DOCKHAND_GROUP ?= "dockhand"

PACKAGECONFIG ??= ""
# Keeps libssl out of the processes: the shared libthrift is linked with it. This needs a libthrift.a, but the thrift of
# meta-oe is built with BUILD_SHARED_LIBS=ON and makes none.
PACKAGECONFIG[static-thrift] = "-DDOCKHAND_STATIC_THRIFT=ON,-DDOCKHAND_STATIC_THRIFT=OFF"
# With systemd: the log goes to syslog, not to the journal. The start script logs to syslog in any case.
PACKAGECONFIG[syslog] = ",,"

EXTRA_OECMAKE = "\
    -DDOCKHAND_BUILD_TESTS=OFF \
    -DDOCKHAND_GROUP=${DOCKHAND_GROUP} \
    -DTHRIFT_COMPILER=${STAGING_BINDIR_NATIVE}/thrift \
"

# Unit or start script: the classes keep the one in DISTRO_FEATURES, systemd or sysvinit, and remove the other.
SYSTEMD_SERVICE:${PN} = "dockhand.service"
INITSCRIPT_NAME = "dockhand"
INITSCRIPT_PARAMS = "defaults 60 20"

USERADD_PACKAGES = "${PN}"
GROUPADD_PARAM:${PN} = "--system ${DOCKHAND_GROUP}"

do_install:append() {
    # CMake installs units and rules into /usr/lib; an image without merged /usr has them in /lib.
    if [ "${nonarch_base_libdir}" != "${nonarch_libdir}" ]; then
        install -d ${D}${systemd_system_unitdir} ${D}${nonarch_base_libdir}/udev/rules.d
        mv ${D}${nonarch_libdir}/systemd/system/* ${D}${systemd_system_unitdir}
        mv ${D}${nonarch_libdir}/udev/rules.d/* ${D}${nonarch_base_libdir}/udev/rules.d
        rm -r ${D}${nonarch_libdir}/systemd ${D}${nonarch_libdir}/udev
    fi

    install -d ${D}${sysconfdir}/init.d
    mv ${D}${datadir}/dockhand/init.d/dockhand ${D}${sysconfdir}/init.d/dockhand
    rmdir ${D}${datadir}/dockhand/init.d

    if ${@bb.utils.contains('PACKAGECONFIG', 'syslog', 'true', 'false', d)}; then
        install -d ${D}${systemd_system_unitdir}/dockhand.service.d
        printf '[Service]\nEnvironment=TLOG_TARGET=syslog\n' \
            > ${D}${systemd_system_unitdir}/dockhand.service.d/syslog.conf
    fi
}

PACKAGES =+ "${PN}-client ${PN}-idl"

FILES:${PN}-client = "${bindir}/dockhandctl"
FILES:${PN}-idl = "${datadir}/dockhand/rpc"
FILES:${PN} += "\
    ${nonarch_libdir}/dockhand \
    ${nonarch_libdir}/sysctl.d/60-dockhand.conf \
    ${nonarch_libdir}/sysusers.d/dockhand.conf \
    ${nonarch_libdir}/tmpfiles.d/dockhand.conf \
    ${nonarch_base_libdir}/udev/rules.d/60-dockhand.rules \
    ${datadir}/dockhand/mounts.example \
    ${systemd_system_unitdir}/dockhand-usb@.service \
    ${systemd_system_unitdir}/dockhand.service \
    ${systemd_system_unitdir}/dockhand.service.d \
"

# The CMake package of the client library names the folder of the IDL.
RDEPENDS:${PN}-dev += "${PN}-idl"

# Rules and units announce sticks with the client. umount, dd, logger and rm may come from busybox.
RDEPENDS:${PN} = "\
    ${PN}-client \
    udev \
    util-linux-fdisk \
    util-linux-sfdisk \
    xfsprogs-mkfs \
    xfsprogs-repair \
    ${@bb.utils.contains('DISTRO_FEATURES', 'sysvinit', 'util-linux-flock', '', d)} \
"

# Only needed if the kernel builds them as modules.
RRECOMMENDS:${PN} = "\
    kernel-module-ext4 \
    kernel-module-hfs \
    kernel-module-hfsplus \
    kernel-module-nls-cp437 \
    kernel-module-nls-utf8 \
    kernel-module-ntfs \
    kernel-module-sd-mod \
    kernel-module-usb-storage \
    kernel-module-vfat \
    kernel-module-xfs \
"
