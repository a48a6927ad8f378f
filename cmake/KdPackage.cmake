# Debian packages, split as Debian splits a library and its programs:
#   libkd1     the shared library (multiarch library folder)
#   libkd-dev  its headers, CMake package and pkg-config file
#   ferrimo    the Ferrimo window (when built), FerrimoHelper,
#              ferrimo-mount-agent, kd and kd-privileged, with
#              the service files, manual pages, completions and documentation
# Build them from a tree configured for /usr (see README):
#   cpack -G DEB --config build/default/CPackConfig.cmake
# The programs' and the library's dependencies on other libraries come from
# dpkg-shlibdeps; libkd1 gets a shlibs file and an ldconfig trigger. lintian
# finds no errors in them (tests/install/lintian-suppressed explains the
# warnings left).
set(CPACK_PACKAGE_NAME ferrimo)
set(CPACK_PACKAGE_VENDOR "Quillfen")
set(CPACK_PACKAGE_CONTACT "Quillfen <support@quillfen.example>")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
# Installed under DESTDIR with the real prefix /usr, whatever the tree was
# configured for, so that the service files name /usr/bin and the autostart
# entry lands in /etc/xdg/autostart.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_GENERATOR DEB)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL ${KD_COMPONENT_PROGRAMS} ${KD_COMPONENT_LIBRARY} ${KD_COMPONENT_DEV})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE ferrimo)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${KD_DEBIAN_RELEASE})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(kd_deb_version "${PROJECT_VERSION}-${KD_DEBIAN_RELEASE}")

# CPack turns a component's description into the control file's Description:
# the first line is the synopsis, each further line a continuation line. (No
# CPACK_PACKAGE_DESCRIPTION_SUMMARY: CPack would put it before each of them.)
string(TOUPPER ${KD_COMPONENT_PROGRAMS} comp)
set(CPACK_DEBIAN_${comp}_PACKAGE_NAME ferrimo)
set(CPACK_DEBIAN_${comp}_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_${comp}_DESCRIPTION
    "offload camera cards to several drives, verified
Ferrimo is the window that offloads a camera card to several destinations
at once, verifies every copy and writes hash lists and transfer reports.
FerrimoHelper recognises a camera card by its folder layout when it is
mounted and starts Ferrimo for it. The per-user
agent ferrimo-mount-agent runs it at login and for every new removable
volume. kd offers the Kd library's operations on the command line (card
detection, verified copies and offloads, hashes); kd-privileged is the
co-process that holds administrator rights for them.")
# The administrator-rights session starts kd-privileged through sudo or
# pkexec; the agent runs under the systemd user manager; exFAT cards need
# exfat-fuse on older kernels; gsettings tells the agent the desktop's autorun
# setting; update-desktop-database registers applications; udisks2 ejects a
# card from the Ferrimo window.
set(CPACK_DEBIAN_${comp}_PACKAGE_RECOMMENDS "sudo | pkexec, systemd, udisks2")
# The programs link libKd.so.1 of the same build. dpkg-shlibdeps finds it in
# the library package's staging folder (beside this one) but reads no shlibs
# from there, so the dependency is named here; the other libraries' come from
# dpkg-shlibdeps.
set(CPACK_DEBIAN_${comp}_PACKAGE_DEPENDS "libkd${PROJECT_VERSION_MAJOR} (= ${kd_deb_version})")
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(kd_staged_libdir "../${KD_COMPONENT_LIBRARY}${CMAKE_INSTALL_LIBDIR}")
else()
  set(kd_staged_libdir "../${KD_COMPONENT_LIBRARY}${CPACK_PACKAGING_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}")
endif()
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${kd_staged_libdir}")
set(CPACK_DEBIAN_${comp}_PACKAGE_SUGGESTS "exfat-fuse, libglib2.0-bin, desktop-file-utils")
# The autostart entry lies in /etc: a configuration file the administrator may
# change, which an upgrade must not overwrite.
if(NOT KD_SYSCONFDIR_DEFAULT)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_SYSCONFDIR}")
    set(kd_autostart "${CMAKE_INSTALL_SYSCONFDIR}/xdg/autostart")
  else()
    set(kd_autostart "${CPACK_PACKAGING_INSTALL_PREFIX}/${CMAKE_INSTALL_SYSCONFDIR}/xdg/autostart")
  endif()
else()
  set(kd_autostart "/etc/xdg/autostart")
endif()
file(WRITE ${PROJECT_BINARY_DIR}/debian/programs/conffiles
     "${kd_autostart}/ferrimo-mount-agent.desktop\n")
set(CPACK_DEBIAN_${comp}_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/debian/programs/conffiles)

string(TOUPPER ${KD_COMPONENT_LIBRARY} comp)
set(CPACK_DEBIAN_${comp}_PACKAGE_NAME libkd${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_${comp}_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_${comp}_PACKAGE_MULTIARCH same)
set(CPACK_DEBIAN_${comp}_DESCRIPTION
    "Kd library for camera-card offload tools
The Kd library holds an application log with rotation, a child-process
runner with time-outs, standard locations, file utilities (verified copies
to several destinations, hashing, trash, administrator-rights fall-back),
an administrator-rights session and crash detection.
.
This package holds the shared library.")
# An ldconfig trigger instead of CPack's maintainer scripts (see the script).
set(CPACK_KD_LIBRARY_PACKAGE libkd${PROJECT_VERSION_MAJOR})
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/KdDebTriggers.cmake)
# Its administrator-rights session starts kd-privileged (in ferrimo) through
# sudo or pkexec.
set(CPACK_DEBIAN_${comp}_PACKAGE_SUGGESTS "ferrimo, sudo | pkexec")

string(TOUPPER ${KD_COMPONENT_DEV} comp)
set(CPACK_DEBIAN_${comp}_PACKAGE_NAME libkd-dev)
set(CPACK_DEBIAN_${comp}_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_${comp}_PACKAGE_MULTIARCH same)
set(CPACK_DEBIAN_${comp}_PACKAGE_DEPENDS "libkd${PROJECT_VERSION_MAJOR} (= ${kd_deb_version})")
set(CPACK_DEBIAN_${comp}_DESCRIPTION
    "Kd library for camera-card offload tools (development files)
The Kd library holds an application log with rotation, a child-process
runner with time-outs, standard locations, file utilities (verified copies
to several destinations, hashing, trash, administrator-rights fall-back),
an administrator-rights session and crash detection.
.
This package holds the headers, the CMake package (find_package(Kd)) and
the pkg-config file (kd).")

include(CPack)
