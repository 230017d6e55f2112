# The Debian packages, each an install component of its name: scripts/package.sh.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "libvxbase maintainers <maintainers@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each has its own
# What the packages need of Debian's. Of each other they are listed below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
foreach(library IN ITEMS vxplatform vxbase vxkit)
    get_target_property(folder ${library} BINARY_DIR)
    list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${folder})
endforeach()
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)

# package(NAME SECTION SUMMARY [DEPENDS]): DEPENDS are packages of this version, separated by commas.
macro(package name section summary)
    string(TOUPPER ${name} upper)
    list(APPEND CPACK_COMPONENTS_ALL ${name})
    set(CPACK_COMPONENT_${upper}_DESCRIPTION "${summary}\n${PROJECT_DESCRIPTION}.")
    set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name})
    set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
    string(REGEX REPLACE "([^ ,]+)" "\\1 (= ${PROJECT_VERSION})" CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${ARGN}")
endmacro()
package(libvxbase1 libs "Library that runs graphs of processing nodes")
package(libvxbase-dev libdevel "Development files of libvxbase" "libvxbase1")
package(libvxkit1 libs "What nodes for libvxbase are built on" "libvxbase1")
package(libvxkit-dev libdevel "Development files of vxkit" "libvxkit1, libvxbase-dev")
package(vxrun video "Tests video codecs with graphs of nodes" "libvxkit1, libvxbase1")
set(CPACK_DEBIAN_VXRUN_PACKAGE_SUGGESTS
    "aom-tools, dav1d, ffmpeg, gstreamer1.0-tools, libde265-examples, vpx-tools")

# The files for tests are in the development package.
list(APPEND CPACK_COMPONENTS_ALL testing)
set(CPACK_COMPONENT_TESTING_GROUP libvxbase-dev)
set(CPACK_COMPONENT_LIBVXBASE-DEV_GROUP libvxbase-dev)
include(CPack)
