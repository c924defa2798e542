# Install rules, the CMake package, pkg-config files and the Debian packages.
#
# Included at the end of the top-level CMakeLists.txt, after every subdirectory, so that rules
# for programs (the daemon, the operator's tool) apply only when their targets exist.
#
# Components (one Debian package each, see cmake/packaging.cmake):
#   sysmgr    libhadra_sysmgr.so.0              -> libhadra-sysmgr0
#   platform  libhadra_platform.so.0            -> libhadra-platform0
#   dev       headers, .so links, CMake package, pkg-config files, docs -> libhadra-dev
#   daemon    hadra-sysmgrd, hadra, the systemd unit, sample configuration -> hadra-sysmgrd
#
# Paths that name the install prefix (pkg-config files, the unit's ExecStart) are written at
# install time, so `cmake --install --prefix P` and the packages (prefix /usr) both get theirs.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(HADRA_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/hadra")
set(HADRA_PKGCONFIG_DIR "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
set(HADRA_SYSTEMD_UNIT_DIR "lib/systemd/system" CACHE STRING
  "Where the systemd unit goes, relative to the install prefix or absolute")
set(HADRA_EXAMPLES_DIR "${CMAKE_INSTALL_DOCDIR}/examples")
set(_gen "${CMAKE_CURRENT_BINARY_DIR}/install-gen")
set(_src "${CMAKE_CURRENT_LIST_DIR}")

# ---- The two libraries ----
# In the build tree the targets use the source folders; installed, both header trees sit
# side by side under <prefix>/include (hadra/ and hadra_platform/). The platform's testing
# header folder is for our own tests only and is never installed.
foreach(t hadra_sysmgr hadra_platform_shared)
  get_target_property(_dirs ${t} INTERFACE_INCLUDE_DIRECTORIES)
  set_target_properties(${t} PROPERTIES INTERFACE_INCLUDE_DIRECTORIES "$<BUILD_INTERFACE:${_dirs}>")
  target_include_directories(${t} INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
endforeach()
set_target_properties(hadra_sysmgr PROPERTIES EXPORT_NAME sysmgr)
set_target_properties(hadra_platform_shared PROPERTIES EXPORT_NAME platform)
# The library leaves its platform calls undefined; a program that links it must carry a
# platform. Installed, hadra::sysmgr brings ours, as hadra.pc does.
target_link_libraries(hadra_sysmgr INTERFACE $<INSTALL_INTERFACE:hadra::platform>)

install(TARGETS hadra_sysmgr EXPORT hadraTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT sysmgr NAMELINK_COMPONENT dev)
install(TARGETS hadra_platform_shared EXPORT hadraTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT platform NAMELINK_COMPONENT dev)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/hadra
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev FILES_MATCHING PATTERN "*.h")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/include/hadra_platform
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev FILES_MATCHING PATTERN "*.h")

# ---- CMake package: find_package(hadra CONFIG [COMPONENTS sysmgr platform]) ----
install(EXPORT hadraTargets NAMESPACE hadra:: DESTINATION ${HADRA_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(${_src}/hadraConfig.cmake.in ${_gen}/hadraConfig.cmake
  INSTALL_DESTINATION ${HADRA_CMAKE_DIR})
# The soname stays 0 while the major version is 0: a request for 0.y is met by an installed
# 0.x with x >= y, never by 1.x.
write_basic_package_version_file(${_gen}/hadraConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${_gen}/hadraConfig.cmake ${_gen}/hadraConfigVersion.cmake
  DESTINATION ${HADRA_CMAKE_DIR} COMPONENT dev)

# ---- Files whose text names the install prefix, written when installing ----
# hadra_install_configured(<template> <destination dir> <component>)
# The template's @prefix@, @libdir@, @includedir@, @sbindir@, @bindir@, @docdir@, @version@ become the
# paths of the prefix being installed to; @pc_libdir@ and the like are the same paths written
# as pkg-config wants them (${prefix}/lib). The file is written to a scratch name of its own,
# so that two installs from one build tree at once (the tests do) cannot mix their texts.
function(hadra_install_configured template destination component)
  get_filename_component(name ${template} NAME)
  string(REGEX REPLACE "\\.in$" "" name "${name}")
  set(script "${_gen}/${component}-${name}.cmake")
  file(WRITE ${script} "
set(prefix \"\${CMAKE_INSTALL_PREFIX}\")
foreach(v libdir:${CMAKE_INSTALL_LIBDIR} includedir:${CMAKE_INSTALL_INCLUDEDIR}
          sbindir:${CMAKE_INSTALL_SBINDIR} bindir:${CMAKE_INSTALL_BINDIR} docdir:${CMAKE_INSTALL_DOCDIR}
          dest:${destination})
  string(REPLACE \":\" \";\" v \"\${v}\")
  list(GET v 0 var)
  list(GET v 1 dir)
  set(pc_\${var} \"\${dir}\")
  if(NOT IS_ABSOLUTE \"\${dir}\")
    set(pc_\${var} \"\\\${prefix}/\${dir}\")
    set(dir \"\${prefix}/\${dir}\")
  endif()
  set(\${var} \"\${dir}\")
endforeach()
set(version \"${PROJECT_VERSION}\")
string(RANDOM LENGTH 12 tag)
set(scratch \"${_gen}/scratch-\${tag}\")
configure_file(\"${template}\" \"\${scratch}/${name}\" @ONLY)
file(INSTALL DESTINATION \"\${dest}\" TYPE FILE FILES \"\${scratch}/${name}\")
file(REMOVE_RECURSE \"\${scratch}\")
")
  install(SCRIPT ${script} COMPONENT ${component})
endfunction()

# pkg-config: hadra.pc (library and our platform) and hadra-platform.pc (the platform alone).
hadra_install_configured(${_src}/hadra.pc.in ${HADRA_PKGCONFIG_DIR} dev)
hadra_install_configured(${_src}/hadra-platform.pc.in ${HADRA_PKGCONFIG_DIR} dev)

# ---- Documentation ----
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT dev)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT dev
  FILES_MATCHING PATTERN "*.md")
include(${_src}/reference.cmake)

# ---- The daemon, the operator's tool, the systemd unit, sample configuration ----
if(TARGET hadra-sysmgrd)
  install(TARGETS hadra-sysmgrd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT daemon)
  # Written as installed; the Debian packages compress it (packaging/deb-docs.cmake).
  install(FILES ${PROJECT_SOURCE_DIR}/dist/man/hadra-sysmgrd.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8
    COMPONENT daemon)
endif()
if(TARGET hadra)
  install(TARGETS hadra RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT daemon)
endif()
hadra_install_configured(${PROJECT_SOURCE_DIR}/dist/hadra-sysmgrd@.service.in
  ${HADRA_SYSTEMD_UNIT_DIR} daemon)
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT daemon)
install(FILES ${PROJECT_SOURCE_DIR}/dist/platform.conf.example ${PROJECT_SOURCE_DIR}/dist/sysmgrd.env.example
  DESTINATION ${HADRA_EXAMPLES_DIR} COMPONENT daemon)
# The role sources across two hosts: keepalived's notify script where the sample configuration
# calls it, and the Pacemaker resource agent where OCF agents live (provider "hadra").
install(PROGRAMS ${PROJECT_SOURCE_DIR}/dist/keepalived/hadra-notify DESTINATION lib/hadra COMPONENT daemon)
install(FILES ${PROJECT_SOURCE_DIR}/dist/keepalived/keepalived.conf DESTINATION ${HADRA_EXAMPLES_DIR}/keepalived
  COMPONENT daemon)
install(PROGRAMS ${PROJECT_SOURCE_DIR}/dist/ocf/hadra DESTINATION lib/ocf/resource.d/hadra COMPONENT daemon)

include(${_src}/packaging.cmake)

# ---- Tests of the installed tree and the packages (tests/install/) ----
if(HADRA_BUILD_TESTS)
  # The platform library that services load exports its C interface and no testing call;
  # the testing build of it exports both.
  add_test(NAME platform_exports
    COMMAND ${PROJECT_SOURCE_DIR}/tests/install/check_platform_exports.sh ${PROJECT_SOURCE_DIR}
            $<TARGET_FILE:hadra_platform_shared> $<TARGET_FILE:hadra_platform_testing>)
  add_test(NAME install_consumers
    COMMAND ${PROJECT_SOURCE_DIR}/tests/install/install_test.sh ${PROJECT_BINARY_DIR} "${HADRA_SANITIZE}")
  set_tests_properties(install_consumers PROPERTIES TIMEOUT 300)
  # The packages are what the normal build ships; a sanitizer build is not packaged.
  if(NOT HADRA_SANITIZE)
    add_test(NAME deb_packages COMMAND ${PROJECT_SOURCE_DIR}/tests/install/deb_test.sh ${PROJECT_BINARY_DIR})
    set_tests_properties(deb_packages PROPERTIES TIMEOUT 600 SKIP_RETURN_CODE 77)
  endif()
  # docs/tutorial.md as a reader follows it (tests/tutorial/): its service built against the
  # installed tree and run on two supervisors through a takeover; and its quoted code is
  # the code of examples/tutorial/.
  add_test(NAME tutorial
    COMMAND ${PROJECT_SOURCE_DIR}/tests/tutorial/tutorial_test.sh ${PROJECT_BINARY_DIR} "${HADRA_SANITIZE}")
  set_tests_properties(tutorial PROPERTIES TIMEOUT 400)
  add_test(NAME tutorial_code_in_docs COMMAND ${PROJECT_SOURCE_DIR}/tests/tutorial/check_docs.sh ${PROJECT_SOURCE_DIR})
endif()
