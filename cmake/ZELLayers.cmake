# Helpers that keep the rooms apart. A room is a folder with a static library of its own. Other rooms include its
# headers by its name ("net/URLSession.h"), and only those that link it can: for each room the build folder has one
# folder of its name with links to its headers, which comes with the library; rooms inside the room's folder are not
# among them. So an include by name that runs upward is not found, and a call that runs upward does not link. What is
# left is a path from the source's own place: nothing keeps "../ui/Texts.h" away, or, in platform's own sources,
# "net/URLSession.h".

add_library(zel_options INTERFACE)
target_compile_options(zel_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor
    -Woverloaded-virtual $<$<BOOL:${ZEL_WERROR}>:-Werror>)
if(ZEL_SANITIZE)
    target_compile_options(zel_options INTERFACE -fsanitize=${ZEL_SANITIZE} -fno-omit-frame-pointer
        -fno-sanitize-recover=undefined)
    target_link_options(zel_options INTERFACE -fsanitize=${ZEL_SANITIZE})
endif()

# zel_add_room(NAME [UNITS unit...] [PUBLIC_HEADERS header...] [CLASS_HEADERS class=header...] [LINK public...]
#     [PRIVATE private...])
# A static library zel_NAME of the units in the current folder, each of them NAME.cpp, NAME.h or both. Public headers
# are installed; rooms see them as hosts do, too: <ZELUpdater/header>. Where a public header has several classes, hosts
# still find each by its name: CLASS_HEADERS makes and installs a class.h that only includes the header.
function(zel_add_room name)
    cmake_parse_arguments(ARG "" "" "UNITS;PUBLIC_HEADERS;CLASS_HEADERS;LINK;PRIVATE" ${ARGN})
    set(files "")
    foreach(unit ${ARG_UNITS})
        file(GLOB unit_files ${unit}.cpp ${unit}.h)
        if(NOT unit_files)
            message(FATAL_ERROR "${CMAKE_CURRENT_SOURCE_DIR} has no ${unit}.cpp and no ${unit}.h")
        endif()
        list(APPEND files ${unit_files})
    endforeach()
    set(includes ${CMAKE_BINARY_DIR}/rooms/${name})
    file(MAKE_DIRECTORY ${includes}/ZELUpdater)
    get_filename_component(folder ${CMAKE_CURRENT_SOURCE_DIR} NAME)
    if(IS_SYMLINK ${includes}/${folder}) # of a build folder from when it led to all that the room's folder holds
        file(REMOVE ${includes}/${folder})
    endif()
    file(MAKE_DIRECTORY ${includes}/${folder})
    foreach(file ${files})
        get_filename_component(file_name ${file} NAME)
        if(file MATCHES "\\.h$")
            file(CREATE_LINK ${file} ${includes}/${folder}/${file_name} SYMBOLIC)
        endif()
    endforeach()
    foreach(header ${ARG_PUBLIC_HEADERS})
        file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR}/${header} ${includes}/ZELUpdater/${header} SYMBOLIC)
    endforeach()
    set(class_headers "")
    foreach(pair ${ARG_CLASS_HEADERS})
        string(REGEX MATCH "^(.+)=(.+)$" pair "${pair}")
        set(file ${includes}/ZELUpdater/${CMAKE_MATCH_1}.h)
        if(IS_SYMLINK ${file}) # of a build folder from when the class had a header of its own
            file(REMOVE ${file})
        endif()
        file(CONFIGURE OUTPUT ${file} CONTENT "#include <ZELUpdater/${CMAKE_MATCH_2}> // ${CMAKE_MATCH_1}\n")
        list(APPEND class_headers ${file})
    endforeach()

    if(files MATCHES "\\.cpp")
        add_library(zel_${name} STATIC ${files})
        set(scope PUBLIC)
        target_link_libraries(zel_${name} PRIVATE zel_options ${ARG_PRIVATE})
    else()
        add_library(zel_${name} INTERFACE ${files})
        set(scope INTERFACE)
    endif()
    target_include_directories(zel_${name} ${scope} ${includes})
    target_link_libraries(zel_${name} ${scope} ${ARG_LINK})
    list(TRANSFORM ARG_PUBLIC_HEADERS PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
    set_target_properties(zel_${name} PROPERTIES ZEL_PUBLIC_HEADERS "${ARG_PUBLIC_HEADERS};${class_headers}")
endfunction()

# zel_add_tests(ROOM LINK libraries...): every tst_*.cpp of tests/ROOM becomes one executable and one test.
# The thread sanitizer takes QProcess's vfork for a fork of the test itself, hence die_after_fork.
function(zel_add_tests room)
    cmake_parse_arguments(ARG "" "" "LINK" ${ARGN})
    file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${room}/tst_*.cpp)
    foreach(source ${sources})
        get_filename_component(unit ${source} NAME_WE)
        string(REPLACE "tst_" "" unit ${unit})
        add_executable(tst_${room}_${unit} ${source} QuietLog.cpp)
        set_target_properties(tst_${room}_${unit} PROPERTIES
            RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
        target_link_libraries(tst_${room}_${unit} PRIVATE zel_options ${ARG_LINK} zel_support Qt6::Test)
        add_test(NAME ${room}.${unit} COMMAND tst_${room}_${unit})
        set(environment ASAN_OPTIONS=allocator_may_return_null=1
            TSAN_OPTIONS=die_after_fork=0:suppressions=${CMAKE_SOURCE_DIR}/tests/tsan.supp
            LSAN_OPTIONS=print_suppressions=0:suppressions=${CMAKE_SOURCE_DIR}/tests/lsan.supp
            QT_QPA_PLATFORM=offscreen QTWEBENGINE_DISABLE_SANDBOX=1)
        set_tests_properties(${room}.${unit} PROPERTIES TIMEOUT 300 ENVIRONMENT "${environment}")
    endforeach()
endfunction()
