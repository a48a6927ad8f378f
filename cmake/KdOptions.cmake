# Warnings and sanitizers as interface targets that every project target links.
add_library(kd_options INTERFACE)
target_compile_features(kd_options INTERFACE cxx_std_20)
target_compile_options(kd_options INTERFACE -Wall -Wextra -Wpedantic -Wno-unused-parameter)
target_compile_definitions(kd_options INTERFACE KD_VERSION="${PROJECT_VERSION}" _GNU_SOURCE)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  # Every access to a member marked KD_GUARDED_BY holds its lock
  # (common/ThreadAnnotations.h); the fuzz pass builds the libraries with clang.
  target_compile_options(kd_options INTERFACE -Wthread-safety -Werror=thread-safety)
endif()
if(KD_SANITIZE)
  # A finding fails the test that caused it instead of scrolling past.
  target_compile_options(kd_options INTERFACE -fsanitize=${KD_SANITIZE} -fno-sanitize-recover=all
                                              -fno-omit-frame-pointer -g)
  target_link_options(kd_options INTERFACE -fsanitize=${KD_SANITIZE})
endif()
if(KD_BUILD_FUZZ)
  # Coverage for the fuzzers in every library; the fuzz targets link libFuzzer.
  target_compile_options(kd_options INTERFACE -fsanitize=fuzzer-no-link)
endif()

# kd_component(NAME SOURCES... DEPS ...): one static library per subsystem so
# that a subsystem builds and tests on its own.
function(kd_component name)
  cmake_parse_arguments(K "" "" "SOURCES;DEPS" ${ARGN})
  if(K_SOURCES)
    add_library(${name} STATIC ${K_SOURCES})
    # Their objects also make the shared library, which exports only what the
    # public headers mark KD_EXPORT (src/KdExport.h).
    set_target_properties(${name} PROPERTIES CXX_VISIBILITY_PRESET hidden C_VISIBILITY_PRESET hidden)
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(${name} PUBLIC kd_options ${K_DEPS})
  else()
    add_library(${name} INTERFACE)
    target_include_directories(${name} INTERFACE ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(${name} INTERFACE kd_options ${K_DEPS})
  endif()
endfunction()

# kd_test(NAME SOURCES... DEPS ... LABELS ...): a gtest executable whose cases
# are registered with CTest under the given labels (unit, root, slow).
function(kd_test name)
  cmake_parse_arguments(K "" "" "SOURCES;DEPS;LABELS" ${ARGN})
  add_executable(${name} ${K_SOURCES})
  set_property(GLOBAL APPEND PROPERTY KD_TEST_TARGETS ${name})
  target_link_libraries(${name} PRIVATE kd_test_support ${K_DEPS} GTest::gtest GTest::gmock)
  if(NOT K_LABELS)
    set(K_LABELS unit)
  endif()
  # Root tests mount file systems and watch the mount table: run them one at a
  # time so that one test's mounts do not show up in another's.
  set(lock "")
  if("root" IN_LIST K_LABELS)
    set(lock RESOURCE_LOCK mount_table)
  endif()
  gtest_discover_tests(${name} PROPERTIES LABELS "${K_LABELS}" ${lock} DISCOVERY_TIMEOUT 60)
endfunction()
