# What `cmake --install` puts where, so that others find the library by find_package(TavroNET) and by pkg-config.
include(CMakePackageConfigHelpers)

set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/TavroNET")
set(generated_dir "${PROJECT_BINARY_DIR}/package")

set(libraries tavronet)
get_property(public_headers GLOBAL PROPERTY TAVRONET_PUBLIC_HEADERS)
get_property(own_libraries GLOBAL PROPERTY TAVRONET_OWN_LIBRARIES)
foreach(layer IN LISTS own_libraries)
    get_property(headers GLOBAL PROPERTY TAVRONET_PUBLIC_HEADERS_${layer})
    list(APPEND libraries tavronet-${layer})
    list(APPEND public_headers ${headers})
endforeach()

install(TARGETS ${libraries} EXPORT TavroNETTargets
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}")
install(EXPORT TavroNETTargets NAMESPACE TavroNET:: DESTINATION "${package_dir}")

foreach(header IN LISTS public_headers ITEMS tavronet/tavronet.h)
    cmake_path(GET header PARENT_PATH folder)
    install(FILES "${PROJECT_SOURCE_DIR}/${header}" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/${folder}")
endforeach()

configure_package_config_file("${CMAKE_CURRENT_LIST_DIR}/TavroNETConfig.cmake.in"
    "${generated_dir}/TavroNETConfig.cmake"
    INSTALL_DESTINATION "${package_dir}")
write_basic_package_version_file("${generated_dir}/TavroNETConfigVersion.cmake"
    COMPATIBILITY SameMinorVersion) # before 1.0 a minor version may change the interface
install(FILES "${generated_dir}/TavroNETConfig.cmake" "${generated_dir}/TavroNETConfigVersion.cmake"
    DESTINATION "${package_dir}")

# Relative to the file itself, so that the installed tree may be moved.
file(RELATIVE_PATH pc_to_prefix "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
foreach(library IN LISTS libraries)
    configure_file("${CMAKE_CURRENT_LIST_DIR}/${library}.pc.in" "${generated_dir}/${library}.pc" @ONLY)
    install(FILES "${generated_dir}/${library}.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
endforeach()

if(TAVRONET_BUILD_TOOLS)
    install(TARGETS tavronet_command tavronet-gateway RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
endif()
