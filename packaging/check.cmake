# Read by CPack before packing. Without dpkg-shlibdeps the package would declare no dependencies on libraries.
find_program(DPKG_SHLIBDEPS dpkg-shlibdeps)
if(NOT DPKG_SHLIBDEPS)
    message(FATAL_ERROR "packing needs dpkg-shlibdeps (Debian package dpkg-dev)")
endif()
