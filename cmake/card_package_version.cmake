# Read by cpack: the package version from the build's VERSION file, with
# "-" (not allowed before a Debian revision) turned into "+".
file(STRINGS ${CPACK_AVRECORD_VERSION_FILE} version LIMIT_COUNT 1)
string(REPLACE "-" "+" version "${version}")
set(CPACK_PACKAGE_VERSION ${version})
set(CPACK_DEBIAN_PACKAGE_VERSION ${version})
