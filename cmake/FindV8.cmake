# Finds the JavaScript engine in Debian's libnode-dev: V8::V8, V8_VERSION.
find_path(V8_INCLUDE_DIR v8.h PATH_SUFFIXES nodejs/deps/v8/include)
find_library(V8_LIBRARY node)
if(V8_INCLUDE_DIR)
  file(STRINGS ${V8_INCLUDE_DIR}/v8-version.h V8_VERSION_LINES REGEX "#define V8_(MAJOR|MINOR|BUILD)")
  string(REGEX REPLACE "[^0-9;]*8_[A-Z_]+ ([0-9]+)" "\\1" V8_VERSION "${V8_VERSION_LINES}")
  string(REPLACE ";" "." V8_VERSION "${V8_VERSION}")
endif()
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(V8 REQUIRED_VARS V8_LIBRARY V8_INCLUDE_DIR VERSION_VAR V8_VERSION)
if(V8_FOUND AND NOT TARGET V8::V8)
  add_library(V8::V8 UNKNOWN IMPORTED)
  set_target_properties(V8::V8 PROPERTIES
    IMPORTED_LOCATION ${V8_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${V8_INCLUDE_DIR})
endif()
mark_as_advanced(V8_INCLUDE_DIR V8_LIBRARY)
