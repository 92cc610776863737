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

# Written out rather than found with dpkg-shlibdeps, which cannot look into a
# cross build's libraries. The tools are what the daemon runs through the shell.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6, libstdc++6")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "iproute2, arptables, iptables, ebtables, udhcpc")
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

# An edited configuration or init script survives an upgrade.
file(WRITE ${CMAKE_BINARY_DIR}/debian/conffiles "/etc/tessel-networkd.conf\n/etc/init.d/tessel-networkd\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/debian/conffiles)

include(CPack)
