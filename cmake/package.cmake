# `cpack` in a build folder makes a package of it where debhelper is not at hand. It installs, asks
# and runs the same as the one of debian/, which is what Debian's own tools make and lintian reads.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_NAME wexd)
set(CPACK_PACKAGE_CONTACT "wexd maintainers <wexd@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "I/O port daemon")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "dbus | dbus-broker, init-system-helpers (>= 1.52), systemd")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS udev)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(control ${PROJECT_BINARY_DIR}/package-control)
foreach(script postinst prerm postrm)
  configure_file(debian/wexd.${script} ${control}/${script} COPYONLY)
endforeach()
file(GENERATE OUTPUT ${control}/conffiles CONTENT
"/etc/wexd/actions/com.norv.action.fixed.io.toggle.xml
/etc/wexd/actions/com.norv.action.unlimited.io.toggle.xml
")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${control}/postinst ${control}/prerm ${control}/postrm ${control}/conffiles)
include(CPack)
