# The shipped form of a Windows program: the linked program with its debug
# information moved into a separate file.
#
#   lindqvar_release_exe(<target>)
#
# makes, whenever <target> is linked (part of the default build),
#   <build>/release/<name>.exe        no debug sections, no symbol table, and
#                                     a .gnu_debuglink naming the file below
#   <build>/release/<name>.exe.debug  the debug sections and symbols
# and a target <target>-release to build just these two. Crash dumps of the
# shipped program are symbolised with the .debug file (gdb and the MinGW
# tools find it by the debug link when it lies next to the program or is
# named to them). The build tree's own <target> keeps everything and is what
# the tests run.
#
# Needs GNU objcopy for the target (found beside the cross-compiler); with
# another toolchain (MSVC writes its PDB files itself) this does nothing.

function(lindqvar_release_exe target)
  if(MSVC OR NOT CMAKE_OBJCOPY)
    return()
  endif()
  # Sections start on page boundaries in the file as they do in memory, so
  # a loader can map them from the file instead of reading them into private
  # memory (Wine reads an image whose sections are not page-aligned).
  target_link_options(${target} PRIVATE -Wl,--file-alignment=4096)
  set(dir ${CMAKE_BINARY_DIR}/release)
  set(exe ${dir}/${target}${CMAKE_EXECUTABLE_SUFFIX})
  set(dbg ${exe}.debug)
  file(MAKE_DIRECTORY ${dir})
  # The debug link records the debug file's name and CRC, so objcopy runs in
  # the release directory and is given the bare name.
  add_custom_command(
    OUTPUT ${exe} ${dbg}
    COMMAND ${CMAKE_OBJCOPY} --only-keep-debug $<TARGET_FILE:${target}> ${dbg}
    COMMAND ${CMAKE_OBJCOPY} --strip-all
            --add-gnu-debuglink=${target}${CMAKE_EXECUTABLE_SUFFIX}.debug
            $<TARGET_FILE:${target}> ${exe}
    WORKING_DIRECTORY ${dir}
    DEPENDS ${target}
    COMMENT "Splitting the debug information of ${target} into release/"
    VERBATIM)
  add_custom_target(${target}-release ALL DEPENDS ${exe} ${dbg})
  set_property(TARGET ${target} PROPERTY LINDQVAR_RELEASE_EXE ${exe})
endfunction()
