# Read by cpack before it installs anything.

# A package is made only from a build that has Debian's hardening flags in.
if(CPACK_DEVUPDATE_UNHARDENED)
  message(FATAL_ERROR "No packages from ${CPACK_DEVUPDATE_BINARY_DIR}: it has no hardening flags, "
    "because ${CPACK_DEVUPDATE_UNHARDENED}. Install dpkg-dev and configure again "
    "(`make package` does both).")
endif()

# Unless SOURCE_DATE_EPOCH is set already, it becomes the time of the last commit of the
# source tree, which CPack's archives then use for every date they hold. Outside a git
# checkout (and with no value given) the packages carry the build's time.
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
  execute_process(COMMAND git log -1 --format=%ct
    WORKING_DIRECTORY "${CPACK_DEVUPDATE_SOURCE_DIR}"
    OUTPUT_VARIABLE epoch OUTPUT_STRIP_TRAILING_WHITESPACE
    RESULT_VARIABLE failed ERROR_QUIET)
  if(NOT failed AND epoch MATCHES "^[0-9]+$")
    set(ENV{SOURCE_DATE_EPOCH} "${epoch}")
  endif()
endif()
