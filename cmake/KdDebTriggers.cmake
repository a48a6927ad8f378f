# Run by CPack once the packages are built (CPACK_POST_BUILD_SCRIPTS). The
# shared library's package lets dpkg's ldconfig trigger refresh the linker's
# cache, as Debian's library packages do, instead of maintainer scripts that
# call ldconfig themselves (all that CPack knows to write): the package is
# rebuilt with a triggers file in place of those scripts.
foreach(deb IN LISTS CPACK_PACKAGE_FILES)
  get_filename_component(name "${deb}" NAME)
  if(NOT name MATCHES "^${CPACK_KD_LIBRARY_PACKAGE}_.*\\.deb$")
    continue()
  endif()
  set(tree "${deb}.tree")
  file(REMOVE_RECURSE "${tree}")
  execute_process(COMMAND dpkg-deb -R "${deb}" "${tree}" RESULT_VARIABLE failed)
  if(failed)
    message(FATAL_ERROR "dpkg-deb -R ${deb} failed")
  endif()
  file(REMOVE "${tree}/DEBIAN/postinst" "${tree}/DEBIAN/postrm")
  file(WRITE "${tree}/DEBIAN/triggers" "activate-noawait ldconfig\n")
  execute_process(COMMAND dpkg-deb --root-owner-group -b "${tree}" "${deb}"
                  OUTPUT_QUIET RESULT_VARIABLE failed)
  file(REMOVE_RECURSE "${tree}")
  if(failed)
    message(FATAL_ERROR "dpkg-deb -b ${deb} failed")
  endif()
endforeach()
