# The library for other applications: one shared library, libKd.so, made of
# every subsystem library that the in-tree interface target `Kd` lists, with
# the public headers under include/kd/. Installed with a CMake package (Kd::Kd)
# and a pkg-config file (kd). The project's warning and sanitizer options stay
# private: the exported target carries only its include folders and C++20.
include(CMakePackageConfigHelpers)

get_target_property(kd_parts Kd INTERFACE_LINK_LIBRARIES)
set(kd_archives "")
foreach(part ${kd_parts})
  if(TARGET ${part})
    get_target_property(type ${part} TYPE)
    if(type STREQUAL "STATIC_LIBRARY")
      list(APPEND kd_archives ${part})
    endif()
  endif()
endforeach()

add_library(kd_shared SHARED)
target_sources(kd_shared PRIVATE ${PROJECT_SOURCE_DIR}/src/KdLibrary.cpp)
set_target_properties(kd_shared PROPERTIES
  OUTPUT_NAME Kd
  EXPORT_NAME Kd
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR})
# Every object of the subsystems goes in, used here or not; linking the
# subsystem libraries as well brings their own dependencies. The link fails
# when a symbol is left undefined.
foreach(part ${kd_archives})
  target_sources(kd_shared PRIVATE $<TARGET_OBJECTS:${part}>)
endforeach()
target_link_libraries(kd_shared PRIVATE kd_options ${kd_archives})
target_link_options(kd_shared PRIVATE -Wl,--no-undefined)
target_compile_features(kd_shared PUBLIC cxx_std_20)
# Users include <kd/...>: only the installed include folder is on their path,
# so that the library's folder names (common/, log/) are not. The public
# headers include each other by paths relative to themselves, which hold in
# the source tree and under include/kd alike.
target_include_directories(kd_shared PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src>
                                            $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
# Exports only what the public headers mark KD_EXPORT.
set_target_properties(kd_shared PROPERTIES CXX_VISIBILITY_PRESET hidden)
add_library(Kd::Kd ALIAS kd_shared)

# The library itself (libKd.so.1 and the file it names) goes to the library's
# package, the link-time name libKd.so to the development package.
install(TARGETS kd_shared EXPORT KdTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${KD_COMPONENT_LIBRARY}
                NAMELINK_COMPONENT ${KD_COMPONENT_DEV}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${KD_COMPONENT_DEV}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ${KD_COMPONENT_LIBRARY})

# The public headers, with their folders: <kd/files/KdFileManager.h>. Besides
# the classes of the subsystems, the card offload and folder verification with
# their hash lists (files/offload/, HashKinds.h, mhl/) and the small
# utilities they and the programs use (dates, paths, UTF-8, the read-ahead
# reader, the shared settings file). The rest (platform implementations, the
# mount table, the work queue, the offload's internals and transfer reports,
# test hooks) stays private; a public header includes only public ones.
set(KD_PUBLIC_HEADERS
    KdExport.h
    auth/KdAuthorization.h
    common/DateText.h
    common/Error.h
    common/FileOwner.h
    common/Path.h
    common/PropertyList.h
    common/ReadAhead.h
    common/SettingsFile.h
    common/ThreadAnnotations.h
    common/UniqueFd.h
    common/Utf8.h
    crash/KdBugReporter.h
    files/HashKinds.h
    files/copy/FileDigest.h
    files/mhl/MhlHistory.h
    files/mhl/MhlManifest.h
    files/offload/FolderVerify.h
    files/KdDelegates.h
    files/KdDigestContext.h
    files/KdFileManager.h
    files/offload/Offload.h
    helper/FerrimoVolumeChecker.h
    log/Format.h
    log/KdException.h
    log/KdLog.h
    paths/KdCmdUtils.h
    paths/KdLocalPaths.h
    paths/UserFiles.h
    platform/Desktop.h
    platform/FileMetadata.h
    platform/Platform.h
    platform/Privilege.h
    platform/Volumes.h
    tasks/KdTask.h
    tasks/KdTaskEx.h)
foreach(header ${KD_PUBLIC_HEADERS})
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES ${PROJECT_SOURCE_DIR}/src/${header}
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kd/${folder}
          COMPONENT ${KD_COMPONENT_DEV})
endforeach()

set(KD_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Kd)
install(EXPORT KdTargets NAMESPACE Kd:: DESTINATION ${KD_CMAKE_DIR} COMPONENT ${KD_COMPONENT_DEV})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/KdConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/KdConfig.cmake
                              INSTALL_DESTINATION ${KD_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KdConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KdConfig.cmake ${PROJECT_BINARY_DIR}/KdConfigVersion.cmake
        DESTINATION ${KD_CMAKE_DIR} COMPONENT ${KD_COMPONENT_DEV})
kd_install_configured(${PROJECT_SOURCE_DIR}/cmake/kd.pc.in kd.pc
                      ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT ${KD_COMPONENT_DEV})
