# Debian packages of the installed layout (dist/CMakeLists.txt):
#   cmake --build build --target package            amd64, from a native build
#   cmake --build build-arm --target package        armhf, from a build configured with
#                                                   -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tessel-networkd)
set(CPACK_PACKAGE_VENDOR Tessel)
set(CPACK_PACKAGE_CONTACT "Tessel firmware team <firmware@tessel.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "network configuration daemon of the Tessel device")
# The extended description, in lines of at most 80 characters.
string(CONCAT CPACK_PACKAGE_DESCRIPTION
       "tessel-networkd keeps the Tessel device's networking as its configuration\n"
       "file asks: the bridge br0 with eth0, eth1 or both as ports, the veth pairs,\n"
       "the ARP and IP rules that isolate the second internal network, static or\n"
       "DHCP addresses with route metrics, the PHY wiring mode and eth0 link\n"
       "recovery. tessel-networkctl shows what is configured, what is in force and\n"
       "what went wrong, as a table or as JSON.")
set(CPACK_PACKAGE_INSTALL_DIRECTORY tessel-networkd)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# The configuration and the init script have absolute destinations (/etc); a
# staging DESTDIR keeps them inside the package instead of the build machine's /etc.
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)

# The package architecture follows the compiler, not the build machine, so a
# cross build gives an armhf package.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(arm|armv7.*)$")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)

# Depends: the libraries at the versions the programs import (found by
# cmake/PackageDepends.cmake when cpack runs, from this build's own binaries:
# an armhf package gets its own), then every tool the daemon runs in some mode,
# none left to Recommends, which an install without them drops: ip and bridge
# (iproute2), iptables, arptables (arptables-legacy, the one with an ARP FORWARD
# chain), ebtables and ebtables-restore, udhcpc, and BusyBox for devmem (the
# package's private directory names its applet). The shell (dash) and rm
# (coreutils) are Essential.
set(CPACK_TESSEL_TOOLS_DEPENDS "iproute2, iptables, arptables, ebtables, udhcpc, busybox | busybox-static")
if(CMAKE_READELF)
  set(CPACK_TESSEL_READELF ${CMAKE_READELF})
else()
  find_program(CPACK_TESSEL_READELF readelf REQUIRED)
endif()
set(CPACK_TESSEL_BINARIES ${CMAKE_BINARY_DIR}/debian/binaries)
file(GENERATE OUTPUT ${CPACK_TESSEL_BINARIES}
     CONTENT "$<TARGET_FILE:tessel-networkd>\n$<TARGET_FILE:tessel-networkctl>\n$<TARGET_FILE:tessel-netcheck>\n")
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/PackageDepends.cmake)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

# An edited configuration or init script survives an upgrade.
file(WRITE ${CMAKE_BINARY_DIR}/debian/conffiles "/etc/tessel-networkd.conf\n/etc/init.d/tessel-networkd\n")
# The maintainer scripts (dist/debian): a first install starts nothing, an
# upgrade restarts a running daemon, a removal stops it, a purge removes what it made.
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_BINARY_DIR}/debian/conffiles ${PROJECT_SOURCE_DIR}/dist/debian/postinst
    ${PROJECT_SOURCE_DIR}/dist/debian/prerm ${PROJECT_SOURCE_DIR}/dist/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)

include(CPack)
