# cmake -DVERSION=N -DWANT=accepted|rejected -DSOURCE=DIR -DWORK=DIR [-DCXX=COMPILER -DGENERATOR=G
#       -DMAKE_PROGRAM=PATH] -P asio_version.cmake
#
# The asio version check against a stand-in asio that reports the given version (ASIO_VERSION
# as asio writes it), expecting either a pass or the one message that says which asio to use.
# With CXX the whole project is configured against it, which proves the check is wired in;
# otherwise the check runs alone, in a cmake of its own.
if(CHECK_ONLY)
  include(${SOURCE}/cmake/AsioVersion.cmake)
  devupdate_check_asio_version(${WORK}/asio)
  return()
endif()
file(REMOVE_RECURSE ${WORK})
file(WRITE ${WORK}/asio/asio/version.hpp
  "#ifndef ASIO_VERSION_HPP\n#define ASIO_VERSION_HPP\n#define ASIO_VERSION ${VERSION} // stand-in\n#endif\n")
file(WRITE ${WORK}/asio/asio.hpp "")
if(CXX)
  set(run ${CMAKE_COMMAND} -S ${SOURCE} -B ${WORK}/build -DASIO_INCLUDE_DIR=${WORK}/asio -G ${GENERATOR}
    -DCMAKE_MAKE_PROGRAM=${MAKE_PROGRAM} -DCMAKE_CXX_COMPILER=${CXX} -DBUILD_TESTING=OFF)
else()
  set(run ${CMAKE_COMMAND} -DCHECK_ONLY=ON -DSOURCE=${SOURCE} -DWORK=${WORK} -P ${CMAKE_CURRENT_LIST_FILE})
endif()
execute_process(COMMAND ${run} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
string(REGEX REPLACE "[ \n]+" " " said "${out}${err}")

math(EXPR minor "${VERSION} / 100 % 1000")
math(EXPR patch "${VERSION} % 100")
if(WANT STREQUAL "rejected")
  foreach(part "asio 1.${minor}.${patch} in ${WORK}/asio is too new for websocketpp 0.8.2"
               "Use asio 1.31 or older" "-DASIO_INCLUDE_DIR=")
    string(FIND "${said}" "${part}" at)
    if(at EQUAL -1)
      message(FATAL_ERROR "asio ${VERSION}: no \"${part}\" in:\n${out}${err}")
    endif()
  endforeach()
  if(status EQUAL 0)
    message(FATAL_ERROR "asio ${VERSION} was let through")
  endif()
elseif(NOT status EQUAL 0 OR NOT said MATCHES "asio 1.${minor}.${patch} in ")
  message(FATAL_ERROR "asio ${VERSION} was refused:\n${out}${err}")
endif()
file(REMOVE_RECURSE ${WORK})
