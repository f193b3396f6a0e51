# Writes the header that names the version and the commit a build comes from. Run at every build
# (cmake -P) so that the commit never lags behind the checkout; the header is rewritten only when
# its text changes, so an unchanged commit recompiles nothing.
#   -DSOURCE_DIR=... -DVERSION=... -DOUTPUT=...
set(commit "")
find_package(Git QUIET)
if(GIT_FOUND)
  # Only the source folder's own repository: a release tarball unpacked inside another checkout
  # must not take that checkout's commit.
  execute_process(COMMAND "${GIT_EXECUTABLE}" -C "${SOURCE_DIR}" rev-parse --show-toplevel
                  OUTPUT_VARIABLE top OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE failed ERROR_QUIET)
  if(NOT failed)
    file(REAL_PATH "${top}" top)
    file(REAL_PATH "${SOURCE_DIR}" source)
  endif()
  if(NOT failed AND top STREQUAL source)
    # Every tag excluded: the bare commit, with "-dirty" when tracked files differ from it.
    execute_process(COMMAND "${GIT_EXECUTABLE}" -C "${SOURCE_DIR}" describe --always --abbrev=12 --dirty --exclude=*
                    OUTPUT_VARIABLE commit OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  endif()
endif()
if(commit STREQUAL "")
  # A tarball made by `git archive` (make dist) carries its commit in this file.
  file(STRINGS "${SOURCE_DIR}/packaging/commit" commit LIMIT_COUNT 1)
  if(commit MATCHES "^[0-9a-f]+$")
    string(SUBSTRING "${commit}" 0 12 commit)
  else()
    set(commit "unknown")
  endif()
endif()

set(text "#pragma once\n#define VEERLINE_VERSION \"${VERSION}\"\n#define VEERLINE_COMMIT \"${commit}\"\n")
if(EXISTS "${OUTPUT}")
  file(READ "${OUTPUT}" previous)
endif()
if(NOT previous STREQUAL text)
  file(WRITE "${OUTPUT}" "${text}")
endif()
