# The SDK ships as one library, TavloMessagingSDK (static, or shared with
# -DBUILD_SHARED_LIBS=ON), which is what applications, packagers and pkg-config want. Inside the
# build each folder compiles into an object library of its own: every .cpp in it and in its
# Internal/ folder, headers beside the sources, includes written from the repository root
# (#include "Dispatch/SerialQueue.hpp"). The folders keep their one-way dependencies through the
# object libraries' link lines; the product library is made from all their objects.
set(tavlo_object_libraries)

# TAVLO_SHARED switches TAVLO_EXPORT to dllexport/dllimport, which only a Windows DLL needs.
# Elsewhere the objects of a static and a shared SDK are then the same, and one compiler cache
# serves both.
if(BUILD_SHARED_LIBS AND (WIN32 OR CYGWIN))
    set(tavlo_shared_definition TAVLO_SHARED)
else()
    set(tavlo_shared_definition "")
endif()

function(tavlo_library name folder)
    file(GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.cpp
                                        ${PROJECT_SOURCE_DIR}/${folder}/Internal/*.cpp)
    add_library(${name} OBJECT ${sources})
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
    target_link_libraries(${name} PUBLIC ${ARGN})
    target_compile_definitions(${name} PUBLIC BOOST_ASIO_NO_DEPRECATED
                                              ${tavlo_shared_definition}
                                       PRIVATE TAVLO_BUILDING_SDK)
    # Only what TAVLO_EXPORT marks (TavloCoreSDK/TVKExport.hpp) leaves a shared library.
    set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ON
        CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
    list(APPEND tavlo_object_libraries ${name})
    set(tavlo_object_libraries ${tavlo_object_libraries} PARENT_SCOPE)
endfunction()

# The product: every folder's objects. Its interface is what the installed headers need (the
# headers, Boost.JSON's value type, threads); libcurl, OpenSSL and Beast stay private (a static
# library still passes them on to the application's link line, as link-only dependencies).
function(tavlo_product name)
    set(objects)
    foreach(library IN LISTS tavlo_object_libraries)
        list(APPEND objects $<TARGET_OBJECTS:${library}>)
    endforeach()
    add_library(${name} ${objects})
    add_library(Tavlo::${name} ALIAS ${name})
    target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
                                              $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    target_compile_definitions(${name} INTERFACE ${tavlo_shared_definition})
    target_link_libraries(${name} PUBLIC Boost::headers ${tavlo_json_library} Threads::Threads
                                  PRIVATE ${tavlo_private_dependencies})
    set_target_properties(${name} PROPERTIES
        VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
        CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
    # What leaves the shared library beyond hidden visibility's choice: ELF takes a version
    # script, Apple's linker a list of exported symbols; both name the tavlo:: interface alone.
    if(BUILD_SHARED_LIBS AND APPLE)
        set(exports ${PROJECT_SOURCE_DIR}/cmake/TavloMessagingSDK.exports)
        target_link_options(${name} PRIVATE "LINKER:-exported_symbols_list,${exports}")
        set_property(TARGET ${name} APPEND PROPERTY LINK_DEPENDS ${exports})
    elseif(BUILD_SHARED_LIBS AND NOT WIN32)
        set(map ${PROJECT_SOURCE_DIR}/cmake/TavloMessagingSDK.map)
        target_link_options(${name} PRIVATE "LINKER:--version-script=${map}")
        set_property(TARGET ${name} APPEND PROPERTY LINK_DEPENDS ${map})
    endif()

    # What the SDK's own tests, benchmarks and fuzzers link: they reach private classes, which a
    # shared library does not export, so they get the same objects as a static archive then.
    if(BUILD_SHARED_LIBS)
        add_library(${name}Internals STATIC ${objects})
        target_link_libraries(${name}Internals PUBLIC Boost::headers ${tavlo_json_library}
                                               Threads::Threads ${tavlo_private_dependencies})
    else()
        add_library(${name}Internals INTERFACE)
        target_link_libraries(${name}Internals INTERFACE ${name} ${tavlo_private_dependencies})
    endif()
    target_include_directories(${name}Internals INTERFACE ${PROJECT_SOURCE_DIR})
    target_compile_definitions(${name}Internals INTERFACE BOOST_ASIO_NO_DEPRECATED
                               ${tavlo_shared_definition})
endfunction()
