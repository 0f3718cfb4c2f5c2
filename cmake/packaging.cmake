# Install layout and the Debian package (cpack -G DEB).
#
# The daemon reads /etc/kirn/ipcd.conf and /etc/kirn/rt_catalogue.json by
# absolute path, so those go to /etc/kirn whatever the install prefix.
set(IPCD_SYSCONFDIR "/etc/kirn")

set(_ipcd_unitdir "")
if(PKG_CONFIG_FOUND)
  pkg_get_variable(_ipcd_unitdir systemd systemdsystemunitdir)
endif()
if(NOT _ipcd_unitdir)
  set(_ipcd_unitdir "/lib/systemd/system")
endif()
set(IPCD_SYSTEMD_UNITDIR "${_ipcd_unitdir}" CACHE PATH "Directory of the systemd unit")

# The daemon installs itself to sbin (src/main), the tools ipcd-sim and
# ipcd-ctl to bin (tools/); the package test checks both.

install(FILES dist/ipcd.conf
        DESTINATION ${IPCD_SYSCONFDIR}
        PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ)  # may hold a broker password
install(FILES dist/rt_catalogue.json DESTINATION ${IPCD_SYSCONFDIR})

# Self-contained definitions for client programs that decode the bodies.
file(GLOB _ipcd_protos ${PROJECT_SOURCE_DIR}/proto/*.proto)
install(FILES ${_ipcd_protos} DESTINATION ${CMAKE_INSTALL_DATADIR}/ipcd/proto)

# The locked-down local broker and its fleet bridge (mosquitto): examples for
# the integrator to copy, never activated by the package (see the README).
file(GLOB _ipcd_broker_files ${PROJECT_SOURCE_DIR}/dist/broker/*)
install(FILES ${_ipcd_broker_files} DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples/broker)

# What Debian wants of every package's documentation: the copyright file,
# and the changelog compressed as gzip -9n (no name or time stamp inside, so
# the same tree gives the same package). The changelog's newest entry is this
# version: cmake stops here when it is not, so that a version bump gets one.
file(STRINGS dist/debian/changelog _ipcd_changelog_top LIMIT_COUNT 1)
if(NOT _ipcd_changelog_top MATCHES "^ipcd \\(${PROJECT_VERSION}\\) ")
  message(FATAL_ERROR "dist/debian/changelog: the newest entry is '${_ipcd_changelog_top}', "
                      "not version ${PROJECT_VERSION}: add an entry for it")
endif()
add_custom_command(
  OUTPUT ${PROJECT_BINARY_DIR}/packaging/changelog.gz
  COMMAND sh -c "gzip -9n -c \"$1\" >\"$2\"" sh ${PROJECT_SOURCE_DIR}/dist/debian/changelog
          ${PROJECT_BINARY_DIR}/packaging/changelog.gz
  DEPENDS dist/debian/changelog
  VERBATIM)
add_custom_target(changelog ALL DEPENDS ${PROJECT_BINARY_DIR}/packaging/changelog.gz)
install(FILES ${PROJECT_BINARY_DIR}/packaging/changelog.gz dist/debian/copyright
        DESTINATION ${CMAKE_INSTALL_DOCDIR})

# The unit's start-up steps (broker probe, queue-port access).
install(PROGRAMS dist/ipcd-prestart DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/ipcd)

# The one unit action the daemon's user may take (stopping norvex). polkit
# reads rules from /usr/share and /etc only, whatever the install prefix.
install(FILES dist/50-ipcd.rules DESTINATION /usr/share/polkit-1/rules.d)

# The unit names /usr/sbin/ipcd and /usr/libexec/ipcd/; point it at the
# prefix actually installed into (decided at install time: cpack uses /usr, a
# plain install /usr/local unless told otherwise).
install(CODE "
  file(READ \"${PROJECT_SOURCE_DIR}/dist/ipcd.service\" _unit)
  string(REPLACE \"=/usr/sbin/ipcd\"
                 \"=\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_SBINDIR}/ipcd\" _unit \"\${_unit}\")
  string(REPLACE \"/usr/libexec/ipcd/\"
                 \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBEXECDIR}/ipcd/\" _unit \"\${_unit}\")
  file(WRITE \"${PROJECT_BINARY_DIR}/packaging/unit/ipcd.service\" \"\${_unit}\")
  file(INSTALL DESTINATION \"${IPCD_SYSTEMD_UNITDIR}\" TYPE FILE
       FILES \"${PROJECT_BINARY_DIR}/packaging/unit/ipcd.service\")
")

# Debian control files, generated into the build tree.
set(_ipcd_control ${PROJECT_BINARY_DIR}/packaging/control)
file(WRITE ${_ipcd_control}/conffiles
     "${IPCD_SYSCONFDIR}/ipcd.conf\n${IPCD_SYSCONFDIR}/rt_catalogue.json\n")

# Maintainer scripts after the pattern debhelper generates: every systemd
# call is skipped when systemd is not running (chroot, container, image
# build) and never fails the package operation; starts and stops go through
# deb-systemd-invoke, which honours policy-rc.d. A fresh install enables the
# unit but does not start it: without the RT partition's queue ports it could
# only fail; it starts at the next boot or by hand. An upgrade restarts a
# running daemon.
#
# The daemon runs as the system user "ipcd" (see the unit). It is made with
# the shadow tools, which work in a chroot without systemd, and kept on purge
# as Debian does with system users, so that no later user inherits files it
# left. The configuration may hold the broker password: root writes it, the
# daemon's group reads it (a stat override, so that dpkg keeps it on
# upgrades and an administrator's own override wins).
file(WRITE ${_ipcd_control}/postinst [=[#!/bin/sh
set -e
if [ "$1" = configure ]; then
    if ! getent group ipcd >/dev/null; then
        groupadd --system ipcd
    fi
    if ! getent passwd ipcd >/dev/null; then
        useradd --system --gid ipcd --no-create-home --home-dir /nonexistent \
            --shell /usr/sbin/nologin --comment "ipcd daemon" ipcd
    fi
    if ! dpkg-statoverride --list /etc/kirn/ipcd.conf >/dev/null 2>&1; then
        dpkg-statoverride --update --add root ipcd 0640 /etc/kirn/ipcd.conf
    fi
fi
if [ "$1" = configure ] || [ "$1" = abort-upgrade ] || [ "$1" = abort-deconfigure ] || [ "$1" = abort-remove ]; then
    if command -v deb-systemd-helper >/dev/null 2>&1; then
        deb-systemd-helper unmask ipcd.service >/dev/null || true
        if deb-systemd-helper --quiet was-enabled ipcd.service; then
            deb-systemd-helper enable ipcd.service >/dev/null || true
        else
            deb-systemd-helper update-state ipcd.service >/dev/null || true
        fi
    fi
    if [ -d /run/systemd/system ]; then
        systemctl --system daemon-reload >/dev/null 2>&1 || true
        if [ -n "$2" ]; then
            deb-systemd-invoke try-restart ipcd.service >/dev/null 2>&1 || true
        fi
    fi
fi
exit 0
]=])
file(WRITE ${_ipcd_control}/prerm [=[#!/bin/sh
set -e
if [ "$1" = remove ] && [ -d /run/systemd/system ]; then
    deb-systemd-invoke stop ipcd.service >/dev/null 2>&1 || true
fi
exit 0
]=])
file(WRITE ${_ipcd_control}/postrm [=[#!/bin/sh
set -e
if [ -d /run/systemd/system ]; then
    systemctl --system daemon-reload >/dev/null 2>&1 || true
fi
if command -v deb-systemd-helper >/dev/null 2>&1; then
    if [ "$1" = remove ]; then
        deb-systemd-helper mask ipcd.service >/dev/null || true
    fi
    if [ "$1" = purge ]; then
        deb-systemd-helper purge ipcd.service >/dev/null || true
        deb-systemd-helper unmask ipcd.service >/dev/null || true
    fi
fi
if [ "$1" = purge ] && dpkg-statoverride --list /etc/kirn/ipcd.conf >/dev/null 2>&1; then
    dpkg-statoverride --remove /etc/kirn/ipcd.conf || true
fi
exit 0
]=])

# The .invalid domain says that this is no address to write to: a package
# for a vehicle names its real maintainer here.
set(IPCD_PACKAGE_MAINTAINER "ipcd maintainers <maintainers@ipcd.invalid>"
    CACHE STRING "Maintainer field of the Debian package")

set(CPACK_GENERATOR "DEB")
set(CPACK_PACKAGE_NAME "ipcd")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_CONTACT "${IPCD_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "bridge between an RT partition's queue ports and the local MQTT broker")
set(CPACK_PACKAGING_INSTALL_PREFIX "/usr")
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_PACKAGE_NAME "ipcd")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${IPCD_PACKAGE_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_SECTION "net")
set(CPACK_DEBIAN_PACKAGE_PRIORITY "optional")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "ipcd publishes the records that the real-time partition writes into its
receiving queue port as topics on the local MQTT broker, and writes what
client applications publish for the real-time side into the transmitting
queue port. It runs as a systemd service.
.
The protobuf definitions of the message bodies are installed under
/usr/share/ipcd/proto for client developers.")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "mosquitto")
# What the unit and the maintainer scripts use: setfacl for the queue-port
# access, polkitd for the rule that lets the daemon stop norvex (systemctl as
# a user other than root goes through D-Bus and polkit), the shadow tools
# that make the user.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "acl, polkitd, passwd")
find_program(IPCD_DPKG_SHLIBDEPS dpkg-shlibdeps)
mark_as_advanced(IPCD_DPKG_SHLIBDEPS)
if(IPCD_DPKG_SHLIBDEPS)
  # Exact library packages and versions from the binaries themselves,
  # appended to the list above.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
else()
  string(APPEND CPACK_DEBIAN_PACKAGE_DEPENDS
         ", libmosquitto1, libprotobuf-lite32, libsystemd0, libssl3, libstdc++6, libgcc-s1, libc6")
endif()
# A cross build (cmake/toolchains) names its Debian architecture; cpack
# would otherwise take this machine's. dpkg-shlibdeps finds the target's
# libraries and their packages from the binaries' ELF class by itself.
if(IPCD_DEB_ARCH)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE "${IPCD_DEB_ARCH}")
endif()
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${_ipcd_control}/conffiles ${_ipcd_control}/postinst
    ${_ipcd_control}/prerm ${_ipcd_control}/postrm)
# Scripts 0755, conffiles 0644, whatever the build tree's umask made them.
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

include(CPack)
