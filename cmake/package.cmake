# The workstation package: `cpack -G DEB` in the build folder makes kelputil's
# .deb from install component "client" (the tool, its man page and bash
# completion). The router's files, component "router", are installed with
# `cmake --install` into the firmware's tree instead.
include(GNUInstallDirs)

# Cross builds (whose tool runs only under an emulator) and router builds
# (KELP_CLIENT=OFF) make no workstation package.
if(TARGET kelputil AND NOT CMAKE_CROSSCOMPILING)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/kelputil.bash-completion
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME kelputil COMPONENT client)

  # kelputil serve as a service: its unit, an example of its settings and
  # Prometheus alert rules for it.
  configure_file(${PROJECT_SOURCE_DIR}/packaging/kelputil-serve.service.in
    ${PROJECT_BINARY_DIR}/packaging/kelputil-serve.service @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/packaging/kelputil-serve.service
    DESTINATION lib/systemd/system COMPONENT client)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/serve.conf ${PROJECT_SOURCE_DIR}/packaging/kelputil-serve-alerts.yml
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/kelputil/examples COMPONENT client)

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
firmware and measures throughput, on one router or a fleet of them.")
set(KELP_PACKAGE_MAINTAINER "kelp developer <dev@kelp.example>" CACHE STRING
  "Maintainer named by the kelputil package")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${KELP_PACKAGE_MAINTAINER}")
# Depends from the libraries the tool links (dpkg-shlibdeps).
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
include(CPack)
