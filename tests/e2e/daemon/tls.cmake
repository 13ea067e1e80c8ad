# For tls_test.cpp: openssl as the independent client and fingerprint oracle,
# and a daemon built with a firmware builder's own pair, generated here.
find_program(KELP_OPENSSL openssl REQUIRED)
set(kelp_pair ${CMAKE_CURRENT_BINARY_DIR}/custom_pair)
add_custom_command(OUTPUT ${kelp_pair}/cert.pem ${kelp_pair}/key.pem ${kelp_pair}/cert.sha256
  COMMAND ${CMAKE_COMMAND} -E make_directory ${kelp_pair}
  COMMAND ${KELP_OPENSSL} genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out ${kelp_pair}/key.pem
  COMMAND ${KELP_OPENSSL} req -x509 -new -key ${kelp_pair}/key.pem -sha256 -days 3650
          -subj "/CN=firmware builder test" -out ${kelp_pair}/cert.pem
  COMMAND ${KELP_OPENSSL} x509 -in ${kelp_pair}/cert.pem -noout -fingerprint -sha256 -out ${kelp_pair}/cert.sha256
  VERBATIM)
add_custom_command(OUTPUT ${kelp_pair}/tls_pair.cpp
  COMMAND ${CMAKE_COMMAND} -DCERT=${kelp_pair}/cert.pem -DKEY=${kelp_pair}/key.pem -DOUT=${kelp_pair}/tls_pair.cpp
          -DOPENSSL=${KELP_OPENSSL} -P ${PROJECT_SOURCE_DIR}/src/daemon/core/tls_pair.cmake
  DEPENDS ${kelp_pair}/cert.pem ${kelp_pair}/key.pem ${PROJECT_SOURCE_DIR}/src/daemon/core/tls_pair.cmake
  VERBATIM)
add_custom_command(OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/default_cert.sha256
  COMMAND ${KELP_OPENSSL} x509 -in ${KELP_TLS_CERT} -noout -fingerprint -sha256
          -out ${CMAKE_CURRENT_BINARY_DIR}/default_cert.sha256
  DEPENDS ${KELP_TLS_CERT}
  VERBATIM)
add_custom_target(kelp_tls_fingerprints DEPENDS ${kelp_pair}/cert.sha256 ${CMAKE_CURRENT_BINARY_DIR}/default_cert.sha256)

# The daemon with the other pair: its tls_pair.cpp object comes before
# libkelpd.a on the link line, so the archive's built-in pair is never pulled.
add_executable(kelputild_custom_cert ${PROJECT_SOURCE_DIR}/src/daemon/core/main.cpp ${kelp_pair}/tls_pair.cpp)
target_compile_options(kelputild_custom_cert PRIVATE -fno-exceptions -fno-rtti)
target_link_libraries(kelputild_custom_cert PRIVATE kelpd)

add_dependencies(e2e_tests kelputild_custom_cert kelp_tls_fingerprints)
target_compile_definitions(e2e_tests PRIVATE KELP_CUSTOM_CERT_DAEMON="$<TARGET_FILE:kelputild_custom_cert>"
  KELP_CUSTOM_CERT_SHA256="${kelp_pair}/cert.sha256" KELP_OPENSSL="${KELP_OPENSSL}"
  KELP_DEFAULT_CERT_SHA256="${CMAKE_CURRENT_BINARY_DIR}/default_cert.sha256")
