# Debian packages from the build tree (CPack, DEB generator): `cpack -G DEB` in the build
# directory (packages in <build>/packages). One package per install component:
#   libhadra-sysmgr0    the library          (Depends: libhadra-platform0 of the same version)
#   libhadra-platform0  the platform
#   libhadra-dev        headers, .so links, CMake package, pkg-config files, docs, reference
#   hadra-sysmgrd       the daemon and the hadra tool (when built), the systemd unit, examples
# Debian's per-package documentation (copyright, changelog) is added by
# packaging/deb-docs.cmake just before each package is assembled.
set(HADRA_DEB_RELEASE 1 CACHE STRING "Debian revision of the packages")

set(CPACK_PACKAGE_NAME hadra)
set(CPACK_PACKAGE_VENDOR "hadra developers")
set(CPACK_PACKAGE_CONTACT "hadra developers <hadra-dev@hadra.invalid>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DIRECTORY "${PROJECT_BINARY_DIR}/packages")
set(CPACK_COMPONENTS_ALL sysmgr platform dev daemon)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${HADRA_DEB_RELEASE})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Programs of the daemon package link our libraries: dpkg-shlibdeps finds them in the build
# tree, and the package that holds each in packaging/deb-docs.cmake's shlibs.local.
if(CMAKE_LIBRARY_OUTPUT_DIRECTORY)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${CMAKE_LIBRARY_OUTPUT_DIRECTORY}")
else()
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}")
endif()
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PRE_BUILD_SCRIPTS "${PROJECT_SOURCE_DIR}/packaging/deb-docs.cmake")
set(_hadra_deb_version "${PROJECT_VERSION}-${HADRA_DEB_RELEASE}")
set(_hadra_long "hadra keeps the state of a service on two supervisors, one active and one\nstandby, so that it survives a switchover.")

# Library packages: a shlibs file (what dpkg-shlibdeps of a program linking the library puts
# in its Depends) and an ldconfig trigger in place of maintainer scripts.
foreach(lib sysmgr platform)
  set(_shlibs "${PROJECT_BINARY_DIR}/install-gen/deb/libhadra-${lib}0/shlibs")
  file(WRITE ${_shlibs} "libhadra_${lib} 0 libhadra-${lib}0 (>= ${_hadra_deb_version})\n")
  string(TOUPPER ${lib} _c)
  set(CPACK_DEBIAN_${_c}_PACKAGE_CONTROL_EXTRA "${_shlibs};${PROJECT_SOURCE_DIR}/packaging/deb/triggers"
    "${PROJECT_SOURCE_DIR}/packaging/deb/lib/postinst;${PROJECT_SOURCE_DIR}/packaging/deb/lib/postrm")
endforeach()

set(CPACK_DEBIAN_SYSMGR_PACKAGE_NAME libhadra-sysmgr0)
set(CPACK_DEBIAN_SYSMGR_PACKAGE_SECTION libs)
# Its platform calls resolve at load time from the platform the process carries.
set(CPACK_DEBIAN_SYSMGR_PACKAGE_DEPENDS "libhadra-platform0 (= ${_hadra_deb_version})")
set(CPACK_DEBIAN_SYSMGR_DESCRIPTION "hadra state replication - library\n${_hadra_long}\n\nThis package holds libhadra_sysmgr, the library a service loads.")

set(CPACK_DEBIAN_PLATFORM_PACKAGE_NAME libhadra-platform0)
set(CPACK_DEBIAN_PLATFORM_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PLATFORM_DESCRIPTION "hadra state replication - platform library\n${_hadra_long}\n\nThis package holds libhadra_platform: PSS and SDB stores on LMDB, message\ntransport on ZeroMQ, system manager client, logging.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libhadra-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "libhadra-sysmgr0 (= ${_hadra_deb_version}), libhadra-platform0 (= ${_hadra_deb_version})")
set(CPACK_DEBIAN_DEV_DESCRIPTION "hadra state replication - development files\n${_hadra_long}\n\nThis package holds the C headers, the CMake package (find_package(hadra)),\nthe pkg-config files (hadra, hadra-platform) and the reference pages.")

set(CPACK_DEBIAN_DAEMON_PACKAGE_NAME hadra-sysmgrd)
set(CPACK_DEBIAN_DAEMON_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_DAEMON_PACKAGE_CONTROL_EXTRA
  "${PROJECT_SOURCE_DIR}/packaging/deb/hadra-sysmgrd/postinst;${PROJECT_SOURCE_DIR}/packaging/deb/hadra-sysmgrd/postrm")
set(CPACK_DEBIAN_DAEMON_DESCRIPTION "hadra state replication - system manager\n${_hadra_long}\n\nThis package holds the system-manager daemon of a supervisor with its systemd\nunit (hadra-sysmgrd@<slot>.service) and the operator's tool.")

# Read by packaging/deb-docs.cmake.
set(CPACK_HADRA_SOURCE_DIR "${PROJECT_SOURCE_DIR}")
set(CPACK_HADRA_DOCDIR "${CMAKE_INSTALL_DOCDIR}")
set(CPACK_HADRA_DEB_VERSION "${_hadra_deb_version}")
include(CPack)
