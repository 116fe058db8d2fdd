# Turns the agent's certificate material into a generated C++ source: every
# item is encrypted with AES-128-CBC (zero IV, PKCS#7 padding) under a fresh
# random key, the key and the items with their length words are laid out in
# one data region, and the region is stored scrambled. The agent unscrambles
# it once at start-up and decrypts an item only while it loads it.
#
#   cmake -DOPENSSL=<openssl> -DCA=<pem> -DCERT=<pem> -DKEY=<pem>
#         -DPASS=<file> -DPASS2=<file> -DOUT=<source.cpp> -P embed_certificates.cmake
#
# Region layout (little-endian length words):
#   key[16] | len ca | ca | len cert | cert | len key | key | len pass | pass | len pass2 | pass2
# Scrambling: each byte XOR (s >> 16) & 255, with s = s * 1103515245 + 12345
# (mod 2^31) stepped before every byte, s starting at the recorded seed.

cmake_minimum_required(VERSION 3.25)

foreach(v OPENSSL CA CERT KEY PASS PASS2 OUT)
  if(NOT ${v})
    message(FATAL_ERROR "embed_certificates.cmake: ${v} is required")
  endif()
endforeach()

get_filename_component(outdir "${OUT}" DIRECTORY)
file(MAKE_DIRECTORY "${outdir}")
set(work "${OUT}.work")
file(MAKE_DIRECTORY "${work}")

include(${CMAKE_CURRENT_LIST_DIR}/lindqvar_openssl.cmake)

random_hex(16 aeskey)
random_hex(4 seedhex)
math(EXPR seed "0x${seedhex} & 2147483647")

function(check_pem file what)
  file(READ "${file}" text)
  if(NOT text MATCHES "-----BEGIN ")
    message(FATAL_ERROR "${what} ${file} is not a PEM file")
  endif()
endfunction()
check_pem("${CA}" "CA bundle")
check_pem("${CERT}" "client certificate")
check_pem("${KEY}" "client key")

# A pass phrase file may end in a line break (echo writes one); the pass
# phrase is the text before it. The plain copy is removed at once.
function(plain_passphrase file out)
  file(READ "${file}" text)
  string(REGEX REPLACE "[\r\n]+$" "" text "${text}")
  if(text STREQUAL "")
    message(FATAL_ERROR "pass phrase file ${file} is empty")
  endif()
  file(WRITE "${out}" "${text}")
endfunction()
plain_passphrase("${PASS}" "${work}/pass.txt")
plain_passphrase("${PASS2}" "${work}/pass2.txt")

# Encrypts one input and appends "<len LE><bytes>" as hex to `region`.
set(region "${aeskey}")
function(append_item input)
  execute_process(COMMAND "${OPENSSL}" enc -aes-128-cbc -K ${aeskey}
                          -iv 00000000000000000000000000000000 -in "${input}" -out "${work}/item.bin"
                  RESULT_VARIABLE rc ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "openssl enc failed for ${input}:\n${err}")
  endif()
  file(READ "${work}/item.bin" hex HEX)
  string(LENGTH "${hex}" n)
  math(EXPR n "${n} / 2")
  set(len "")
  foreach(shift 0 8 16 24)
    math(EXPR b "(${n} >> ${shift}) & 255" OUTPUT_FORMAT HEXADECIMAL)
    string(SUBSTRING "${b}" 2 -1 b)
    string(LENGTH "${b}" bl)
    if(bl EQUAL 1)
      set(b "0${b}")
    endif()
    string(APPEND len "${b}")
  endforeach()
  set(region "${region}${len}${hex}" PARENT_SCOPE)
endfunction()

append_item("${CA}")
append_item("${CERT}")
append_item("${KEY}")
append_item("${work}/pass.txt")
append_item("${work}/pass2.txt")
file(REMOVE_RECURSE "${work}")

string(REGEX MATCHALL ".." bytes "${region}")
list(LENGTH bytes size)
set(s ${seed})
set(body "")
set(line "  ")
set(col 0)
foreach(b IN LISTS bytes)
  math(EXPR s "(${s} * 1103515245 + 12345) & 2147483647")
  math(EXPR v "0x${b} ^ ((${s} >> 16) & 255)" OUTPUT_FORMAT HEXADECIMAL)
  string(APPEND line "${v},")
  math(EXPR col "${col} + 1")
  if(col EQUAL 16)
    string(APPEND body "${line}\n")
    set(line "  ")
    set(col 0)
  endif()
endforeach()
if(col GREATER 0)
  string(APPEND body "${line}\n")
endif()

file(WRITE "${OUT}.tmp"
"// Generated at build time from the certificate material; do not edit.
#include \"protocol/transport/certificate_region.h\"

namespace lindqvar::certificate_region {

const uint32_t kSeed = ${seed}u;
const uint32_t kSize = ${size}u;
const uint8_t kScrambled[${size}] = {
${body}};

}  // namespace lindqvar::certificate_region
")
file(RENAME "${OUT}.tmp" "${OUT}")
