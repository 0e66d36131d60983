# Debian packages (cpack -G DEB in the build directory):
#   velatool  the program, its systemd unit and defaults (armhf, amd64)
#   velasim   the simulated instrument for client developers (native builds)
include(GNUInstallDirs)

set(VELA_PKG_VERSION 1.00-32) # the program's VELATOOL_VERSION
set(VELA_PKG_DIR ${PROJECT_SOURCE_DIR}/packaging)

# The Debian changelog and copyright of a package, as policy places them.
function(vela_package_docs component)
  set(gz ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian.gz)
  add_custom_command(OUTPUT ${gz}
    COMMAND gzip -9nc ${VELA_PKG_DIR}/changelog.Debian > ${gz}
    DEPENDS ${VELA_PKG_DIR}/changelog.Debian)
  if(NOT TARGET vela_changelog)
    add_custom_target(vela_changelog ALL DEPENDS ${gz})
  endif()
  install(FILES ${gz} ${VELA_PKG_DIR}/copyright
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${component} COMPONENT ${component})
endfunction()

install(TARGETS velatool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT velatool)
install(FILES ${VELA_PKG_DIR}/velatool.service DESTINATION /lib/systemd/system COMPONENT velatool)
install(FILES ${VELA_PKG_DIR}/velatool.default DESTINATION /etc/default RENAME velatool COMPONENT velatool)
vela_package_docs(velatool)
set(components velatool)

if(TARGET velasim AND NOT CMAKE_CROSSCOMPILING)
  install(TARGETS velasim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT velasim)
  install(TARGETS velasim_preload LIBRARY DESTINATION lib/velasim COMPONENT velasim)
  install(PROGRAMS ${VELA_PKG_DIR}/velasim-instrument DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT velasim)
  vela_package_docs(velasim)
  list(APPEND components velasim)
endif()

# The size of the program as shipped (stripped), printed by every build.
if(CMAKE_STRIP)
  add_custom_command(TARGET velatool POST_BUILD
    COMMAND ${CMAKE_STRIP} -o velatool.stripped $<TARGET_FILE:velatool>
    COMMAND sh -c "echo velatool for ${CMAKE_SYSTEM_PROCESSOR}, stripped: $(stat -c %s velatool.stripped) bytes"
    WORKING_DIRECTORY ${CMAKE_BINARY_DIR} VERBATIM)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME velatool)
set(CPACK_PACKAGE_VERSION ${VELA_PKG_VERSION})
set(CPACK_PACKAGE_CONTACT "The velatool developers <maintainers@users.noreply.c-seed-e29f8a1c.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL ${components})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_VERSION ${VELA_PKG_VERSION})
set(CPACK_DEBIAN_PACKAGE_SECTION misc)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_VELATOOL_PACKAGE_NAME velatool)
set(CPACK_COMPONENT_VELATOOL_DESCRIPTION "service program of the portable measuring instrument
velatool drives the probe, samples it through the PRU co-processors and
serves the instrument's operating software over TCP (velatool -r). The
package runs the server at boot with a systemd unit.")
set(CPACK_DEBIAN_VELATOOL_PACKAGE_CONTROL_EXTRA ${VELA_PKG_DIR}/maintscript/conffiles
  ${VELA_PKG_DIR}/maintscript/postinst ${VELA_PKG_DIR}/maintscript/prerm ${VELA_PKG_DIR}/maintscript/postrm)

set(CPACK_DEBIAN_VELASIM_PACKAGE_NAME velasim)
set(CPACK_DEBIAN_VELASIM_PACKAGE_SECTION devel)
set(CPACK_COMPONENT_VELASIM_DESCRIPTION "simulated measuring instrument for client developers
velasim runs the unchanged velatool against a simulated board: probe,
drive, battery, charger, buttons and clock. velasim-instrument starts an
instrument whose server answers on TCP port 7073.")
set(CPACK_DEBIAN_VELASIM_PACKAGE_DEPENDS "velatool (= ${VELA_PKG_VERSION})")

if(CMAKE_CROSSCOMPILING)
  # dpkg-shlibdeps needs the target's libraries installed in the package
  # database; the cross build has them in its sysroot only. These are what
  # readelf -d lists as NEEDED for the armhf program.
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
  set(CPACK_DEBIAN_VELATOOL_PACKAGE_DEPENDS
    "init-system-helpers (>= 1.54~), libc6 (>= 2.34), libgcc-s1 (>= 3.5), libstdc++6 (>= 12), zlib1g (>= 1:1.2.0)")
else()
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_VELATOOL_PACKAGE_DEPENDS "init-system-helpers (>= 1.54~)")
endif()

# Packaging needs only what it installs: a build tree whose tests were not
# built (the default preset in scripts/test.sh) still packs.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)
include(CPack)

if(NOT VELA_SANITIZE)
  add_test(NAME packaging.debs COMMAND bash ${PROJECT_SOURCE_DIR}/tests/packaging/check_debs.sh ${CMAKE_BINARY_DIR})
  set_tests_properties(packaging.debs PROPERTIES TIMEOUT 600)
endif()
