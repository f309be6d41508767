# Third-party libraries, found the way Debian and Homebrew install them. Every consumer
# links the same targets whichever way they were found: JsonCpp::JsonCpp,
# websocketpp::websocketpp and ASIO_INCLUDE_DIR, gathered in devupdate_stack.

# Homebrew on Apple silicon lives outside CMake's default search prefixes.
if(APPLE)
  list(APPEND CMAKE_PREFIX_PATH /opt/homebrew /usr/local)
endif()

find_package(Threads REQUIRED)

# jsoncpp: its CMake package where the build installed one (Debian), else pkg-config
# (Homebrew builds it with meson, which installs only the .pc file).
find_package(jsoncpp CONFIG QUIET)
if(NOT TARGET JsonCpp::JsonCpp AND TARGET jsoncpp_lib)
  # Packages older than 1.9.5 export only the plain target.
  add_library(JsonCpp::JsonCpp INTERFACE IMPORTED)
  set_target_properties(JsonCpp::JsonCpp PROPERTIES INTERFACE_LINK_LIBRARIES jsoncpp_lib)
endif()
if(NOT TARGET JsonCpp::JsonCpp)
  find_package(PkgConfig REQUIRED)
  pkg_check_modules(JSONCPP REQUIRED IMPORTED_TARGET GLOBAL jsoncpp)
  add_library(JsonCpp::JsonCpp ALIAS PkgConfig::JSONCPP)
  message(STATUS "jsoncpp ${JSONCPP_VERSION} through pkg-config")
endif()

# websocketpp is header-only; its CMake package only names the include folder.
find_package(websocketpp CONFIG QUIET)
if(NOT TARGET websocketpp::websocketpp)
  find_path(WEBSOCKETPP_INCLUDE_DIR websocketpp/version.hpp REQUIRED)
  add_library(websocketpp::websocketpp INTERFACE IMPORTED)
  set_target_properties(websocketpp::websocketpp PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES ${WEBSOCKETPP_INCLUDE_DIR})
endif()

find_path(ASIO_INCLUDE_DIR asio.hpp REQUIRED)
include(${CMAKE_CURRENT_LIST_DIR}/AsioVersion.cmake)
devupdate_check_asio_version(${ASIO_INCLUDE_DIR})

# The WebSocket and JSON stack as one target, for the tool, devsim and the benchmarks.
add_library(devupdate_stack INTERFACE)
target_include_directories(devupdate_stack SYSTEM INTERFACE ${ASIO_INCLUDE_DIR})
target_compile_definitions(devupdate_stack INTERFACE ASIO_STANDALONE)
target_link_libraries(devupdate_stack INTERFACE JsonCpp::JsonCpp websocketpp::websocketpp Threads::Threads)
