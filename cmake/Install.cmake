# What goes where on a distribution, and the Debian packages of it: `flashrig` for the device, when it is built for one,
# and `flashsim` for the machine on which updates are made. Needs the targets flashrig and flashsim.
include(GNUInstallDirs)

install(TARGETS flashrig RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT flashrig)
install(FILES docs/flashrig.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT flashrig)
install(FILES docs/flashrig.script.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5 COMPONENT flashrig)

if(TARGET flashsim)
  # The simulator brings the updater that it runs, out of everyone's path: on a workstation it would do harm.
  install(TARGETS flashrig RUNTIME DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/flashsim COMPONENT flashsim)
  install(TARGETS flashsim_preload LIBRARY DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/flashsim COMPONENT flashsim)
  install(TARGETS flashsim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT flashsim)
  install(FILES docs/flashsim.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT flashsim)
  install(FILES docs/flashrig.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT flashsim)
  install(FILES docs/flashrig.script.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5 COMPONENT flashsim)
  set(COMPLETIONS ${PROJECT_BINARY_DIR}/completions)
  install(FILES ${COMPLETIONS}/flashsim.bash RENAME flashsim
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions COMPONENT flashsim)
  install(FILES ${COMPLETIONS}/_flashsim
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/zsh/vendor-completions COMPONENT flashsim)
  install(FILES ${COMPLETIONS}/flashsim.fish
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/fish/vendor_completions.d COMPONENT flashsim)
  install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/flashsim
    USE_SOURCE_PERMISSIONS
    COMPONENT flashsim)
endif()

# Whoever publishes a package puts a name here, and the licence in Debian's format into a file.
set(CPACK_PACKAGE_CONTACT "flashrig developers <flashrig@localhost>" CACHE STRING "Maintainer field of the packages")
set(FLASHRIG_COPYRIGHT "" CACHE FILEPATH "File copyright of the packages")
set(PACKAGES flashrig)
if(TARGET flashsim)
  list(APPEND PACKAGES flashsim)
endif()
foreach(PACKAGE ${PACKAGES})
  set(PAPERS ${CMAKE_INSTALL_DATAROOTDIR}/doc/${PACKAGE})
  configure_file(cmake/changelog.in ${PROJECT_BINARY_DIR}/papers/${PACKAGE}/changelog @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/papers/${PACKAGE}/changelog DESTINATION ${PAPERS} COMPONENT ${PACKAGE})
  if(FLASHRIG_COPYRIGHT)
    install(FILES ${FLASHRIG_COPYRIGHT} RENAME copyright DESTINATION ${PAPERS} COMPONENT ${PACKAGE})
  endif()
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_SOURCE_TREE ${PROJECT_SOURCE_DIR})
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/PackageTime.cmake)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/CompressPapers.cmake)

set(CPACK_DEBIAN_FLASHRIG_PACKAGE_NAME flashrig)
set(CPACK_DEBIAN_FLASHRIG_PACKAGE_SECTION admin)
# What a ubiformat line calls.
set(CPACK_DEBIAN_FLASHRIG_PACKAGE_RECOMMENDS "mtd-utils, psmisc")
set(CPACK_COMPONENT_FLASHRIG_DESCRIPTION "firmware updater for raw NAND flash
Carries out an update script on the MTD device that spans the flash: erases
ranges, writes images around bad blocks, changes boot variables and hands a
partition to ubiformat.")

set(CPACK_DEBIAN_FLASHSIM_PACKAGE_NAME flashsim)
set(CPACK_DEBIAN_FLASHSIM_PACKAGE_SECTION devel)
# The manuals are in both packages, and an updater in the path of a workstation is a danger to it.
set(CPACK_DEBIAN_FLASHSIM_PACKAGE_CONFLICTS flashrig)
set(CPACK_COMPONENT_FLASHSIM_DESCRIPTION "rehearsal of flashrig updates on a simulated NAND chip
Runs the real updater with an update on a simulated chip, in a device of its
own, and tells whether the update is clean: bad blocks, failing requests and
power cuts included. Nothing of the machine changes.")

if(CMAKE_CROSSCOMPILING)
  # dpkg-shlibdeps would need the device's libraries on this machine: the presets set what the program needs.
  set(CPACK_COMPONENTS_ALL flashrig)
else()
  set(CPACK_COMPONENTS_ALL flashsim)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()
include(CPack)
