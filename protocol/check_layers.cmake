# Refuses a protocol source that includes a header of a folder after its own
# (the order of CMakeLists.txt), or anything of the agent, the tools or the
# tests; of session tracking only the delivery may include the interface it
# implements. Run by the build:
#   cmake -DDIR=<this folder> -DSTAMP=<file touched when all is well> -P check_layers.cmake
set(layers wire transport messages ntlm delivery)
set(refused "")
foreach(layer IN LISTS layers)
  list(FIND layers ${layer} rank)
  file(GLOB sources ${DIR}/${layer}/*.h ${DIR}/${layer}/*.cpp)
  foreach(source IN LISTS sources)
    file(STRINGS ${source} includes REGEX "^#include \"")
    foreach(line IN LISTS includes)
      string(REGEX REPLACE "^#include \"([^\"]*)\".*" "\\1" header "${line}")
      set(used -1)
      if(header MATCHES "^protocol/([a-z_]+)/")
        list(FIND layers ${CMAKE_MATCH_1} used)
      elseif(header MATCHES "^(agent|session|tools|tests)/" AND
             NOT (layer STREQUAL "delivery" AND header STREQUAL "session/event_delivery.h"))
        set(used 99)
      endif()
      if(used GREATER rank)
        list(APPEND refused "${source} (${layer}) includes ${header}")
      endif()
    endforeach()
  endforeach()
endforeach()
if(refused)
  list(JOIN refused "\n  " text)
  message(FATAL_ERROR "Includes against the protocol's layering:\n  ${text}")
endif()
file(TOUCH ${STAMP})
