# What `cmake --install` puts where (GNU layout under the prefix):
#   include/cmp_ldap.h, cmp_ldap_version.h, cmp_ldap.hpp    the public headers
#   include/toveistror/platform/*.h                         the interfaces a device port implements
#   include/toveistror/osl_scr_ssl_wrp_posix.h              the POSIX port's TLS mask bits
#   lib/libcmp_ldap.so.0 (+ links)   shared: the core with the POSIX port, only cmp_ldap_* exported
#   lib/libcmp_ldap.a                static: the core alone, for a device's own port
#   lib/libcmp_ldap_port_posix.a     static: the POSIX port
#   lib/cmake/toveistror/, lib/pkgconfig/toveistror.pc       the CMake package and pkg-config
#   bin/toveistror-search, bin/toveistror-probe             the tools
#   share/doc/toveistror/                                   README, porting guide, examples
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(TOVEISTROR_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/toveistror)
set(TOVEISTROR_PLATFORM_INCLUDE ${CMAKE_INSTALL_INCLUDEDIR}/toveistror/platform)

install(FILES cmp_ldap/include/cmp_ldap.h cmp_ldap/include/cmp_ldap.hpp
              ${PROJECT_BINARY_DIR}/include/cmp_ldap_version.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY platform/include/ DESTINATION ${TOVEISTROR_PLATFORM_INCLUDE}
        FILES_MATCHING PATTERN "*.h")

target_include_directories(cmp_ldap INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_include_directories(cmp_ldap_static
  INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
            $<INSTALL_INTERFACE:${TOVEISTROR_PLATFORM_INCLUDE}>)
set(TOVEISTROR_PC_LIBS_PRIVATE "")
set(install_targets cmp_ldap cmp_ldap_static)
if(TOVEISTROR_POSIX_PORT)
  install(FILES platform/posix/osl_scr_ssl_wrp_posix.h
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/toveistror)
  target_include_directories(cmp_ldap_port_posix
    INTERFACE $<INSTALL_INTERFACE:${TOVEISTROR_PLATFORM_INCLUDE}>)
  list(APPEND install_targets cmp_ldap_port_posix)
  string(APPEND TOVEISTROR_PC_LIBS_PRIVATE "-lcmp_ldap_port_posix -lssl -lcrypto ")
endif()
if(TOVEISTROR_SASL)
  # The shared library names them itself; the static core leaves them to the program
  # (in this tree the unit tests link a fake in their place).
  target_link_libraries(cmp_ldap_static INTERFACE $<INSTALL_INTERFACE:sasl2>
                                                  $<INSTALL_INTERFACE:gssapi_krb5>)
  string(APPEND TOVEISTROR_PC_LIBS_PRIVATE "-lsasl2 -lgssapi_krb5 ")
endif()
string(APPEND TOVEISTROR_PC_LIBS_PRIVATE "-pthread")

install(TARGETS ${install_targets} EXPORT toveistror-targets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(EXPORT toveistror-targets NAMESPACE toveistror:: DESTINATION ${TOVEISTROR_CMAKE_DIR})
configure_package_config_file(cmake/toveistror-config.cmake.in
  ${PROJECT_BINARY_DIR}/toveistror-config.cmake INSTALL_DESTINATION ${TOVEISTROR_CMAKE_DIR})
# Before 1.0 a minor release may change the interface; a patch release never does.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/toveistror-config-version.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/toveistror-config.cmake
              ${PROJECT_BINARY_DIR}/toveistror-config-version.cmake
        DESTINATION ${TOVEISTROR_CMAKE_DIR})

# pkg-config finds its prefix from where the file lies, so the tree can be moved.
file(RELATIVE_PATH TOVEISTROR_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" TOVEISTROR_PC_TO_PREFIX ${TOVEISTROR_PC_TO_PREFIX})
configure_file(cmake/toveistror.pc.in ${PROJECT_BINARY_DIR}/toveistror.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/toveistror.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

foreach(tool toveistror-search toveistror-probe)
  if(TARGET ${tool})
    install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endforeach()

install(FILES README.md docs/PORTING.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES examples/search.c examples/search.cpp examples/conntest.c
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
