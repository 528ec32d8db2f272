# Read by CPack before it packs. Without this program it would make a package that depends on nothing.
find_program(DPKG_SHLIBDEPS dpkg-shlibdeps)
if(NOT DPKG_SHLIBDEPS)
    message(FATAL_ERROR "packing needs dpkg-shlibdeps (Debian package dpkg-dev)")
endif()
