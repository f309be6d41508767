# Hardened build: the compiler and linker flags Debian builds its packages with, so that
# what `make test` checks is what `make install` and `make package` ship. dpkg-buildflags
# gives them where it exists (asked for every hardening feature, so that immediate binding
# is in too); stack-clash and control-flow protection are added where the compiler takes
# them and the dpkg-buildflags at hand does not give them yet.
#
# The sanitizer builds leave this out: the fortified libc functions bypass ASan's
# interceptors, and those builds are for finding faults, not for shipping.
option(DEVUPDATE_HARDEN "Build with Debian's hardening flags (dpkg-buildflags where found)"
  ON)
# Why the build lacks Debian's flags, if it does: the packaging step refuses such a build.
set(DEVUPDATE_UNHARDENED "")
if(NOT DEVUPDATE_HARDEN OR DEVUPDATE_SANITIZE)
  set(DEVUPDATE_UNHARDENED "it was configured with DEVUPDATE_HARDEN=OFF or DEVUPDATE_SANITIZE=ON")
  return()
endif()

include(CheckCXXCompilerFlag)

# On PATH only. While it is not found, every configure looks again, so a folder configured
# before dpkg-dev was installed gets the flags at its next configure (`make package` runs one).
find_program(DPKG_BUILDFLAGS dpkg-buildflags NO_CMAKE_SYSTEM_PATH)
mark_as_advanced(DPKG_BUILDFLAGS)
set(hardening_compile "")
set(hardening_link "")
if(DPKG_BUILDFLAGS)
  foreach(kind CPPFLAGS CXXFLAGS LDFLAGS)
    # Run in the source folder: the -ffile-prefix-map it gives maps that folder away.
    execute_process(
      COMMAND ${CMAKE_COMMAND} -E env DEB_BUILD_MAINT_OPTIONS=hardening=+all
              ${DPKG_BUILDFLAGS} --get ${kind}
      WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
      OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE
      RESULT_VARIABLE failed)
    if(failed)
      message(FATAL_ERROR "dpkg-buildflags --get ${kind} failed")
    endif()
    separate_arguments(flags UNIX_COMMAND "${flags}")
    if(kind STREQUAL LDFLAGS)
      list(APPEND hardening_link ${flags})
    else()
      list(APPEND hardening_compile ${flags})
    endif()
  endforeach()
endif()

foreach(flag -fstack-clash-protection -fcf-protection)
  string(MAKE_C_IDENTIFIER "have${flag}" have)
  if(NOT flag IN_LIST hardening_compile)
    check_cxx_compiler_flag(${flag} ${have})
    if(${have})
      list(APPEND hardening_compile ${flag})
    endif()
  endif()
endforeach()

# Neither the source nor the build folder is named in the binaries, whichever they are.
check_cxx_compiler_flag(-ffile-prefix-map=a=b have_file_prefix_map)
if(have_file_prefix_map)
  list(APPEND hardening_compile
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}=.
    -ffile-prefix-map=${PROJECT_BINARY_DIR}=build)
endif()

if(NOT DPKG_BUILDFLAGS)
  set(DEVUPDATE_UNHARDENED "dpkg-buildflags (dpkg-dev) was not on PATH when it was configured")
endif()
# A few flags a line, so that the list reads in a terminal.
set(line "Hardening:")
foreach(flag IN LISTS hardening_compile hardening_link)
  string(LENGTH "${line} ${flag}" length)
  if(length GREATER 100)
    message(STATUS "${line}")
    set(line "          ")
  endif()
  string(APPEND line " ${flag}")
endforeach()
message(STATUS "${line}")
add_compile_options(${hardening_compile})
add_link_options(${hardening_link})
