# Boost, headers only: Exception, Locale on Linux, and Algorithm in the tests. The cross build gets an
# include folder with only Boost in it: it must not see the host's other headers.

if(MINGW)
  find_path(ZAN_BOOST_ROOT boost/exception/all.hpp
    PATHS /usr/include NO_CMAKE_FIND_ROOT_PATH NO_DEFAULT_PATH REQUIRED)
  file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/boost)
  file(CREATE_LINK ${ZAN_BOOST_ROOT}/boost ${PROJECT_BINARY_DIR}/boost/boost SYMBOLIC)
  include_directories(SYSTEM ${PROJECT_BINARY_DIR}/boost)
else()
  find_path(ZAN_BOOST_ROOT boost/exception/all.hpp REQUIRED)
  include_directories(SYSTEM ${ZAN_BOOST_ROOT})
  file(STRINGS ${ZAN_BOOST_ROOT}/boost/version.hpp ZAN_BOOST_VERSION REGEX "#define BOOST_VERSION ")
  string(REGEX MATCH "[0-9]+$" ZAN_BOOST_VERSION "${ZAN_BOOST_VERSION}")
  if(MSVC AND ZAN_BOOST_VERSION LESS 107600)
    message(FATAL_ERROR "Boost 1.76 or later is needed: older ones print the HRESULT last")
  endif()
endif()
