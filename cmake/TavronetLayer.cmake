# The building blocks: layers, the shared library made of them, and their tests.

set_property(GLOBAL PROPERTY TAVRONET_LAYERS "")
set_property(GLOBAL PROPERTY TAVRONET_LIBRARIES "")
set_property(GLOBAL PROPERTY TAVRONET_PUBLIC_HEADERS "")
set_property(GLOBAL PROPERTY TAVRONET_OWN_LIBRARIES "")

# Whether the optimised library is compiled as one unit. Its layers are small classes that call one another on the path of
# every message; as separate units those calls go through the table of exported functions.
set(TAVRONET_WHOLE_PROGRAM OFF)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_BUILD_TYPE MATCHES "^Rel" AND NOT TAVRONET_SANITIZE)
    set(TAVRONET_WHOLE_PROGRAM ON)
endif()

# tavronet_layer(net DEPENDS platform
#     SOURCES AddressText.cpp ...
#     PUBLIC_HEADERS AddressText.h ...    installed as tavronet/net/AddressText.h; other headers stay internal
#     LIBRARIES ...)                      libraries from outside, if any
# makes the static target tavronet_net, which carries its include root and everything below it.
#     [OWN_LIBRARY]                       not part of the shared library; see tavronet_own_library
function(tavronet_layer name)
    cmake_parse_arguments(PARSE_ARGV 1 layer "OWN_LIBRARY" "" "DEPENDS;SOURCES;PUBLIC_HEADERS;LIBRARIES")
    if(layer_UNPARSED_ARGUMENTS)
        message(FATAL_ERROR "tavronet_layer(${name}): unexpected ${layer_UNPARSED_ARGUMENTS}")
    endif()
    set_property(GLOBAL PROPERTY TAVRONET_DEPENDS_${name} ${layer_DEPENDS})
    list(TRANSFORM layer_DEPENDS PREPEND "tavronet_")

    add_library(tavronet_${name} STATIC ${layer_SOURCES})
    target_include_directories(tavronet_${name} PUBLIC "${PROJECT_SOURCE_DIR}")
    target_compile_features(tavronet_${name} PUBLIC cxx_std_20)
    target_link_libraries(tavronet_${name} PUBLIC ${layer_DEPENDS} PRIVATE ${layer_LIBRARIES})
    if(TAVRONET_WHOLE_PROGRAM) # fat objects: the tests link a layer as it is
        target_compile_options(tavronet_${name} PRIVATE -flto -ffat-lto-objects -fno-semantic-interposition)
    endif()

    set(headers "${layer_PUBLIC_HEADERS}")
    list(TRANSFORM headers PREPEND "tavronet/${name}/")
    if(layer_OWN_LIBRARY)
        set_property(GLOBAL APPEND PROPERTY TAVRONET_OWN_LIBRARIES ${name})
        set_property(GLOBAL PROPERTY TAVRONET_PUBLIC_HEADERS_${name} ${headers})
        set_property(GLOBAL PROPERTY TAVRONET_LIBRARIES_${name} ${layer_LIBRARIES})
        return()
    endif()
    set_property(GLOBAL APPEND PROPERTY TAVRONET_LAYERS ${name})
    set_property(GLOBAL APPEND PROPERTY TAVRONET_LIBRARIES ${layer_LIBRARIES})
    set_property(GLOBAL APPEND PROPERTY TAVRONET_PUBLIC_HEADERS ${headers})
endfunction()

# What both kinds of shared library have in common.
function(tavronet_shared_settings target export_name)
    add_library(TavroNET::${export_name} ALIAS ${target})
    set_target_properties(${target} PROPERTIES
        LINKER_LANGUAGE CXX
        EXPORT_NAME ${export_name}
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR})
    target_include_directories(${target} PUBLIC
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    target_compile_features(${target} INTERFACE cxx_std_20) # asks nothing of C sources
    if(TAVRONET_WHOLE_PROGRAM)
        target_link_options(${target} PRIVATE -flto=auto "LINKER:-Bsymbolic-functions")
    endif()

    set(map "${PROJECT_SOURCE_DIR}/cmake/tavronet.map")
    target_link_options(${target} PRIVATE "LINKER:--version-script=${map}")
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS "${map}")
    if(NOT TAVRONET_SANITIZE)
        target_link_options(${target} PRIVATE "LINKER:--no-undefined") # a sanitizer's run-time sits in the program
    endif()
endfunction()

# The shared library TavroNET::TavroNET, made of the objects of all layers.
function(tavronet_shared_library)
    get_property(layers GLOBAL PROPERTY TAVRONET_LAYERS)
    get_property(libraries GLOBAL PROPERTY TAVRONET_LIBRARIES)
    add_library(tavronet SHARED)
    foreach(layer IN LISTS layers)
        target_sources(tavronet PRIVATE $<TARGET_OBJECTS:tavronet_${layer}>)
    endforeach()
    target_link_libraries(tavronet PRIVATE ${libraries})
    tavronet_shared_settings(tavronet TavroNET)
endfunction()

# tavronet_own_library(openssl OpenSSL) makes the shared library TavroNET::OpenSSL of one layer, beside TavroNET::TavroNET,
# so that programs which do not use it need not have what it links.
function(tavronet_own_library layer export_name)
    get_property(libraries GLOBAL PROPERTY TAVRONET_LIBRARIES_${layer})
    set(target tavronet-${layer})
    add_library(${target} SHARED $<TARGET_OBJECTS:tavronet_${layer}>)
    target_link_libraries(${target} PUBLIC tavronet PRIVATE ${libraries})
    tavronet_shared_settings(${target} ${export_name})
endfunction()

# What the tsan preset builds.
add_custom_target(thread_tests)

# tavronet_test(net_tests LAYER net
#     SOURCES AddressTextTest.cpp ...
#     [LIBRARIES ...]       more libraries
#     [LABELS ...]          CTest labels beside the layer's name; "threads" also runs in the tsan preset
#     [TIMEOUT seconds]     60 when not given
#     [IN_LAN]              run each test on a private LAN of its own (scripts/with-lan), skipped where network
#                           namespaces are refused. For everything that searches.
#     [LAN_OPTIONS ...])    options for scripts/with-lan, for example -n 2
# makes an executable that links the layer, everything below it, GoogleTest and tests/support.
function(tavronet_test name)
    cmake_parse_arguments(PARSE_ARGV 1 test "IN_LAN" "LAYER;TIMEOUT" "SOURCES;LIBRARIES;LABELS;LAN_OPTIONS")
    if(test_UNPARSED_ARGUMENTS)
        message(FATAL_ERROR "tavronet_test(${name}): unexpected ${test_UNPARSED_ARGUMENTS}")
    endif()
    if(NOT test_TIMEOUT)
        set(test_TIMEOUT 60)
    endif()
    set(layer_target "")
    if(test_LAYER)
        set(layer_target tavronet_${test_LAYER})
    endif()

    add_executable(${name} ${test_SOURCES})
    set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/bin/tests")
    target_link_libraries(${name} PRIVATE
        tavronet_test_support ${layer_target} ${test_LIBRARIES} GTest::gmock GTest::gtest_main)

    if(TAVRONET_WHOLE_PROGRAM) # whole-program optimisation of every test program would take minutes
        target_link_options(${name} PRIVATE -fno-lto -fno-use-linker-plugin)
    endif()

    if(test_IN_LAN)
        set_target_properties(${name} PROPERTIES
            CROSSCOMPILING_EMULATOR "${PROJECT_SOURCE_DIR}/tests/support/run-in-lan;${test_LAN_OPTIONS};--")
    endif()
    if("threads" IN_LIST test_LABELS)
        add_dependencies(thread_tests ${name})
    endif()
    # One label, since the properties that test discovery passes on cannot hold a list; ctest -L finds a part of it.
    set(labels ${test_LAYER} ${test_LABELS})
    if(NOT labels)
        set(labels ${name})
    endif()
    list(JOIN labels "." label)
    # Asked for when CTest starts and not while building: a test program that cannot start fails as a test.
    gtest_discover_tests(${name}
        DISCOVERY_MODE PRE_TEST
        DISCOVERY_TIMEOUT 60
        PROPERTIES TIMEOUT ${test_TIMEOUT} LABELS "${label}" SKIP_RETURN_CODE 77)
endfunction()
