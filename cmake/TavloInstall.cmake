# `cmake --install` puts the library, its headers (under include/<Folder>/), a CMake package
# configuration and a pkg-config file into the prefix; `cpack` makes Debian packages of the same.
# Components: Runtime (the shared library) and Development (everything a build needs).
include(CMakePackageConfigHelpers)

install(TARGETS TavloMessagingSDK EXPORT TavloMessagingSDKTargets
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Runtime
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime
                NAMELINK_COMPONENT Development
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# Only the headers an application uses are installed: those TavloMessagingSDK.hpp reaches. Each
# folder keeps its private headers in Internal/, and Networking and SocketIO, which no public
# declaration needs, install none. scripts/test.d/30-install.sh checks that the installed set
# is exactly the umbrella's reach.
foreach(folder IN ITEMS TavloCoreSDK Dispatch TavloMessagingSDK)
    file(GLOB public_headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.hpp)
    install(FILES ${public_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${folder}
            COMPONENT Development)
endforeach()

set(tavlo_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/TavloMessagingSDK)
install(EXPORT TavloMessagingSDKTargets NAMESPACE Tavlo:: DESTINATION ${tavlo_cmake_dir}
        COMPONENT Development)

# An application's build is asked only for what the installed headers include (Boost.JSON's
# value type) and threads. A static library also needs libcurl and OpenSSL at link time.
if(BUILD_SHARED_LIBS)
    set(TAVLO_CONFIG_LINK_DEPENDENCIES "")
else()
    set(TAVLO_CONFIG_LINK_DEPENDENCIES "find_dependency(CURL)\nfind_dependency(OpenSSL)")
endif()
if(TAVLO_JSON_IN_SDK)
    set(TAVLO_CONFIG_BOOST "find_dependency(Boost 1.81)")
else()
    set(TAVLO_CONFIG_BOOST "find_dependency(Boost 1.81 COMPONENTS json)")
endif()
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/TavloMessagingSDKConfig.cmake.in
    ${PROJECT_BINARY_DIR}/TavloMessagingSDKConfig.cmake INSTALL_DESTINATION ${tavlo_cmake_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TavloMessagingSDKConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TavloMessagingSDKConfig.cmake
              ${PROJECT_BINARY_DIR}/TavloMessagingSDKConfigVersion.cmake
        DESTINATION ${tavlo_cmake_dir} COMPONENT Development)

# pkg-config: `pkg-config --cflags --libs TavloMessagingSDK` for a shared SDK, with `--static`
# for a static one, whose archive also needs libcurl and OpenSSL (Libs.private: their shared
# libraries; Requires.private would ask for their own static dependencies as well).
if(BUILD_SHARED_LIBS)
    set(TAVLO_PC_LIBS_PRIVATE "")
else()
    set(TAVLO_PC_LIBS_PRIVATE "-lcurl -lssl -lcrypto")
endif()
if(tavlo_shared_definition)
    set(TAVLO_PC_CFLAGS "-DTAVLO_SHARED")
else()
    set(TAVLO_PC_CFLAGS "")
endif()
if(TAVLO_JSON_IN_SDK)
    set(TAVLO_PC_JSON "")
else()
    set(TAVLO_PC_JSON "-lboost_json")
endif()
file(RELATIVE_PATH TAVLO_PC_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" TAVLO_PC_PREFIX "${TAVLO_PC_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/TavloMessagingSDK.pc.in
               ${PROJECT_BINARY_DIR}/TavloMessagingSDK.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/TavloMessagingSDK.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)

# Packages are made of the SDK as a project of its own, not of an application that includes it.
if(PROJECT_IS_TOP_LEVEL)
    include(${PROJECT_SOURCE_DIR}/cmake/TavloPackaging.cmake)
endif()
