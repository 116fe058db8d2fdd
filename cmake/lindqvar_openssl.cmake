# Helpers shared by the certificate scripts (run with cmake -P).

# Sets `var` to `bytes` random bytes in hex, from the openssl command line
# named by OPENSSL.
function(random_hex bytes var)
  execute_process(COMMAND "${OPENSSL}" rand -hex ${bytes}
                  OUTPUT_VARIABLE hex RESULT_VARIABLE rc OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "openssl rand failed")
  endif()
  set(${var} "${hex}" PARENT_SCOPE)
endfunction()
