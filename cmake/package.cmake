# The workstation package: `cpack -G DEB` in the build folder makes kelputil's
# .deb from install component "client" (the tool, its man page and bash
# completion). The router's files, component "router", are installed with
# `cmake --install` into the firmware's tree instead.
include(GNUInstallDirs)

# Cross builds (whose tool runs only under an emulator) and router builds
# (KELP_CLIENT=OFF) make no workstation package.
if(TARGET kelputil AND NOT CMAKE_CROSSCOMPILING)
  install(FILES ${PROJECT_BINARY_DIR}/packaging/kelputil.bash-completion
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME kelputil COMPONENT client)

  # kelputil serve as a service: its unit, an example of its settings and
  # Prometheus alert rules for it.
  configure_file(${PROJECT_SOURCE_DIR}/packaging/kelputil-serve.service.in
    ${PROJECT_BINARY_DIR}/packaging/kelputil-serve.service @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/packaging/kelputil-serve.service
    DESTINATION lib/systemd/system COMPONENT client)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/serve.conf ${PROJECT_SOURCE_DIR}/packaging/kelputil-serve-alerts.yml
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/kelputil/examples COMPONENT client)

  # The Ansible collection kelp.router (ansible/), built as ansible-galaxy
  # builds it and installed as `ansible-galaxy collection install` lays it
  # out, where Debian's Ansible looks without configuration. Its version is
  # the project's.
  file(STRINGS ${PROJECT_SOURCE_DIR}/ansible/galaxy.yml kelp_galaxy_version REGEX "^version: ")
  if(NOT kelp_galaxy_version STREQUAL "version: ${PROJECT_VERSION}")
    message(FATAL_ERROR "ansible/galaxy.yml says '${kelp_galaxy_version}': make it 'version: ${PROJECT_VERSION}'")
  endif()
  set(kelp_collection_dir share/ansible/collections/ansible_collections/kelp/router)
  find_program(KELP_ANSIBLE_GALAXY ansible-galaxy)
  if(KELP_ANSIBLE_GALAXY)
    set(tarball ${PROJECT_BINARY_DIR}/packaging/kelp-router-${PROJECT_VERSION}.tar.gz)
    file(GLOB_RECURSE collection_files CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/ansible/*)
    list(FILTER collection_files EXCLUDE REGEX "/__pycache__/|\\.pyc$|/tests/output/")
    add_custom_command(OUTPUT ${tarball}
      COMMAND ${KELP_ANSIBLE_GALAXY} collection build --force --output-path ${PROJECT_BINARY_DIR}/packaging
              ${PROJECT_SOURCE_DIR}/ansible > /dev/null
      DEPENDS ${collection_files}
      VERBATIM)
    add_custom_target(kelp_ansible_collection ALL DEPENDS ${tarball})
    install(CODE "file(ARCHIVE_EXTRACT INPUT \"${tarball}\"
                       DESTINATION \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${kelp_collection_dir}\")"
      COMPONENT client)
  else()
    message(WARNING "ansible-galaxy not found: the kelputil package gets the collection as its source tree")
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/ansible/ DESTINATION ${kelp_collection_dir} COMPONENT client
      PATTERN __pycache__ EXCLUDE PATTERN tests/output EXCLUDE)
  endif()

  # The man page is written as a page (docs/kelputil.1.scd), not taken from
  # --help: it has the inventory, patterns, files and examples --help lacks.
  find_program(KELP_SCDOC scdoc)
  find_program(KELP_GZIP gzip)
  if(KELP_SCDOC AND KELP_GZIP)
    set(man ${PROJECT_BINARY_DIR}/packaging/kelputil.1)
    configure_file(${PROJECT_SOURCE_DIR}/docs/kelputil.1.scd ${man}.scd @ONLY)
    add_custom_command(OUTPUT ${man}.gz
      COMMAND sh -c "\"$1\" <\"$2\" >\"$3\"" sh ${KELP_SCDOC} ${man}.scd ${man}
      COMMAND ${KELP_GZIP} -9nf ${man}
      DEPENDS ${man}.scd
      VERBATIM)
    add_custom_target(kelputil_man ALL DEPENDS ${man}.gz)
    install(FILES ${man}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT client)
  else()
    message(WARNING "scdoc or gzip not found: the kelputil package gets no man page")
  endif()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL client)
set(CPACK_DEBIAN_CLIENT_PACKAGE_NAME kelputil)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_CLIENT_PACKAGE_SECTION net)
set(CPACK_COMPONENT_CLIENT_DESCRIPTION "management client for kelputild routers
kelputil backs up and restores a router's configuration, exchanges its
scripts, reads its reports and session lists, kicks sessions, uploads
firmware and measures throughput, on one router or a fleet of them.
The Ansible collection kelp.router drives the routers through it.")
set(KELP_PACKAGE_MAINTAINER "kelp developer <dev@kelp.example>" CACHE STRING
  "Maintainer named by the kelputil package")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${KELP_PACKAGE_MAINTAINER}")
# Depends from the libraries the tool links (dpkg-shlibdeps).
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
include(CPack)
