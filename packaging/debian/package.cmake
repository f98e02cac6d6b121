# The Debian packages: cpack -G DEB in a tree configured by scripts/package.sh.
# vantrel for the device, vantrel-companion for the machine on the other end.
install(FILES ${CMAKE_CURRENT_LIST_DIR}/copyright
        DESTINATION ${CMAKE_INSTALL_DOCDIR})
vantrel_install_gzip(${CMAKE_CURRENT_LIST_DIR}/changelog changelog.Debian
                     ${CMAKE_INSTALL_DOCDIR})
vantrel_install_gzip(${PROJECT_SOURCE_DIR}/NEWS NEWS ${CMAKE_INSTALL_DOCDIR})
install(FILES ${CMAKE_CURRENT_LIST_DIR}/copyright
        DESTINATION ${companion_docdir} COMPONENT companion)
vantrel_install_gzip(${PROJECT_SOURCE_DIR}/NEWS NEWS ${companion_docdir}
                     COMPONENT companion)
vantrel_install_gzip(${CMAKE_CURRENT_LIST_DIR}/changelog changelog.Debian
                     ${companion_docdir} COMPONENT companion
                     FILTER "sed 's/^vantrel /vantrel-companion /'")

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_COMPONENTS_ALL device companion)
set(CPACK_PACKAGE_CONTACT "Vantrel developers <developers@vantrel.invalid>")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
if(NOT DEFINED CPACK_DEBIAN_PACKAGE_SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_DEVICE_PACKAGE_NAME vantrel)
set(CPACK_DEBIAN_DEVICE_DESCRIPTION
"network of a companion device over one Bluetooth link
Takes the TCP connections and datagrams of a machine's programs and carries
them over one link, usually a Bluetooth socket, to a companion that opens the
real connections, and tells which program moved how much.
.
The package has the daemon, the program that connects the link and starts it,
and tools for looking at both. The companion is a package of its own.")
# The daemon runs iptables and ifconfig, vantrel-launch and vantrelctl run ip and nft.
if(NOT DEFINED CPACK_DEBIAN_DEVICE_PACKAGE_DEPENDS)
  set(CPACK_DEBIAN_DEVICE_PACKAGE_DEPENDS "iptables, net-tools, iproute2, nftables")
endif()
set(CPACK_DEBIAN_DEVICE_PACKAGE_SUGGESTS
    "bluez, resolvconf, bash-completion, logrotate, wireshark, vantrel-companion")
set(CPACK_DEBIAN_DEVICE_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_LIST_DIR}/conffiles ${CMAKE_CURRENT_LIST_DIR}/postinst
    ${CMAKE_CURRENT_LIST_DIR}/prerm ${CMAKE_CURRENT_LIST_DIR}/postrm)

set(CPACK_DEBIAN_COMPANION_PACKAGE_NAME vantrel-companion)
set(CPACK_DEBIAN_COMPANION_DESCRIPTION
"far side of vantrel links: opens the real connections
Serves the links of devices that have no network of their own: opens the TCP
connections and sends the datagrams that they ask for, and carries the answers
back. It needs no privileges; a service for systemd comes with it.
.
vantrel-check, which is in the package, too, judges any companion.")
# vantrel-check alone needs it.
set(CPACK_DEBIAN_COMPANION_PACKAGE_RECOMMENDS python3)
# vantrelctl, which shows the status socket, comes with vantrel.
set(CPACK_DEBIAN_COMPANION_PACKAGE_SUGGESTS
    "bluez, bash-completion, prometheus, vantrel")
set(CPACK_DEBIAN_COMPANION_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_LIST_DIR}/companion/postinst
    ${CMAKE_CURRENT_LIST_DIR}/companion/prerm
    ${CMAKE_CURRENT_LIST_DIR}/companion/postrm)

set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
    WORLD_READ WORLD_EXECUTE)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
include(CPack)
