# websocketpp 0.8.2 is written against asio's io_service, io_service::work, strand::wrap,
# resolver::query and timer::expires_from_now. asio kept them as deprecated aliases up to
# 1.31 and removed them in the next release, so a newer asio fails deep inside
# websocketpp's templates. Stop before that with a message that says what to do.
set(DEVUPDATE_ASIO_FIRST_UNUSABLE 1.32.0)

function(devupdate_check_asio_version include_dir)
  set(header ${include_dir}/asio/version.hpp)
  if(NOT EXISTS ${header})
    message(FATAL_ERROR "asio: ${header} not found; point the build at asio's include "
      "folder with -DASIO_INCLUDE_DIR=/path/to/asio/include")
  endif()
  file(STRINGS ${header} line REGEX "^#define ASIO_VERSION [0-9]+")
  if(NOT line MATCHES "ASIO_VERSION ([0-9]+)")
    message(FATAL_ERROR "asio: no ASIO_VERSION in ${header}")
  endif()
  # ASIO_VERSION is major * 100000 + minor * 100 + sub-minor.
  math(EXPR major "${CMAKE_MATCH_1} / 100000")
  math(EXPR minor "${CMAKE_MATCH_1} / 100 % 1000")
  math(EXPR patch "${CMAKE_MATCH_1} % 100")
  set(version ${major}.${minor}.${patch})
  if(version VERSION_GREATER_EQUAL DEVUPDATE_ASIO_FIRST_UNUSABLE)
    message(FATAL_ERROR
      "asio ${version} in ${include_dir} is too new for websocketpp 0.8.2: asio "
      "${DEVUPDATE_ASIO_FIRST_UNUSABLE} and later removed io_service and the other names it uses. "
      "Use asio 1.31 or older (1.22 to 1.30 are known to work; asio is header-only, so an "
      "unpacked release will do) and point the build at it with "
      "-DASIO_INCLUDE_DIR=/path/to/asio-1.30.2/include")
  endif()
  message(STATUS "asio ${version} in ${include_dir}")
endfunction()
