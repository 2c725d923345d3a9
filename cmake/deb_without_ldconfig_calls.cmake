# Run by CPack once the Debian packages are made (CPACK_POST_BUILD_SCRIPTS):
# takes the postinst and postrm out of the runtime package. CPack writes an
# ldconfig call into both for any package that holds a shared library under
# /usr/lib; the package's triggers file ("activate-noawait ldconfig") already
# has libc refresh the loader's cache, and those two scripts hold nothing
# else. CPACK_KSCDP_RUNTIME_PACKAGE names the package (CPack hands its script
# only CPACK_ variables).
foreach(deb IN LISTS CPACK_PACKAGE_FILES)
  get_filename_component(name ${deb} NAME)
  if(NOT name MATCHES "^${CPACK_KSCDP_RUNTIME_PACKAGE}_")
    continue()
  endif()
  set(tree ${CPACK_TOPLEVEL_DIRECTORY}/without-ldconfig-calls)
  file(REMOVE_RECURSE ${tree})
  execute_process(COMMAND dpkg-deb --raw-extract ${deb} ${tree} COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE ${tree}/DEBIAN/postinst ${tree}/DEBIAN/postrm)
  execute_process(COMMAND dpkg-deb --root-owner-group --build ${tree} ${deb}
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE ${tree})
endforeach()
