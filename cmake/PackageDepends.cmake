# Read by cpack (CPACK_PROJECT_CONFIG_FILE) when it makes the .deb: the
# libraries' minimum versions in Depends, from the symbol versions the packaged
# programs import, so every build (amd64 or a cross build's armhf) states what
# its own binaries need. dpkg-shlibdeps would need the target's libraries
# installed on the build machine, which a cross build does not have.
#
# In: CPACK_TESSEL_READELF (the toolchain's readelf), CPACK_TESSEL_BINARIES (a
# file naming the packaged programs, one a line), CPACK_TESSEL_TOOLS_DEPENDS
# (what the daemon runs). Out: CPACK_DEBIAN_PACKAGE_DEPENDS.

# libstdc++6's version nodes with the Debian version that first had each, as
# its symbols file says; nodes older than GCC 5 are in every libstdc++6 Debian
# ships. A node newer than the list stops the packaging: add it from the symbols
# file (/var/lib/dpkg/info/libstdc++6:*.symbols).
set(tessel_libstdcxx_nodes
    GLIBCXX_3.4.21=5.2 GLIBCXX_3.4.22=6 GLIBCXX_3.4.23=10.2 GLIBCXX_3.4.24=7 GLIBCXX_3.4.25=8 GLIBCXX_3.4.26=9
    GLIBCXX_3.4.27=9.1 GLIBCXX_3.4.28=10.2 GLIBCXX_3.4.29=11 GLIBCXX_3.4.30=12 GLIBCXX_3.4.31=13 GLIBCXX_3.4.32=13.2
    GLIBCXX_3.4.33=14 CXXABI_1.3.9=5 CXXABI_1.3.10=6 CXXABI_1.3.11=10.2 CXXABI_1.3.12=9 CXXABI_1.3.13=11
    CXXABI_1.3.14=13 CXXABI_1.3.15=14)

# Raises the minimum in the variable named $1 to $2 where $2 is higher.
function(tessel_raise variable minimum)
  if("${${variable}}" STREQUAL "" OR "${minimum}" VERSION_GREATER "${${variable}}")
    set(${variable} ${minimum} PARENT_SCOPE)
  endif()
endfunction()

if(NOT CPACK_TESSEL_READELF OR NOT EXISTS "${CPACK_TESSEL_BINARIES}")
  message(FATAL_ERROR "no readelf or no list of the packaged programs: cannot version the package's Depends")
endif()
file(STRINGS "${CPACK_TESSEL_BINARIES}" tessel_binaries)
set(libc6)
set(libstdcxx6)
set(libgcc_s1)
set(libstdcxx_used FALSE)
set(libgcc_used FALSE)
foreach(binary IN LISTS tessel_binaries)
  execute_process(COMMAND ${CPACK_TESSEL_READELF} --wide --dynamic --version-info ${binary}
                  OUTPUT_VARIABLE elf RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "${CPACK_TESSEL_READELF} cannot read ${binary}")
  endif()
  if(elf MATCHES "\\(NEEDED\\)[^\n]*\\[libstdc\\+\\+\\.so\\.6\\]")
    set(libstdcxx_used TRUE)
  endif()
  if(elf MATCHES "\\(NEEDED\\)[^\n]*\\[libgcc_s\\.so\\.1\\]")
    set(libgcc_used TRUE)
  endif()
  # The version needs: "Name: GLIBC_2.34  Flags: ...", one line a node.
  string(REGEX MATCHALL "Name: [A-Z_]+[0-9.]+ " nodes "${elf}")
  foreach(node IN LISTS nodes)
    string(REGEX REPLACE "^Name: ([A-Z_]+[0-9.]+) $" "\\1" node "${node}")
    if(node MATCHES "^GLIBC_([0-9.]+)$")
      tessel_raise(libc6 ${CMAKE_MATCH_1})
    elseif(node MATCHES "^GCC_([0-9.]+)$")
      # GCC_7.0.0 first came with 7: the trailing zeros of three-part nodes say nothing.
      string(REGEX REPLACE "^([0-9]+\\.[0-9]+)\\.0$" "\\1" version ${CMAKE_MATCH_1})
      tessel_raise(libgcc_s1 ${version})
    elseif(node MATCHES "^(GLIBCXX_3\\.4|CXXABI_1\\.3)\\.([0-9]+)$")
      set(minor ${CMAKE_MATCH_2})
      set(known FALSE)
      foreach(entry IN LISTS tessel_libstdcxx_nodes)
        if(entry MATCHES "^${node}=(.*)$")
          tessel_raise(libstdcxx6 ${CMAKE_MATCH_1})
          set(known TRUE)
        endif()
      endforeach()
      # Below GLIBCXX_3.4.21 and CXXABI_1.3.9 the list has nothing to say.
      if(NOT known AND ((node MATCHES "^GLIBCXX_" AND minor GREATER 21) OR (node MATCHES "^CXXABI_" AND minor GREATER 9)))
        message(FATAL_ERROR "${binary} needs ${node}, which cmake/PackageDepends.cmake does not know: add it")
      endif()
    endif()
  endforeach()
endforeach()
if(NOT libc6)
  message(FATAL_ERROR "the packaged programs import no GLIBC_ symbol version: cannot version libc6")
endif()
set(depends "libc6 (>= ${libc6})")
if(libgcc_used AND libgcc_s1)
  string(APPEND depends ", libgcc-s1 (>= ${libgcc_s1})")
endif()
if(libstdcxx_used)
  if(libstdcxx6)
    string(APPEND depends ", libstdc++6 (>= ${libstdcxx6})")
  else()
    string(APPEND depends ", libstdc++6")
  endif()
endif()
set(CPACK_DEBIAN_PACKAGE_DEPENDS "${depends}, ${CPACK_TESSEL_TOOLS_DEPENDS}")
