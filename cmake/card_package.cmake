# "make package": the card tool as a Debian package, made by CPack from the
# install rules beside the program (the program with its page built in, its
# manual page and bash completion). Its dependencies are the packages
# dpkg-shlibdeps finds for the libraries it links.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON CACHE BOOL "Packaging builds only what it installs")
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME avrecord-card)
set(CPACK_PACKAGE_VENDOR "AVRecord")
set(CPACK_PACKAGE_CONTACT "AVRecord developers <avrecord@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "PC tool for the microSD cards of AVRecord cameras")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "Searches, exports (MP4, AVI, H.264/H.265), checks and formats the cards an
AVRecord camera records on, from a mounted card or an image read without
mounting it, and serves a card to the browser: days, a zoomable timeline,
playback from any moment and clips as MP4.")
set(CPACK_DEBIAN_PACKAGE_SECTION video)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
# The version is the build's (written when the program is built), read when
# the package is made.
set(CPACK_AVRECORD_VERSION_FILE ${PROJECT_BINARY_DIR}/VERSION)
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/card_package_version.cmake)
include(CPack)
