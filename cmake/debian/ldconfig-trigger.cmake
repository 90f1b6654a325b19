# Run by cpack after it has built the packages (CPACK_POST_BUILD_SCRIPTS).
# cpack's DEB generator makes the library package call ldconfig from
# postinst and postrm scripts; Debian runs ldconfig once per dpkg run from
# a trigger instead. This rebuilds libqvlkern1's package with the trigger
# and without the two scripts, which do nothing else.
foreach(deb IN LISTS CPACK_PACKAGE_FILES)
  get_filename_component(name ${deb} NAME)
  if(NOT name MATCHES "^libqvlkern1_.*\\.deb$")
    continue()
  endif()
  set(tree ${deb}.tree)
  file(REMOVE_RECURSE ${tree})
  execute_process(COMMAND dpkg-deb -R ${deb} ${tree} COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE ${tree}/DEBIAN/postinst ${tree}/DEBIAN/postrm)
  file(WRITE ${tree}/DEBIAN/triggers "activate-noawait ldconfig\n")
  file(CHMOD ${tree}/DEBIAN/triggers PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  execute_process(COMMAND dpkg-deb --root-owner-group -b ${tree} ${deb}
                  OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE ${tree})
endforeach()
