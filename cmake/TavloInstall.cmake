# `cmake --install` puts the libraries, their headers (under include/<Folder>/) and a package
# configuration into the prefix, so another project can find_package(TavloMessagingSDK).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(tavlo_libraries TavloCoreSDK Dispatch Networking SocketIO TavloMessagingSDK)
install(TARGETS ${tavlo_libraries} EXPORT TavloMessagingSDKTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# Only the headers an application uses are installed: those TavloMessagingSDK.hpp reaches. Each
# folder keeps its private headers in Internal/, and Networking and SocketIO, which no public
# declaration needs, install none (their archives are still installed, for linking).
# scripts/test.d/30-install.sh checks that the installed set is exactly the umbrella's reach.
foreach(folder IN ITEMS TavloCoreSDK Dispatch TavloMessagingSDK)
    file(GLOB public_headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.hpp)
    install(FILES ${public_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${folder})
endforeach()
install(EXPORT TavloMessagingSDKTargets NAMESPACE Tavlo::
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/TavloMessagingSDK)

file(WRITE ${PROJECT_BINARY_DIR}/TavloMessagingSDKConfig.cmake.in [[
@PACKAGE_INIT@
include(CMakeFindDependencyMacro)
find_dependency(Threads)
find_dependency(Boost 1.81 COMPONENTS json)
find_dependency(CURL)
find_dependency(OpenSSL)
include("${CMAKE_CURRENT_LIST_DIR}/TavloMessagingSDKTargets.cmake")
]])
configure_package_config_file(${PROJECT_BINARY_DIR}/TavloMessagingSDKConfig.cmake.in
    ${PROJECT_BINARY_DIR}/TavloMessagingSDKConfig.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/TavloMessagingSDK)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TavloMessagingSDKConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TavloMessagingSDKConfig.cmake
              ${PROJECT_BINARY_DIR}/TavloMessagingSDKConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/TavloMessagingSDK)
