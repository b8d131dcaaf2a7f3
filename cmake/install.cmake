# What an installation holds: the program, the library with its one public header, a CMake package, a pkg-config file,
# the man page, completions and the examples; and the Debian package of the same (cpack -G DEB).

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Libraries of the distribution that the archive needs (tools/packages.txt).
set(TORVALE_ARCHIVES z sqlite3 zstd sleef)

# The library is all rooms in one archive. Their own targets stay inside.
add_library(torvale_library STATIC)
set_target_properties(torvale_library PROPERTIES OUTPUT_NAME torvale EXPORT_NAME torvale LINKER_LANGUAGE CXX
                                                 ARCHIVE_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/lib")
add_library(torvale::torvale ALIAS torvale_library)
target_include_directories(torvale_library INTERFACE
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_compile_features(torvale_library INTERFACE cxx_std_20)
list(TRANSFORM TORVALE_ROOMS PREPEND torvale_ OUTPUT_VARIABLE parts)
list(TRANSFORM TORVALE_KERNEL_BUILDS PREPEND torvale_kernels_ OUTPUT_VARIABLE kernel_parts)
foreach(part IN LISTS parts kernel_parts ITEMS torvale_engine_kernels torvale_catalogue torvale_optimizer_messages)
  if(TARGET ${part})
    get_target_property(sources ${part} SOURCES)
    if(sources)
      target_sources(torvale_library PRIVATE $<TARGET_OBJECTS:${part}>)
    endif()
  endif()
endforeach()
find_package(Threads REQUIRED)
target_link_libraries(torvale_library INTERFACE ${TORVALE_ARCHIVES} Threads::Threads)

install(TARGETS torvale_library EXPORT torvale-targets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES "${PROJECT_SOURCE_DIR}/include/torvale/torvale.h" DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/torvale)
install(EXPORT torvale-targets NAMESPACE torvale:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/torvale)
configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/torvale-config.cmake.in" torvale-config.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/torvale)
write_basic_package_version_file(torvale-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/torvale-config.cmake" "${CMAKE_CURRENT_BINARY_DIR}/torvale-config-version.cmake"
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/torvale)
list(TRANSFORM TORVALE_ARCHIVES PREPEND "-l" OUTPUT_VARIABLE TORVALE_PC_LIBRARIES)
list(JOIN TORVALE_PC_LIBRARIES " " TORVALE_PC_LIBRARIES)
configure_file("${PROJECT_SOURCE_DIR}/cmake/torvale.pc.in" torvale.pc @ONLY)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/torvale.pc" DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(TORVALE_APP)
  install(FILES "${PROJECT_SOURCE_DIR}/docs/torvale.1" DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  install(FILES "${PROJECT_SOURCE_DIR}/tools/completions/torvale.bash" RENAME torvale
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
  install(FILES "${PROJECT_SOURCE_DIR}/tools/completions/_torvale" DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
  install(FILES "${PROJECT_SOURCE_DIR}/tools/completions/torvale.fish"
          DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
  install(FILES "${TORVALE_GENERATED}/torvale.tmLanguage.json" DESTINATION ${CMAKE_INSTALL_DATADIR}/torvale)
  install(DIRECTORY "${PROJECT_SOURCE_DIR}/examples/" DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples
          FILES_MATCHING PATTERN "*.tvl" PATTERN "*.csv" PATTERN "*.cpp" PATTERN "*.txt" PATTERN "README.md")
endif()

set(CPACK_PACKAGE_NAME torvale)
set(CPACK_PACKAGE_VENDOR "the Torvale engineers")
set(CPACK_PACKAGE_CONTACT "the Torvale engineers <torvale@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "nonlinear mixed models by maximum likelihood")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_GENERATOR DEB)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION math)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON) # the program's libraries
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "libsleef-dev, libsqlite3-dev, zlib1g-dev, libzstd-dev")
include(CPack)
