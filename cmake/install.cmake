# Installation beyond the daemon itself (src/CMakeLists.txt installs it to
# sbin): the TLS-mode name and the supervisor files that keep both running.
# All of it is the router's: install component "router" (the workstation's
# client is component "client", see package.cmake).
include(GNUInstallDirs)

set(KELP_SUPERVISORS "busybox;procd;systemd" CACHE STRING
  "Supervisor files to install: any of busybox, procd, systemd")
set(KELP_SYSTEMD_UNIT_DIR "lib/systemd/system" CACHE STRING
  "Where the systemd units go (relative to the prefix or absolute)")
# GNUInstallDirs maps the prefix /usr to /etc here, as a router expects.
set(KELP_INITD_DIR "${CMAKE_INSTALL_FULL_SYSCONFDIR}/init.d" CACHE STRING
  "Where the procd init script goes")
set(KELP_DATA_DIR "${CMAKE_INSTALL_DATADIR}/kelputild" CACHE STRING
  "Where the busybox inittab fragment goes")
# The daemon prints every password it receives on standard output: by default
# the supervisors discard it.
option(KELP_DAEMON_STDOUT_TO_LOG
  "Supervisors send the daemon's standard output (clear passwords) to the log" OFF)

# Same directory as the daemon's own install rule. The supervisor files name
# the programs by this configure-time path.
set(KELP_SBIN_DIR "${CMAKE_INSTALL_PREFIX}/sbin")

# Any name other than kelputild selects TLS mode on port 857.
install(CODE "
  if(NOT CMAKE_INSTALL_PREFIX STREQUAL \"${CMAKE_INSTALL_PREFIX}\")
    message(WARNING \"The supervisor files name ${KELP_SBIN_DIR}: configure with -DCMAKE_INSTALL_PREFIX=\${CMAKE_INSTALL_PREFIX} instead of --prefix\")
  endif()
  set(link \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/sbin/kelputild-tls\")
  message(STATUS \"Installing: \${link} -> kelputild\")
  get_filename_component(dir \"\${link}\" DIRECTORY)
  file(MAKE_DIRECTORY \"\${dir}\")
  file(CREATE_LINK kelputild \"\${link}\" SYMBOLIC)
" COMPONENT router)

set(kelp_packaging_out "${PROJECT_BINARY_DIR}/packaging")
if(KELP_DAEMON_STDOUT_TO_LOG)
  set(KELP_SYSTEMD_STDOUT journal)
  set(KELP_PROCD_STDOUT 1)
  set(KELP_INITTAB_STDOUT "syslog")
  set(KELP_INITTAB_PLAIN "/bin/sh -c '${KELP_SBIN_DIR}/kelputild | logger -t kelputild'")
  set(KELP_INITTAB_TLS "/bin/sh -c '${KELP_SBIN_DIR}/kelputild-tls | logger -t kelputild-tls'")
else()
  set(KELP_SYSTEMD_STDOUT null)
  set(KELP_PROCD_STDOUT 0)
  set(KELP_INITTAB_STDOUT "/dev/null")
  set(KELP_INITTAB_PLAIN "/bin/sh -c 'exec ${KELP_SBIN_DIR}/kelputild >/dev/null'")
  set(KELP_INITTAB_TLS "/bin/sh -c 'exec ${KELP_SBIN_DIR}/kelputild-tls >/dev/null'")
endif()
if("busybox" IN_LIST KELP_SUPERVISORS)
  configure_file(${PROJECT_SOURCE_DIR}/packaging/inittab.in "${kelp_packaging_out}/inittab" @ONLY)
  install(FILES "${kelp_packaging_out}/inittab" DESTINATION "${KELP_DATA_DIR}" COMPONENT router)
endif()
if("procd" IN_LIST KELP_SUPERVISORS)
  configure_file(${PROJECT_SOURCE_DIR}/packaging/kelputild.init.in "${kelp_packaging_out}/kelputild.init" @ONLY)
  install(PROGRAMS "${kelp_packaging_out}/kelputild.init" DESTINATION "${KELP_INITD_DIR}"
    RENAME kelputild COMPONENT router)
endif()
if("systemd" IN_LIST KELP_SUPERVISORS)
  foreach(unit kelputild.service kelputild-tls.service)
    configure_file(${PROJECT_SOURCE_DIR}/packaging/${unit}.in "${kelp_packaging_out}/${unit}" @ONLY)
    install(FILES "${kelp_packaging_out}/${unit}" DESTINATION "${KELP_SYSTEMD_UNIT_DIR}" COMPONENT router)
  endforeach()
endif()
