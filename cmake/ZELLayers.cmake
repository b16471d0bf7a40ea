# Helpers that keep the layers apart: a layer sees its own folder and those of the layers it links, so an
# include that runs upward does not compile and a call that runs upward does not link.

add_library(zel_options INTERFACE)
target_compile_options(zel_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor
    -Woverloaded-virtual $<$<BOOL:${ZEL_WERROR}>:-Werror>)
if(ZEL_SANITIZE)
    target_compile_options(zel_options INTERFACE -fsanitize=${ZEL_SANITIZE} -fno-omit-frame-pointer
        -fno-sanitize-recover=undefined)
    target_link_options(zel_options INTERFACE -fsanitize=${ZEL_SANITIZE})
endif()

# zel_add_layer(NAME [FOLDER folder] [UNITS unit...] [LINK public...] [PRIVATE private...])
# A static library zel_NAME of the folder's units, of all of them by default; a folder of headers alone is an interface.
function(zel_add_layer name)
    cmake_parse_arguments(ARG "" "FOLDER" "UNITS;LINK;PRIVATE" ${ARGN})
    if(NOT ARG_FOLDER)
        set(ARG_FOLDER ${name})
    endif()
    if(NOT ARG_UNITS)
        set(ARG_UNITS *)
    endif()
    list(TRANSFORM ARG_UNITS PREPEND ${CMAKE_SOURCE_DIR}/${ARG_FOLDER}/)
    list(TRANSFORM ARG_UNITS APPEND .cpp OUTPUT_VARIABLE sources)
    list(TRANSFORM ARG_UNITS APPEND .h OUTPUT_VARIABLE headers)
    file(GLOB sources CONFIGURE_DEPENDS ${sources})
    file(GLOB headers CONFIGURE_DEPENDS ${headers})
    if(sources)
        add_library(zel_${name} STATIC ${sources} ${headers})
        set(scope PUBLIC)
        target_link_libraries(zel_${name} PRIVATE zel_options ${ARG_PRIVATE})
    else()
        add_library(zel_${name} INTERFACE ${headers})
        set(scope INTERFACE)
    endif()
    target_include_directories(zel_${name} ${scope} ${CMAKE_SOURCE_DIR}/${ARG_FOLDER})
    target_link_libraries(zel_${name} ${scope} ${ARG_LINK})
endfunction()

# zel_add_tests(LAYER LINK libraries...): every tst_*.cpp of tests/LAYER becomes one executable and one test.
# The thread sanitizer takes QProcess's vfork for a fork of the test itself, hence die_after_fork.
function(zel_add_tests layer)
    cmake_parse_arguments(ARG "" "" "LINK" ${ARGN})
    file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${layer}/tst_*.cpp)
    foreach(source ${sources})
        get_filename_component(unit ${source} NAME_WE)
        string(REPLACE "tst_" "" unit ${unit})
        add_executable(tst_${layer}_${unit} ${source} QuietLog.cpp)
        set_target_properties(tst_${layer}_${unit} PROPERTIES
            RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
        target_link_libraries(tst_${layer}_${unit} PRIVATE zel_options ${ARG_LINK} Qt6::Test)
        add_test(NAME ${layer}.${unit} COMMAND tst_${layer}_${unit})
        set_tests_properties(${layer}.${unit} PROPERTIES TIMEOUT 300
            ENVIRONMENT "ASAN_OPTIONS=allocator_may_return_null=1;TSAN_OPTIONS=die_after_fork=0:suppressions=${CMAKE_SOURCE_DIR}/tests/tsan.supp;LSAN_OPTIONS=print_suppressions=0:suppressions=${CMAKE_SOURCE_DIR}/tests/lsan.supp;QT_QPA_PLATFORM=offscreen;QTWEBENGINE_DISABLE_SANDBOX=1")
    endforeach()
endfunction()
