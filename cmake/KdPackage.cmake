# A Debian package of everything installed: programs, the library and its
# headers, the service files, manual pages and documentation.
#   cpack -G DEB --config build/default/CPackConfig.cmake
# Its dependencies are the shared libraries the programs use, as
# dpkg-shlibdeps finds them.
set(CPACK_PACKAGE_NAME ferrimo)
set(CPACK_PACKAGE_VENDOR "Quillfen")
set(CPACK_PACKAGE_CONTACT "Quillfen <support@quillfen.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Starts Ferrimo for camera cards, and the Kd library")
set(CPACK_PACKAGE_DESCRIPTION
    "FerrimoHelper recognises a camera card by its folder layout on every mount\n"
    "and starts the offload application Ferrimo; ferrimo-mount-agent runs it per\n"
    "user. The Kd library (log, process runner, locations, file utilities, crash\n"
    "detection) and its command-line tool kd come with it.")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
# Installed under DESTDIR with the real prefix /usr, whatever the tree was
# configured for, so that the service files name /usr/bin and the autostart
# entry lands in /etc/xdg/autostart.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_GENERATOR DEB)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "systemd")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "exfat-fuse")
include(CPack)
