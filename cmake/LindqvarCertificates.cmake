# The agent's compiled-in certificate material.
#
# A release build names its own files:
#   -DLINDQVAR_CA_BUNDLE_PEM=ca-bundle.pem
#   -DLINDQVAR_CLIENT_CERT_PEM=client.pem
#   -DLINDQVAR_CLIENT_KEY_PEM=client.key          (RSA key protected by a pass phrase)
#   -DLINDQVAR_CLIENT_KEY_PASSPHRASE_FILE=pass.txt
#   -DLINDQVAR_CLIENT_KEY_PASSPHRASE2_FILE=pass2.txt   (optional, the alternative pass phrase)
#   -DLINDQVAR_CLIENT_CA_PEM=issuer.pem           (optional: the CA that issued the client
#                                                  certificate, for the lab authenticator in
#                                                  tests; default: the CA bundle)
# Without them the build uses a development PKI that it makes in
# <build>/pki with the openssl command line. The development PKI is made in
# every build, because the lab authenticator and the tests take their server
# certificate from it.
#
# Results:
#   LINDQVAR_CERT_REGION_SOURCE  generated source with the scrambled region
#   LINDQVAR_DEV_PKI_DIR         the development PKI directory
#   LINDQVAR_LAB_CLIENT_CA       CA file the lab authenticator checks client certificates against
#   LINDQVAR_EMBEDS_DEV_PKI      ON when the development PKI is what the agent carries
#   target lindqvar_dev_pki      makes the development PKI

find_program(LINDQVAR_OPENSSL_EXECUTABLE openssl REQUIRED)

set(LINDQVAR_CA_BUNDLE_PEM "" CACHE FILEPATH "Release CA bundle (PEM) compiled into the agent")
set(LINDQVAR_CLIENT_CERT_PEM "" CACHE FILEPATH "Release client certificate (PEM)")
set(LINDQVAR_CLIENT_KEY_PEM "" CACHE FILEPATH "Release client RSA key (PEM, with pass phrase)")
set(LINDQVAR_CLIENT_KEY_PASSPHRASE_FILE "" CACHE FILEPATH "File holding the client key's pass phrase")
set(LINDQVAR_CLIENT_KEY_PASSPHRASE2_FILE "" CACHE FILEPATH "File holding the alternative pass phrase")
set(LINDQVAR_CLIENT_CA_PEM "" CACHE FILEPATH "CA that issued the release client certificate")

set(LINDQVAR_DEV_PKI_DIR ${CMAKE_BINARY_DIR}/pki)
set(_pki ${LINDQVAR_DEV_PKI_DIR})
set(_pki_files ${_pki}/ca.pem ${_pki}/ca.key ${_pki}/server.pem ${_pki}/server.key
    ${_pki}/client.pem ${_pki}/client.key ${_pki}/client.pass ${_pki}/client.pass2
    ${_pki}/other-ca.pem ${_pki}/other-ca.key ${_pki}/server-alt.pem ${_pki}/server-alt.key
    ${_pki}/other-server.pem ${_pki}/other-server.key ${_pki}/server-cn-only.pem
    ${_pki}/server-cn-only.key ${_pki}/codesign.pem ${_pki}/codesign.key)
add_custom_command(
  OUTPUT ${_pki_files}
  COMMAND ${CMAKE_COMMAND} -DOPENSSL=${LINDQVAR_OPENSSL_EXECUTABLE} -DOUT=${_pki}
          -P ${LINDQVAR_ROOT}/cmake/make_dev_pki.cmake
  DEPENDS ${LINDQVAR_ROOT}/cmake/make_dev_pki.cmake ${LINDQVAR_ROOT}/cmake/lindqvar_openssl.cmake
  COMMENT "Making the development PKI in ${_pki}"
  VERBATIM)
add_custom_target(lindqvar_dev_pki DEPENDS ${_pki_files})

set(_release_items LINDQVAR_CA_BUNDLE_PEM LINDQVAR_CLIENT_CERT_PEM LINDQVAR_CLIENT_KEY_PEM
    LINDQVAR_CLIENT_KEY_PASSPHRASE_FILE)
set(_given 0)
foreach(v IN LISTS _release_items)
  if(${v})
    math(EXPR _given "${_given} + 1")
  endif()
endforeach()
if(_given GREATER 0 AND _given LESS 4)
  message(FATAL_ERROR "A release build names all of: ${_release_items}")
endif()

if(_given EQUAL 4)
  set(_ca ${LINDQVAR_CA_BUNDLE_PEM})
  set(_cert ${LINDQVAR_CLIENT_CERT_PEM})
  set(_key ${LINDQVAR_CLIENT_KEY_PEM})
  set(_pass ${LINDQVAR_CLIENT_KEY_PASSPHRASE_FILE})
  if(LINDQVAR_CLIENT_KEY_PASSPHRASE2_FILE)
    set(_pass2 ${LINDQVAR_CLIENT_KEY_PASSPHRASE2_FILE})
  else()
    set(_pass2 ${_pki}/client.pass2)
  endif()
  if(LINDQVAR_CLIENT_CA_PEM)
    set(LINDQVAR_LAB_CLIENT_CA ${LINDQVAR_CLIENT_CA_PEM})
  else()
    set(LINDQVAR_LAB_CLIENT_CA ${LINDQVAR_CA_BUNDLE_PEM})
  endif()
  set(LINDQVAR_EMBEDS_DEV_PKI OFF)
  message(STATUS "Certificate material: release files (${_cert})")
else()
  set(_ca ${_pki}/ca.pem)
  set(_cert ${_pki}/client.pem)
  set(_key ${_pki}/client.key)
  set(_pass ${_pki}/client.pass)
  set(_pass2 ${_pki}/client.pass2)
  set(LINDQVAR_LAB_CLIENT_CA ${_pki}/ca.pem)
  set(LINDQVAR_EMBEDS_DEV_PKI ON)
  message(STATUS "Certificate material: development PKI in ${_pki}")
endif()

set(LINDQVAR_CERT_REGION_SOURCE ${CMAKE_BINARY_DIR}/generated/protocol/certificate_region_data.cpp)
add_custom_command(
  OUTPUT ${LINDQVAR_CERT_REGION_SOURCE}
  COMMAND ${CMAKE_COMMAND} -DOPENSSL=${LINDQVAR_OPENSSL_EXECUTABLE}
          -DCA=${_ca} -DCERT=${_cert} -DKEY=${_key} -DPASS=${_pass} -DPASS2=${_pass2}
          -DOUT=${LINDQVAR_CERT_REGION_SOURCE}
          -P ${LINDQVAR_ROOT}/cmake/embed_certificates.cmake
  DEPENDS ${_ca} ${_cert} ${_key} ${_pass} ${_pass2} ${LINDQVAR_ROOT}/cmake/embed_certificates.cmake
          ${LINDQVAR_ROOT}/cmake/lindqvar_openssl.cmake
  COMMENT "Embedding the certificate material"
  VERBATIM)
