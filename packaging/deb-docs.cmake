# Run by CPack after it has installed each component into its staging tree and before the
# Debian packages are assembled. Debian wants every package's documentation under
# /usr/share/doc/<package>, with a copyright file and a compressed changelog; a source install
# keeps all of it under <docdir> (share/doc/hadra), so each package's part moves there.
# It also tells dpkg-shlibdeps, which CPack runs on each package holding programs or
# libraries, which package provides our own libraries (they are in no installed package yet).
# debian/shlibs.local in a staging tree is read by dpkg-shlibdeps there; CPack removes the
# debian/ folder after running it, but only in trees with ELF files, so only those get one.
function(hadra_shlibs_local tree)
  file(GLOB_RECURSE files LIST_DIRECTORIES false "${tree}/*")
  foreach(f IN LISTS files)
    if(NOT IS_SYMLINK "${f}")
      file(READ "${f}" magic LIMIT 4 HEX)
      if(magic STREQUAL "7f454c46")
        file(WRITE "${tree}/debian/shlibs.local"
          "libhadra_sysmgr 0 libhadra-sysmgr0 (= ${CPACK_HADRA_DEB_VERSION})\n"
          "libhadra_platform 0 libhadra-platform0 (= ${CPACK_HADRA_DEB_VERSION})\n")
        return()
      endif()
    endif()
  endforeach()
endfunction()

set(_packages sysmgr:libhadra-sysmgr0 platform:libhadra-platform0 dev:libhadra-dev daemon:hadra-sysmgrd)
foreach(pair IN LISTS _packages)
  string(REPLACE ":" ";" pair "${pair}")
  list(GET pair 0 component)
  list(GET pair 1 package)
  set(usr "${CPACK_TEMPORARY_DIRECTORY}/${component}${CPACK_PACKAGING_INSTALL_PREFIX}")
  if(NOT IS_DIRECTORY "${CPACK_TEMPORARY_DIRECTORY}/${component}")
    message(FATAL_ERROR "deb-docs: no staging tree for component ${component} in ${CPACK_TEMPORARY_DIRECTORY}")
  endif()
  set(docdir "${usr}/share/doc/${package}")
  if(IS_DIRECTORY "${usr}/${CPACK_HADRA_DOCDIR}")
    file(RENAME "${usr}/${CPACK_HADRA_DOCDIR}" "${docdir}")
  endif()
  file(MAKE_DIRECTORY "${docdir}")
  # Files that name the documentation folder follow it.
  file(GLOB units "${usr}/lib/systemd/system/*.service")
  foreach(unit IN LISTS units)
    file(READ "${unit}" text)
    string(REPLACE "${CPACK_PACKAGING_INSTALL_PREFIX}/${CPACK_HADRA_DOCDIR}/" "${CPACK_PACKAGING_INSTALL_PREFIX}/share/doc/${package}/"
      text "${text}")
    file(WRITE "${unit}" "${text}")
  endforeach()
  file(COPY_FILE "${CPACK_HADRA_SOURCE_DIR}/packaging/copyright" "${docdir}/copyright")
  set(PACKAGE "${package}")
  set(VERSION "${CPACK_HADRA_DEB_VERSION}")
  configure_file("${CPACK_HADRA_SOURCE_DIR}/packaging/changelog.Debian.in" "${docdir}/changelog.Debian" @ONLY)
  # -n: no name or time stamp inside, so the same tree gives the same package.
  execute_process(COMMAND gzip -9nf "${docdir}/changelog.Debian" RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "deb-docs: gzip of ${docdir}/changelog.Debian failed: ${rc}")
  endif()
  # Debian ships manual pages compressed.
  file(GLOB_RECURSE pages LIST_DIRECTORIES false "${usr}/share/man/*.[1-9]")
  foreach(page IN LISTS pages)
    execute_process(COMMAND gzip -9nf "${page}" RESULT_VARIABLE rc)
    if(NOT rc EQUAL 0)
      message(FATAL_ERROR "deb-docs: gzip of ${page} failed: ${rc}")
    endif()
  endforeach()
  hadra_shlibs_local("${CPACK_TEMPORARY_DIRECTORY}/${component}")
  file(CHMOD "${docdir}/copyright" "${docdir}/changelog.Debian.gz"
    PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
endforeach()
