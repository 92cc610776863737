# Writes the build's source revision into a header, at every build and only
# when it changed, so that just the one unit that reads it is compiled again.
#   cmake -DSOURCE_DIR=... -DOUTPUT=... -P Revision.cmake
# The revision is git's short commit name, with "-modified" when the tree has
# changes not committed; "unknown" outside a git checkout (a source archive).
execute_process(COMMAND git -C "${SOURCE_DIR}" rev-parse --short=12 HEAD
                OUTPUT_VARIABLE revision OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE failed ERROR_QUIET)
if(failed OR revision STREQUAL "")
  set(revision "unknown")
else()
  execute_process(COMMAND git -C "${SOURCE_DIR}" status --porcelain --untracked-files=no
                  OUTPUT_VARIABLE changes OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  if(NOT changes STREQUAL "")
    string(APPEND revision "-modified")
  endif()
endif()
set(text "// Made by cmake/Revision.cmake at build time.\n#define TESSEL_REVISION \"${revision}\"\n")
if(EXISTS "${OUTPUT}")
  file(READ "${OUTPUT}" old)
endif()
if(NOT old STREQUAL text)
  file(WRITE "${OUTPUT}" "${text}")
endif()
