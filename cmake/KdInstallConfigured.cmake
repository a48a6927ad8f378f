# Runs at install time (from install(CODE)): configures KD_TEMPLATE with the
# folders of the prefix actually installed to, and installs the result into
# KD_DESTINATION (honouring DESTDIR, through file(INSTALL)).
#
# Inputs, set by kd_install_configured():
#   KD_TEMPLATE      the template (@VAR@ placeholders)
#   KD_OUTPUT        the installed file's name
#   KD_DESTINATION   a folder relative to the prefix, or absolute, or the word
#                    "AUTOSTART" for the XDG autostart folder, "POLKIT" for
#                    polkit's folder of actions, or "ZSH_COMPLETION" for zsh's
#                    completion functions
#   KD_COMPRESS      true to install the result compressed (gzip -9n), as
#                    KD_OUTPUT.gz
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
# polkit reads its actions from /usr/share/polkit-1/actions only, whatever
# prefix a program is installed to: the system prefixes put the action there,
# any other prefix keeps it in its own share folder (where it does nothing until
# an administrator links it into polkit's folder).
elseif(KD_DESTINATION STREQUAL "POLKIT")
  if(prefix STREQUAL "/usr" OR prefix STREQUAL "/usr/local")
    set(KD_DESTINATION "/usr/share/polkit-1/actions")
  else()
    set(KD_DESTINATION "${KD_FULL_DATADIR}/polkit-1/actions")
  endif()
# Debian's zsh reads the completions of packages from
# /usr/share/zsh/vendor-completions and those of local installs from
# <prefix>/share/zsh/site-functions.
elseif(KD_DESTINATION STREQUAL "ZSH_COMPLETION")
  if(prefix STREQUAL "/usr")
    set(KD_DESTINATION "${KD_FULL_DATADIR}/zsh/vendor-completions")
  else()
    set(KD_DESTINATION "${KD_FULL_DATADIR}/zsh/site-functions")
  endif()
elseif(NOT IS_ABSOLUTE "${KD_DESTINATION}")
  set(KD_DESTINATION "${prefix}/${KD_DESTINATION}")
endif()

configure_file("${KD_TEMPLATE}" "${KD_WORK_DIR}/${KD_OUTPUT}" @ONLY)
set(result "${KD_WORK_DIR}/${KD_OUTPUT}")
if(KD_COMPRESS)
  # Without a name or time stamp in the header (-n), so that the same page
  # always gives the same bytes; -9 as Debian's policy asks of manual pages.
  execute_process(COMMAND gzip -9nf "${result}" RESULT_VARIABLE failed)
  if(failed)
    message(FATAL_ERROR "gzip ${result} failed")
  endif()
  set(result "${result}.gz")
endif()
file(INSTALL DESTINATION "${KD_DESTINATION}" TYPE FILE FILES "${result}")
