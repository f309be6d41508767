# cmake -DSOURCE=DIR -DWORK=DIR -DCXX=COMPILER -DGENERATOR=G -DMAKE_PROGRAM=PATH -P hardening.cmake
#
# A build folder configured while dpkg-buildflags was missing (every PATH folder holding it
# replaced by a copy without it) cannot be packaged; configured again once it is there, as
# `make package` does, it has Debian's flags.
file(REMOVE_RECURSE ${WORK})
set(bare_path "")
set(n 0)
string(REPLACE ":" ";" path_dirs "$ENV{PATH}")
foreach(dir IN LISTS path_dirs)
  if(EXISTS ${dir}/dpkg-buildflags)
    math(EXPR n "${n} + 1")
    set(shadow ${WORK}/path${n})
    file(MAKE_DIRECTORY ${shadow})
    # By the shell: a name such as "[" would break a CMake list.
    execute_process(COMMAND sh -c "ln -s \"$1\"/* \"$2\" && rm \"$2/dpkg-buildflags\"" - ${dir} ${shadow}
      RESULT_VARIABLE failed)
    if(failed)
      message(FATAL_ERROR "could not make ${shadow}, a copy of ${dir} without dpkg-buildflags")
    endif()
    set(dir ${shadow})
  endif()
  string(APPEND bare_path ":${dir}")
endforeach()
string(SUBSTRING "${bare_path}" 1 -1 bare_path)

function(configure path)
  execute_process(
    COMMAND ${CMAKE_COMMAND} -E env PATH=${path}
      ${CMAKE_COMMAND} -S ${SOURCE} -B ${WORK}/build -G ${GENERATOR} -DCMAKE_MAKE_PROGRAM=${MAKE_PROGRAM}
      -DCMAKE_CXX_COMPILER=${CXX} -DBUILD_TESTING=OFF
    RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "configure failed:\n${out}${err}")
  endif()
  string(REGEX MATCH "-- Hardening:.*" said "${out}")
  set(said "${said}" PARENT_SCOPE)
endfunction()

configure("${bare_path}")
if(said MATCHES "FORTIFY|-z,now")
  message(FATAL_ERROR "dpkg-buildflags was hidden, yet: ${said}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -E chdir ${WORK}/build cpack
  RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
string(REGEX REPLACE "[ \n]+" " " refusal "${out}${err}")
if(status EQUAL 0 OR NOT refusal MATCHES "it has no hardening flags, because dpkg-buildflags \\(dpkg-dev\\) was not on PATH")
  message(FATAL_ERROR "cpack did not refuse the unhardened build (status ${status}):\n${out}${err}")
endif()

configure("$ENV{PATH}")
foreach(flag -D_FORTIFY_SOURCE= -fstack-protector-strong -Wl,-z,relro -Wl,-z,now)
  string(FIND "${said}" "${flag}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "configured again with dpkg-buildflags on PATH, no ${flag}: ${said}")
  endif()
endforeach()
file(STRINGS ${WORK}/build/CPackConfig.cmake refused REGEX "CPACK_DEVUPDATE_UNHARDENED \"[^\"]")
if(refused)
  message(FATAL_ERROR "configured again, still refused: ${refused}")
endif()
file(REMOVE_RECURSE ${WORK})
