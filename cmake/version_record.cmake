# Writes the version record that scripts read as `vornVersion`. Run at every build with OUTPUT, RELEASE, SOURCE_DIR
# and, when the sources are not a git checkout, COMMIT. The file changes only when release or commit do, so that a
# build without changes compiles nothing.
if(NOT COMMIT)
  execute_process(COMMAND git -C ${SOURCE_DIR} rev-parse --verify HEAD
    OUTPUT_VARIABLE COMMIT OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
if(NOT COMMIT MATCHES "^[0-9a-f]+$")
  string(REPEAT 0 40 COMMIT)
endif()

set(key "// ${RELEASE} ${COMMIT}\n")
if(EXISTS ${OUTPUT})
  file(READ ${OUTPUT} old)
  string(FIND "${old}" "${key}" place)
  if(place EQUAL 0)
    return()
  endif()
endif()

# TIMESTAMP honours SOURCE_DATE_EPOCH, so a packager's build can be repeated to the byte.
string(TIMESTAMP date "%Y-%m-%d %H:%M:%S +0000" UTC)
file(WRITE ${OUTPUT} "${key}#define VNJS_RELEASE \"v${RELEASE}\"
#define VNJS_BUILD_DATE \"${date}\"
#define VNJS_COMMIT \"${COMMIT}\"
")
