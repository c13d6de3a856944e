# Fails when capture or diagnostic code reaches the machine without the seams
# of platform/: direct libusb or hidapi calls, or open/ioctl/mmap system calls.
# A line may carry the marker "seam-exempt" with its reason (lock files under
# /tmp are ordinary files, not devices).
# Usage: cmake -DSOURCE_DIR=<repo> -P check_seams.cmake
if(NOT SOURCE_DIR)
    message(FATAL_ERROR "SOURCE_DIR not set")
endif()
set(areas bh_input diagnostic ai)
set(files "")
foreach(area ${areas})
    file(GLOB_RECURSE found ${SOURCE_DIR}/${area}/*.cpp ${SOURCE_DIR}/${area}/*.h ${SOURCE_DIR}/${area}/*.c)
    list(APPEND files ${found})
endforeach()
# Calls, not types: libusb_xxx( and hid_xxx( ; the system calls with :: or bare.
set(patterns
    "(^|[^A-Za-z0-9_.>])libusb_[a-z_]+[ \t]*\\("
    "(^|[^A-Za-z0-9_.>])hid_[a-z_]+[ \t]*\\("
    "(^|[^A-Za-z0-9_])::(open|ioctl|mmap|munmap|poll|select|close)[ \t]*\\("
    "(^|[^A-Za-z0-9_.>:])(ioctl|mmap|munmap)[ \t]*\\("
    "(^|[^A-Za-z0-9_.>:])f?open[ \t]*\\([ \t]*\"/(dev|sys)/")
set(violations 0)
list(LENGTH files nfiles)
foreach(f ${files})
    file(STRINGS ${f} lines)
    set(n 0)
    foreach(line IN LISTS lines)
        math(EXPR n "${n} + 1")
        # Terminal queries on the standard streams are not hardware.
        if(line MATCHES "seam-exempt" OR line MATCHES "ioctl[ \t]*\\([ \t]*(STDOUT|STDIN|STDERR)_FILENO")
            continue()
        endif()
        string(REGEX REPLACE "//.*$" "" code "${line}")
        foreach(p ${patterns})
            if(code MATCHES "${p}")
                file(RELATIVE_PATH rel ${SOURCE_DIR} ${f})
                message("${rel}:${n}: direct hardware call outside platform/: ${line}")
                math(EXPR violations "${violations} + 1")
                break()
            endif()
        endforeach()
    endforeach()
endforeach()
message("checked ${nfiles} files in ${areas}")
if(violations GREATER 0)
    message(FATAL_ERROR "${violations} direct hardware call(s) outside platform/")
endif()
