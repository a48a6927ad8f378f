# Runs at install time (from install(CODE)): configures KD_TEMPLATE with the
# folders of the prefix actually installed to, and installs the result into
# KD_DESTINATION (honouring DESTDIR, through file(INSTALL)).
#
# Inputs, set by kd_install_configured():
#   KD_TEMPLATE      the template (@VAR@ placeholders)
#   KD_OUTPUT        the installed file's name
#   KD_DESTINATION   a folder relative to the prefix, or absolute, or the word
#                    "AUTOSTART" for the XDG autostart folder
#   KD_DIR_<NAME>    the GNUInstallDirs folders as configured (BINDIR, LIBDIR,
#                    INCLUDEDIR, DATADIR, DOCDIR, MANDIR, SYSCONFDIR)
#   KD_SYSCONFDIR_DEFAULT  true when nobody set CMAKE_INSTALL_SYSCONFDIR
#   KD_WORK_DIR      where the configured file is written before installing

set(prefix "${CMAKE_INSTALL_PREFIX}")
foreach(name BINDIR LIBDIR INCLUDEDIR DATADIR DOCDIR MANDIR SYSCONFDIR)
  set(dir "${KD_DIR_${name}}")
  if(IS_ABSOLUTE "${dir}")
    set(KD_FULL_${name} "${dir}")
  else()
    set(KD_FULL_${name} "${prefix}/${dir}")
  endif()
endforeach()
set(KD_PREFIX "${prefix}")

# Desktops read autostart entries from /etc/xdg/autostart only (the first of
# XDG_CONFIG_DIRS): the system prefixes install there rather than under
# <prefix>/etc, which nothing reads. Any other prefix (a private tree, a test
# root) keeps its own etc so that an install never writes outside it unasked.
if(KD_DESTINATION STREQUAL "AUTOSTART")
  if(NOT KD_SYSCONFDIR_DEFAULT)
    set(KD_DESTINATION "${KD_FULL_SYSCONFDIR}/xdg/autostart")
  elseif(prefix STREQUAL "/usr" OR prefix STREQUAL "/usr/local")
    set(KD_DESTINATION "/etc/xdg/autostart")
  else()
    set(KD_DESTINATION "${prefix}/etc/xdg/autostart")
  endif()
elseif(NOT IS_ABSOLUTE "${KD_DESTINATION}")
  set(KD_DESTINATION "${prefix}/${KD_DESTINATION}")
endif()

configure_file("${KD_TEMPLATE}" "${KD_WORK_DIR}/${KD_OUTPUT}" @ONLY)
file(INSTALL DESTINATION "${KD_DESTINATION}" TYPE FILE FILES "${KD_WORK_DIR}/${KD_OUTPUT}")
