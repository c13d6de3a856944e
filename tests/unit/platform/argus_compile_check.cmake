# Compiles platform/argus/ArgusAdapter.cpp with -fsyntax-only against the
# Argus headers in HEADERS (and the system's EGL headers). Without them the
# check says so in one line and is reported as skipped.
# Usage: cmake -DCXX=<compiler> -DSOURCE_DIR=<repo> -DHEADERS=<dir> -P argus_compile_check.cmake
if(NOT EXISTS "${HEADERS}/Argus/Argus.h")
    message("Argus adapter compile check skipped: no Argus headers at ${HEADERS}")
    return()
endif()
if(NOT EXISTS "/usr/include/EGL/egl.h")
    message(FATAL_ERROR "Argus headers found but no EGL headers: install libegl-dev")
endif()
execute_process(
    COMMAND ${CXX} -std=c++17 -fsyntax-only -Wall -Wextra -I${SOURCE_DIR} -I${HEADERS}
            ${SOURCE_DIR}/platform/argus/ArgusAdapter.cpp
    RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
message("${out}${err}")
if(NOT result EQUAL 0)
    message(FATAL_ERROR "the Argus adapter does not compile against ${HEADERS}")
endif()
message("Argus adapter compiles against ${HEADERS}")
