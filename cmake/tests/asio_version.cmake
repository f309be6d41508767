# cmake -DVERSION=N -DWANT=accepted|rejected -DSOURCE=DIR -DWORK=DIR -DCXX=COMPILER -P asio_version.cmake
file(REMOVE_RECURSE ${WORK})
file(WRITE ${WORK}/asio/asio/version.hpp
  "#ifndef ASIO_VERSION_HPP\n#define ASIO_VERSION_HPP\n#define ASIO_VERSION ${VERSION} // stand-in\n#endif\n")
file(WRITE ${WORK}/asio/asio.hpp "")
execute_process(
  COMMAND ${CMAKE_COMMAND} -S ${SOURCE} -B ${WORK}/build -DASIO_INCLUDE_DIR=${WORK}/asio
    -DCMAKE_CXX_COMPILER=${CXX} -DBUILD_TESTING=OFF
  RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
string(REGEX REPLACE "[ \n]+" " " said "${out}${err}")

math(EXPR minor "${VERSION} / 100 % 1000")
math(EXPR patch "${VERSION} % 100")
if(WANT STREQUAL "rejected")
  foreach(part "asio 1.${minor}.${patch} in ${WORK}/asio is too new for websocketpp 0.8.2"
               "Use asio 1.31 or older" "-DASIO_INCLUDE_DIR=")
    string(FIND "${said}" "${part}" at)
    if(at EQUAL -1)
      message(FATAL_ERROR "configure with asio ${VERSION} did not say \"${part}\":\n${out}${err}")
    endif()
  endforeach()
  if(status EQUAL 0)
    message(FATAL_ERROR "configure with asio ${VERSION} went on")
  endif()
elseif(NOT status EQUAL 0 OR NOT said MATCHES "asio 1.${minor}.${patch} in ")
  message(FATAL_ERROR "configure with asio ${VERSION} failed:\n${out}${err}")
endif()
file(REMOVE_RECURSE ${WORK})
