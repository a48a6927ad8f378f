# Install rules whose files name other installed files. Their paths are filled
# in at install time, so that `cmake --install --prefix X` and CPack (which
# installs under /usr) get files that point at the programs actually installed.
include(GNUInstallDirs)

# What goes in which Debian package (cmake/KdPackage.cmake): the programs with
# their service files and documentation (the default), the shared library, and
# its development files.
set(KD_COMPONENT_PROGRAMS programs)
set(KD_COMPONENT_LIBRARY library)
set(KD_COMPONENT_DEV development)
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME ${KD_COMPONENT_PROGRAMS})
# The Debian revision of the packages (dist/debian/changelog.in).
set(KD_DEBIAN_RELEASE 1)

# Whether CMAKE_INSTALL_SYSCONFDIR was given (on the command line or in the
# cache before GNUInstallDirs set its default): then it decides where the
# autostart entry goes, else the convention of the prefix does.
if(CMAKE_INSTALL_SYSCONFDIR STREQUAL "etc")
  set(KD_SYSCONFDIR_DEFAULT TRUE)
else()
  set(KD_SYSCONFDIR_DEFAULT FALSE)
endif()

# systemd reads user units from <prefix>/lib/systemd/user (never from a
# multiarch library folder). The folder comes from systemd's pkg-config file,
# relative to its prefix, so that it follows the prefix installed to.
set(KD_SYSTEMD_USER_UNIT_DIR "" CACHE STRING
    "Folder for the systemd user unit (default: systemd's, relative to the prefix)")
if(NOT KD_SYSTEMD_USER_UNIT_DIR)
  set(unitdir "")
  find_package(PkgConfig QUIET)
  if(PKG_CONFIG_FOUND)
    pkg_get_variable(unitdir systemd systemduserunitdir)
    pkg_get_variable(systemd_prefix systemd prefix)
  endif()
  if(unitdir AND systemd_prefix AND unitdir MATCHES "^${systemd_prefix}/(.+)$")
    set(KD_SYSTEMD_USER_UNIT_DIR "${CMAKE_MATCH_1}")
  else()
    set(KD_SYSTEMD_USER_UNIT_DIR "lib/systemd/user")
  endif()
endif()

# bash-completion's folder, relative to the prefix likewise.
set(KD_BASH_COMPLETION_DIR "${CMAKE_INSTALL_DATADIR}/bash-completion/completions")

# kd_install_configured(TEMPLATE OUTPUT DESTINATION [COMPONENT c] [COMPRESS]):
# installs TEMPLATE, configured at install time (@KD_FULL_BINDIR@, @KD_PREFIX@,
# ...), as DESTINATION/OUTPUT (OUTPUT.gz with COMPRESS). DESTINATION is relative
# to the prefix, absolute, AUTOSTART for the XDG autostart folder, POLKIT for
# polkit's actions or ZSH_COMPLETION for zsh's completion functions.
function(kd_install_configured template output destination)
  cmake_parse_arguments(K "COMPRESS" "COMPONENT" "" ${ARGN})
  if(NOT K_COMPONENT)
    set(K_COMPONENT ${KD_COMPONENT_PROGRAMS})
  endif()
  set(code "")
  foreach(name BINDIR LIBDIR INCLUDEDIR DATADIR DOCDIR MANDIR SYSCONFDIR)
    string(APPEND code "set(KD_DIR_${name} [==[${CMAKE_INSTALL_${name}}]==])\n")
  endforeach()
  if(K_COMPRESS)
    set(compress TRUE)
  else()
    set(compress FALSE)
  endif()
  string(APPEND code
         "set(KD_TEMPLATE [==[${template}]==])\n"
         "set(KD_OUTPUT [==[${output}]==])\n"
         "set(KD_DESTINATION [==[${destination}]==])\n"
         "set(KD_COMPRESS ${compress})\n"
         "set(KD_SYSCONFDIR_DEFAULT ${KD_SYSCONFDIR_DEFAULT})\n"
         "set(KD_VERSION [==[${PROJECT_VERSION}]==])\n"
         "set(KD_DEBIAN_RELEASE [==[${KD_DEBIAN_RELEASE}]==])\n"
         "set(KD_WORK_DIR [==[${PROJECT_BINARY_DIR}/install-configured]==])\n"
         "include([==[${PROJECT_SOURCE_DIR}/cmake/KdInstallConfigured.cmake]==])\n")
  install(CODE "${code}" COMPONENT ${K_COMPONENT})
endfunction()

# kd_install_program(TARGET): installs a program that links libKd.so.
# Installed, it looks for the library relative to itself ($ORIGIN), so that a
# private prefix works without LD_LIBRARY_PATH; under /usr, where the Debian
# packages install and the library lies in the linker's own folder, it carries
# no RPATH at all. In the build folder it looks in its own folder, then in the
# build folder.
#
# The build folder's RPATH is set here rather than left to CMake: CMake ends
# the RPATH it will edit at install time with empty entries (room for the
# installed value), and the loader reads an empty entry as the working
# folder, so that a program started in a card's folder would load libraries
# from there. The build folder is named with "/." added until it is as long
# as the installed value, which then takes its place.
#
# kd_install_program(TARGET [DESTINATION DIR]): installs TARGET into DIR (the
# program folder by default) with the RPATH that finds libKd.so from there.
function(kd_install_program target)
  cmake_parse_arguments(arg "" "DESTINATION" "" ${ARGN})
  if(NOT arg_DESTINATION)
    set(arg_DESTINATION "${CMAKE_INSTALL_BINDIR}")
  endif()
  if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
    set(installed "${CMAKE_INSTALL_LIBDIR}")
  elseif(IS_ABSOLUTE "${arg_DESTINATION}")
    set(installed "")
  else()
    file(RELATIVE_PATH installed "/prefix/${arg_DESTINATION}" "/prefix/${CMAKE_INSTALL_LIBDIR}")
    set(installed "$ORIGIN/${installed}")
  endif()
  # $ORIGIN first: a test copies a program and the library beside each other
  # where another user may run them.
  set(build "$ORIGIN:${PROJECT_BINARY_DIR}")
  string(LENGTH "${installed}" installed_length)
  string(LENGTH "${build}" build_length)
  while(build_length LESS installed_length)
    string(APPEND build "/.")
    math(EXPR build_length "${build_length} + 2")
  endwhile()
  set_target_properties(${target} PROPERTIES BUILD_WITH_INSTALL_RPATH ON INSTALL_RPATH "${build}")
  install(TARGETS ${target} RUNTIME DESTINATION ${arg_DESTINATION})
  if(IS_ABSOLUTE "${arg_DESTINATION}")
    set(folder "${arg_DESTINATION}")
  else()
    set(folder "\${CMAKE_INSTALL_PREFIX}/${arg_DESTINATION}")
  endif()
  set(file "\$ENV{DESTDIR}${folder}/$<TARGET_FILE_NAME:${target}>")
  install(CODE "
    if(CMAKE_INSTALL_PREFIX STREQUAL \"/usr\" OR [==[${installed}]==] STREQUAL \"\")
      file(RPATH_REMOVE FILE \"${file}\")
    else()
      file(RPATH_CHANGE FILE \"${file}\" OLD_RPATH [==[${build}]==]
           NEW_RPATH [==[${installed}]==])
    endif()")
endfunction()
