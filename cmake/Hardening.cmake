# Hardened build for everything built outside a Debian package (`make build`, `make install`,
# macOS): the hardening flags Debian's packages are built with, each one the compiler and
# linker take. The package build turns this off (debian/rules): dpkg-buildflags gives it its
# flags through debhelper.
#
# The sanitizer builds leave this out: the fortified libc functions bypass ASan's
# interceptors, and those builds are for finding faults, not for shipping.
option(DEVUPDATE_HARDEN "Build with the hardening flags of Debian's packages" ON)
if(NOT DEVUPDATE_HARDEN OR DEVUPDATE_SANITIZE)
  return()
endif()

include(CheckCXXCompilerFlag)
include(CheckLinkerFlag)
include(CheckPIESupported)

# Every compiler of ours (gcc, clang, Apple's clang) has the format checks.
set(hardening_compile -Wformat -Werror=format-security)
set(hardening_link "")
foreach(flag -fstack-protector-strong -fstack-clash-protection -fcf-protection)
  string(MAKE_C_IDENTIFIER "have${flag}" have)
  check_cxx_compiler_flag(${flag} ${have})
  if(${have})
    list(APPEND hardening_compile ${flag})
  endif()
endforeach()
foreach(flag -Wl,-z,relro -Wl,-z,now)
  string(MAKE_C_IDENTIFIER "have${flag}" have)
  check_linker_flag(CXX ${flag} ${have})
  if(${have})
    list(APPEND hardening_link ${flag})
  endif()
endforeach()
string(JOIN " " flags ${hardening_compile} ${hardening_link})
message(STATUS "Hardening: PIE, -D_FORTIFY_SOURCE=2 in optimised builds, ${flags}")

# Position-independent executables, where the linker makes them.
check_pie_supported(LANGUAGES CXX)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
# Fortification needs the optimiser; without it the C library warns and does nothing.
set(optimised $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
add_compile_options(${hardening_compile} $<${optimised}:-U_FORTIFY_SOURCE> $<${optimised}:-D_FORTIFY_SOURCE=2>)
add_link_options(${hardening_link})
