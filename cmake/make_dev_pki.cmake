# Makes the development PKI in the build tree with the openssl command line:
#   ca.pem / ca.key            development CA (self-signed)
#   server.pem / server.key    lab authenticator's certificate (localhost,
#                              127.0.0.1, ::1), key without a pass phrase
#   client.pem / client.key    agent's client certificate, key encrypted
#                              (PKCS#8, AES-128-CBC) with client.pass
#   client.pass                pass phrase of client.key (12 characters)
#   client.pass2               the alternative pass phrase (24 characters)
#   other-ca.pem / .key        an unrelated CA, for tests of a lab server
#                              that trusts someone else
#   other-server.pem / .key    a server certificate like server.pem, issued by
#                              the unrelated CA (a server agents must not trust
#                              when they verify servers)
#   server-alt.pem / .key      a second server certificate from the development
#                              CA, same names (one a pin list can leave out)
#   codesign.pem / .key        code-signing certificate from the development CA,
#                              with which the build signs the Windows programs
#                              and the package (key without a pass phrase)
#   server-cn-only.pem / .key  a server certificate from the development CA
#                              whose only name is its subject CN (localhost):
#                              no subjectAltName, so it names no host
# Nothing here is ever committed: it lives in the build tree only.
#
#   cmake -DOPENSSL=<openssl> -DOUT=<dir> -P make_dev_pki.cmake

cmake_minimum_required(VERSION 3.25)

if(NOT OPENSSL OR NOT OUT)
  message(FATAL_ERROR "make_dev_pki.cmake: OPENSSL and OUT are required")
endif()
file(MAKE_DIRECTORY "${OUT}")

function(run)
  execute_process(COMMAND "${OPENSSL}" ${ARGN}
                  WORKING_DIRECTORY "${OUT}"
                  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "openssl ${ARGN} failed (${rc}):\n${err}")
  endif()
endfunction()

include(${CMAKE_CURRENT_LIST_DIR}/lindqvar_openssl.cmake)

# Every file is made under a temporary name first, so an interrupted run
# never leaves a half-made PKI that looks complete.
set(days 3650)

file(WRITE "${OUT}/server.ext"
  "basicConstraints=CA:FALSE\nkeyUsage=critical,digitalSignature,keyEncipherment\nextendedKeyUsage=serverAuth\nsubjectAltName=DNS:localhost,IP:127.0.0.1,IP:::1\n")
file(WRITE "${OUT}/server-cn-only.ext"
  "basicConstraints=CA:FALSE\nkeyUsage=critical,digitalSignature,keyEncipherment\nextendedKeyUsage=serverAuth\n")
file(WRITE "${OUT}/client.ext"
  "basicConstraints=CA:FALSE\nkeyUsage=critical,digitalSignature,keyEncipherment\nextendedKeyUsage=clientAuth\n")
file(WRITE "${OUT}/codesign.ext"
  "basicConstraints=CA:FALSE\nkeyUsage=critical,digitalSignature\nextendedKeyUsage=codeSigning\n")

random_hex(6 pass)
random_hex(12 pass2)
file(WRITE "${OUT}/client.pass" "${pass}")
file(WRITE "${OUT}/client.pass2" "${pass2}")

foreach(ca ca other-ca)
  if(ca STREQUAL "ca")
    set(cn "Lindqvar Development CA")
  else()
    set(cn "Lindqvar Unrelated Test CA")
  endif()
  run(req -x509 -newkey rsa:2048 -nodes -sha256 -days ${days}
      -keyout ${ca}.key.tmp -out ${ca}.pem.tmp -subj "/O=Lindqvar Lab/CN=${cn}"
      -addext "basicConstraints=critical,CA:TRUE"
      -addext "keyUsage=critical,keyCertSign,cRLSign")
endforeach()

foreach(pair server:ca server-alt:ca other-server:other-ca server-cn-only:ca)
  string(REPLACE ":" ";" pair "${pair}")
  list(GET pair 0 name)
  list(GET pair 1 issuer)
  if(name STREQUAL "server-cn-only")
    set(ext server-cn-only.ext)
  else()
    set(ext server.ext)
  endif()
  run(req -newkey rsa:2048 -nodes -sha256 -keyout ${name}.key.tmp -out ${name}.csr
      -subj "/O=Lindqvar Lab/CN=localhost")
  random_hex(8 serial)
  run(x509 -req -in ${name}.csr -CA ${issuer}.pem.tmp -CAkey ${issuer}.key.tmp
      -set_serial 0x${serial} -days ${days} -sha256 -extfile ${ext} -out ${name}.pem.tmp)
  file(REMOVE "${OUT}/${name}.csr")
endforeach()

run(genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -aes-128-cbc
    -pass file:client.pass -out client.key.tmp)
run(req -new -key client.key.tmp -passin file:client.pass -sha256 -out client.csr
    -subj "/O=Lindqvar Lab/CN=Lindqvar Agent")
random_hex(8 serial)
run(x509 -req -in client.csr -CA ca.pem.tmp -CAkey ca.key.tmp -set_serial 0x${serial}
    -days ${days} -sha256 -extfile client.ext -out client.pem.tmp)

run(req -newkey rsa:2048 -nodes -sha256 -keyout codesign.key.tmp -out codesign.csr
    -subj "/O=Lindqvar Lab/CN=Lindqvar Development Code Signing")
random_hex(8 serial)
run(x509 -req -in codesign.csr -CA ca.pem.tmp -CAkey ca.key.tmp -set_serial 0x${serial}
    -days ${days} -sha256 -extfile codesign.ext -out codesign.pem.tmp)

file(REMOVE "${OUT}/client.csr" "${OUT}/codesign.csr" "${OUT}/server.ext" "${OUT}/server-cn-only.ext"
     "${OUT}/client.ext" "${OUT}/codesign.ext")
foreach(f ca.key other-ca.key other-ca.pem server.key server.pem server-alt.key server-alt.pem
        other-server.key other-server.pem server-cn-only.key server-cn-only.pem client.key
        client.pem codesign.key codesign.pem ca.pem)
  file(RENAME "${OUT}/${f}.tmp" "${OUT}/${f}")
endforeach()
