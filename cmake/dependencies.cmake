# mbedTLS 2.28 ships neither a pkg-config file nor a CMake package on Debian.
find_path(MBEDTLS_INCLUDE_DIR mbedtls/ssl.h REQUIRED)
find_library(MBEDTLS_LIBRARY mbedtls REQUIRED)
find_library(MBEDX509_LIBRARY mbedx509 REQUIRED)
find_library(MBEDCRYPTO_LIBRARY mbedcrypto REQUIRED)
add_library(mbedtls_all INTERFACE)
target_include_directories(mbedtls_all INTERFACE ${MBEDTLS_INCLUDE_DIR})
target_link_libraries(mbedtls_all INTERFACE ${MBEDTLS_LIBRARY} ${MBEDX509_LIBRARY} ${MBEDCRYPTO_LIBRARY})

find_library(CRYPT_LIBRARY crypt REQUIRED)
