# kov_glob_sources(<target> <dir> [EXCLUDE <file>...]): add every .cpp/.h of one
# folder (not its sub-folders) to a library target.
function(kov_glob_sources target dir)
    cmake_parse_arguments(ARG "" "" "EXCLUDE" ${ARGN})
    file(GLOB srcs CONFIGURE_DEPENDS ${dir}/*.cpp ${dir}/*.c ${dir}/*.h ${dir}/*.hpp)
    foreach(ex ${ARG_EXCLUDE})
        list(REMOVE_ITEM srcs ${dir}/${ex})
    endforeach()
    if(srcs)
        target_sources(${target} PRIVATE ${srcs})
    endif()
endfunction()

# kov_unit_test(<name> SOURCES <files...> LIBS <targets...> [ENV <K=V>...] [LABELS <l>...])
# One GoogleTest executable registered with CTest; runs in the sanitizer build too.
function(kov_unit_test name)
    cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBS;ENV;LABELS" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gtest GTest::gmock GTest::gtest_main Threads::Threads)
    target_compile_definitions(${name} PRIVATE KOV_SOURCE_DIR="${PROJECT_SOURCE_DIR}"
                                               KOV_BINARY_DIR="${PROJECT_BINARY_DIR}")
    add_test(NAME ${name} COMMAND ${name})
    set(labels unit ${ARG_LABELS})
    set_tests_properties(${name} PROPERTIES LABELS "${labels}"
        ENVIRONMENT "QT_QPA_PLATFORM=offscreen;KOV_TEST=1;${ARG_ENV}")
    if(ARG_TIMEOUT)
        set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT})
    else()
        set_tests_properties(${name} PROPERTIES TIMEOUT 300)
    endif()
endfunction()
