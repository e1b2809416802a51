# `cpack` in a build tree makes glimmerbox_<version>_<arch>.deb from the install rules: the
# program, its desktop entry and its icon, under /usr. The shared libraries it needs are read from
# the binary; what it loads at run time without linking is listed by hand.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME glimmerbox)
set(CPACK_PACKAGE_VENDOR Glimmerbox)
set(CPACK_PACKAGE_CONTACT "Glimmerbox developers <dev@glimmerbox.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "screen recorder for software developers in the system tray")
# Lines as Debian's control file wants them, under 80 columns.
string(CONCAT CPACK_PACKAGE_DESCRIPTION
  "One click in the tray starts a recording of the main display with the\n"
  "microphone, optionally with the webcam picture in a corner; one click stops\n"
  "it and leaves a QuickTime movie (H.264 + AAC) in Documents/Glimmerbox\n"
  "Recordings. `glimmerbox record` does the same from a terminal.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION video)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Qt draws the SVG icons through a plugin (libqt6svg6), and the menu's record/stop glyphs
# (U+23FA, U+23F9) are in no font Debian installs by default.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libqt6svg6, fonts-symbola")
include(CPack)
