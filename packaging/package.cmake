# Debian package of the collector, made with CPack from the top-level build:
#   cmake --build <dir> --target mcd_main && (cd <dir> && cpack -G DEB)
# gives <dir>/mcd-main_<version>_<arch>.deb.

set(MCD_PACKAGING_DIR ${CMAKE_CURRENT_LIST_DIR})

# The binary itself is installed by the top-level install(TARGETS mcd_main ...) into bin/.
install(FILES ${MCD_PACKAGING_DIR}/mcd_main@.service DESTINATION lib/systemd/system)
install(FILES ${MCD_PACKAGING_DIR}/default DESTINATION /etc/default RENAME mcd_main)
# Documentation: the copyright file, the changelog (gzip -9n, as Debian wants it; a
# native package's changelog is changelog.gz) and the README for the operator.
set(MCD_DOC_DIR share/doc/mcd-main)
set(MCD_CHANGELOG_GZ ${CMAKE_BINARY_DIR}/changelog.gz)
execute_process(COMMAND gzip -9n -c ${MCD_PACKAGING_DIR}/changelog OUTPUT_FILE ${MCD_CHANGELOG_GZ})
install(FILES ${MCD_PACKAGING_DIR}/copyright DESTINATION ${MCD_DOC_DIR})
install(FILES ${MCD_CHANGELOG_GZ} DESTINATION ${MCD_DOC_DIR})
install(FILES ${CMAKE_SOURCE_DIR}/README.md DESTINATION ${MCD_DOC_DIR})
set(MCD_MANPAGE_GZ ${CMAKE_BINARY_DIR}/mcd_main.1.gz)
execute_process(COMMAND gzip -9n -c ${MCD_PACKAGING_DIR}/mcd_main.1 OUTPUT_FILE ${MCD_MANPAGE_GZ})
install(FILES ${MCD_MANPAGE_GZ} DESTINATION share/man/man1)

if(CMAKE_CROSSCOMPILING AND CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  set(MCD_DEB_ARCH armhf)
else()
  find_program(MCD_DPKG dpkg)
  if(MCD_DPKG)
    execute_process(COMMAND ${MCD_DPKG} --print-architecture
                    OUTPUT_VARIABLE MCD_DEB_ARCH OUTPUT_STRIP_TRAILING_WHITESPACE)
  else()
    set(MCD_DEB_ARCH amd64)
  endif()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME mcd-main)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "mcd_main developers <mcd-main@heat-collector.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "heat-meter data collection daemon")
# CPack puts the summary line first; these are the lines of the long description, each
# under 80 columns.
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "Reads the heat meters of one serial line (VKT-7, MTR-06, TM-3E and other
models), taking each meter's configuration from the controller's local
configuration server, and files current values under /tmp and hourly and
daily archive records under /mnt/storage. One systemd instance serves one
line.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${MCD_DEB_ARCH})
set(CPACK_DEBIAN_PACKAGE_SECTION misc)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Written out rather than computed by dpkg-shlibdeps, which cannot see the armhf
# libraries of a cross build: the run-time libraries of Debian 12 the binary links.
set(CPACK_DEBIAN_PACKAGE_DEPENDS
    "libc6 (>= 2.34), libgcc-s1 (>= 3.5), libstdc++6 (>= 12), libjsoncpp25 (>= 1.9.5), libevent-core-2.1-7 (>= 2.1.12-stable), libevent-extra-2.1-7 (>= 2.1.12-stable), libmodbus5 (>= 3.1.6), libsystemd0 (>= 252), passwd, init-system-helpers (>= 1.54)")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${MCD_PACKAGING_DIR}/postinst ${MCD_PACKAGING_DIR}/prerm ${MCD_PACKAGING_DIR}/postrm
    ${MCD_PACKAGING_DIR}/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

include(CPack)
