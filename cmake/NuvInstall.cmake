# cmake --install and cpack: library, headers, package files for CMake and pkg-config, manual pages.
include( CMakePackageConfigHelpers )

if( NUV_I386 )
    # The directory that Debian gives to this width's libraries on a machine of either.
    set( CMAKE_INSTALL_LIBDIR lib/i386-linux-gnu )
endif()
set( packageDir ${CMAKE_INSTALL_LIBDIR}/cmake/nuvcore )

set_target_properties( nuvcore PROPERTIES EXPORT_NAME nuvcore )
install( TARGETS nuvcore EXPORT nuvcoreTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} )
install( FILES ${NUV_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/nuvcore )
install( EXPORT nuvcoreTargets NAMESPACE nuvcore:: DESTINATION ${packageDir} )

configure_package_config_file( cmake/nuvcoreConfig.cmake.in nuvcoreConfig.cmake INSTALL_DESTINATION ${packageDir} )
write_basic_package_version_file( nuvcoreConfigVersion.cmake COMPATIBILITY SameMajorVersion )
install( FILES ${CMAKE_BINARY_DIR}/nuvcoreConfig.cmake ${CMAKE_BINARY_DIR}/nuvcoreConfigVersion.cmake
         DESTINATION ${packageDir} )

# The prefix is found from the place of the .pc file, so that an unpacked tree works anywhere.
string( REGEX REPLACE "[^/]+" ".." up ${CMAKE_INSTALL_LIBDIR}/pkgconfig )
set( widthFlags )
if( NUV_I386 )
    set( widthFlags " -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64" )
endif()
configure_file( cmake/nuvcore.pc.in nuvcore.pc @ONLY )
install( FILES ${CMAKE_BINARY_DIR}/nuvcore.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig )

file( GLOB manPages CONFIGURE_DEPENDS docs/man/*.1 docs/man/*.3 docs/man/*.5 docs/man/*.8 )
foreach( page IN LISTS manPages )
    string( REGEX MATCH "[0-9]$" section ${page} )
    install( FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} )
endforeach()

set( CPACK_GENERATOR DEB )
set( CPACK_PACKAGE_NAME libnuvcore )
set( CPACK_PACKAGE_CONTACT "nuvcore maintainers <maintainers@nuvcore.invalid>" )
set( CPACK_PACKAGING_INSTALL_PREFIX /usr )
set( CPACK_STRIP_FILES ON )
set( CPACK_DEBIAN_FILE_NAME DEB-DEFAULT )
set( CPACK_DEBIAN_PACKAGE_SECTION libs )
if( NUV_I386 )
    set( CPACK_DEBIAN_PACKAGE_ARCHITECTURE i386 )
    set( CPACK_DEBIAN_PACKAGE_DEPENDS "libc6 (>= 2.36), libstdc++6 (>= 12), libgcc-s1" )
else()
    set( CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64 )
    set( CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON )
endif()
include( CPack )
