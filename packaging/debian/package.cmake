# The Debian package: cpack -G DEB in a tree configured by scripts/package.sh.
install(FILES ${CMAKE_CURRENT_LIST_DIR}/copyright
        DESTINATION ${CMAKE_INSTALL_DOCDIR})
vantrel_install_gzip(${CMAKE_CURRENT_LIST_DIR}/changelog changelog.Debian
                     ${CMAKE_INSTALL_DOCDIR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vantrel)
set(CPACK_PACKAGE_CONTACT "Vantrel developers <developers@vantrel.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "network of a companion device over one Bluetooth link")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"Takes the TCP connections and datagrams of a machine's programs and carries
them over one link, usually a Bluetooth socket, to a companion that opens the
real connections, and tells which program moved how much.
.
The package has the daemon, the program that connects the link and starts it,
the companion for the other machine, and tools for looking at both.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The daemon runs iptables and ifconfig, vantrel-network.service runs ip.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "iptables, net-tools, iproute2")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "bluez, bash-completion, wireshark")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_LIST_DIR}/conffiles ${CMAKE_CURRENT_LIST_DIR}/postinst
    ${CMAKE_CURRENT_LIST_DIR}/prerm ${CMAKE_CURRENT_LIST_DIR}/postrm)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
    WORLD_READ WORLD_EXECUTE)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
include(CPack)
