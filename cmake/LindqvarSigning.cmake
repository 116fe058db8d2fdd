# Authenticode signing of the shipped Windows programs and of the package,
# with osslsigncode (Debian package "osslsigncode").
#
# A release build names its code-signing certificate and key, in files kept
# outside the source tree (they are never committed):
#   -DLINDQVAR_SIGN_CERT=codesign-chain.pem   certificate, then its issuers (PEM)
#   -DLINDQVAR_SIGN_KEY=codesign.key          its private key (PEM)
#   -DLINDQVAR_SIGN_PASS_FILE=codesign.pass   (optional) the key's pass phrase
#   -DLINDQVAR_SIGN_TIMESTAMP_URL=http://...  (optional) an RFC 3161 time-stamp
#                                             server: the signature then stays
#                                             valid after the certificate expires
# Without them the build signs with the development code-signing certificate
# of the development PKI (<build>/pki/codesign.pem, issued by the
# development CA), without a time stamp, so that a build never goes to the
# network.
#
#   lindqvar_sign(<unsigned file> <signed file> <description>)
# returns in LINDQVAR_SIGN_COMMAND the COMMAND arguments that write the signed
# copy, and in LINDQVAR_SIGN_DEPENDS the files the signature depends on. With
# no osslsigncode (and no release certificate) the command copies the file
# unsigned.

set(LINDQVAR_SIGN_CERT "" CACHE FILEPATH "Release code-signing certificate chain (PEM)")
set(LINDQVAR_SIGN_KEY "" CACHE FILEPATH "Release code-signing private key (PEM)")
set(LINDQVAR_SIGN_PASS_FILE "" CACHE FILEPATH "File holding the code-signing key's pass phrase")
set(LINDQVAR_SIGN_TIMESTAMP_URL "" CACHE STRING "RFC 3161 time-stamp server for release signatures")
find_program(LINDQVAR_OSSLSIGNCODE osslsigncode)

if(LINDQVAR_SIGN_CERT OR LINDQVAR_SIGN_KEY)
  if(NOT LINDQVAR_SIGN_CERT OR NOT LINDQVAR_SIGN_KEY)
    message(FATAL_ERROR "Release signing names both LINDQVAR_SIGN_CERT and LINDQVAR_SIGN_KEY")
  endif()
  if(NOT LINDQVAR_OSSLSIGNCODE)
    message(FATAL_ERROR "Release signing needs osslsigncode (scripts/deps.sh installs it)")
  endif()
  foreach(f LINDQVAR_SIGN_KEY LINDQVAR_SIGN_PASS_FILE)
    if(${f})
      file(REAL_PATH "${${f}}" _real)
      cmake_path(IS_PREFIX LINDQVAR_ROOT "${_real}" NORMALIZE _inside)
      if(_inside)
        message(FATAL_ERROR "${f} lies in the source tree (${_real}): keep signing keys outside it")
      endif()
    endif()
  endforeach()
  set(_sign_cert ${LINDQVAR_SIGN_CERT})
  set(_sign_key ${LINDQVAR_SIGN_KEY})
  message(STATUS "Code signing: release certificate (${LINDQVAR_SIGN_CERT})")
else()
  set(_sign_cert ${LINDQVAR_DEV_PKI_DIR}/codesign.pem)
  set(_sign_key ${LINDQVAR_DEV_PKI_DIR}/codesign.key)
  if(LINDQVAR_OSSLSIGNCODE)
    message(STATUS "Code signing: development certificate in ${LINDQVAR_DEV_PKI_DIR}")
  else()
    message(STATUS "osslsigncode not found: the programs and the package are not signed (scripts/deps.sh installs it)")
  endif()
endif()

function(lindqvar_sign unsigned signed description)
  if(NOT LINDQVAR_OSSLSIGNCODE)
    set(LINDQVAR_SIGN_COMMAND ${CMAKE_COMMAND} -E copy ${unsigned} ${signed} PARENT_SCOPE)
    set(LINDQVAR_SIGN_DEPENDS "" PARENT_SCOPE)
    return()
  endif()
  set(args sign -certs ${_sign_cert} -key ${_sign_key} -h sha256 -n ${description})
  set(deps ${_sign_cert} ${_sign_key})
  if(LINDQVAR_SIGN_PASS_FILE AND LINDQVAR_SIGN_CERT)
    # The pass phrase is read from its file, never put on a command line.
    list(APPEND args -readpass ${LINDQVAR_SIGN_PASS_FILE})
    list(APPEND deps ${LINDQVAR_SIGN_PASS_FILE})
  endif()
  if(LINDQVAR_SIGN_TIMESTAMP_URL AND LINDQVAR_SIGN_CERT)
    list(APPEND args -ts ${LINDQVAR_SIGN_TIMESTAMP_URL})
  endif()
  # osslsigncode refuses to overwrite its output: the old copy goes first.
  set(LINDQVAR_SIGN_COMMAND
      ${CMAKE_COMMAND} -E rm -f ${signed}
      COMMAND ${LINDQVAR_OSSLSIGNCODE} ${args} -in ${unsigned} -out ${signed} PARENT_SCOPE)
  set(LINDQVAR_SIGN_DEPENDS ${deps} PARENT_SCOPE)
endfunction()
