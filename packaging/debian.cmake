# The three Debian packages, and the files that only they install.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "nasctrl developers <developers@nasctrl.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own
set(CPACK_DEBIAN_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(full_version ${CPACK_DEBIAN_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL library dev programs)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# nasctrld needs the library of another package of this build.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/sysctrl)

set(library libnasctrl${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${library})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_SOURCE_DIR}/debian/triggers)
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "control plane of a clustered NAS node (library)
A shared library that a protocol service loads: it keeps the node's service
addresses and tells the protocol modules of them, answers configuration
questions and passes on the events of the cluster.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libnasctrl-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${library} (= ${full_version})")
set(CPACK_COMPONENT_DEV_DESCRIPTION "control plane of a clustered NAS node (development files)
The headers of the library and of what a host must supply, the pkg-config and
CMake files to link with it, nasctrl-hostcheck, which tells what a host lacks,
the guide to embedding the library, and a minimal host to copy.")

set(CPACK_DEBIAN_PROGRAMS_PACKAGE_NAME nasctrl)
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_DEPENDS "${library} (= ${full_version}), adduser")
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_SUGGESTS "bash-completion")
set(CPACK_COMPONENT_PROGRAMS_DESCRIPTION "control plane of a clustered NAS node (service and tool)
nasctrld is a host of the control-plane library, nasctl the tool to look into
a running node and change it, nasstored the storage-side service.")

configure_file(debian/changelog.in changelog.Debian @ONLY)
execute_process(COMMAND gzip -9nf changelog.Debian
    WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR} COMMAND_ERROR_IS_FATAL ANY)
foreach(component ${CPACK_COMPONENTS_ALL})
    string(TOUPPER ${component} upper)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian.gz debian/copyright
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME} COMPONENT ${component})
    set(CPACK_DEBIAN_${upper}_FILE_NAME DEB-DEFAULT)
endforeach()

install(FILES systemd/nasctrld.service systemd/nasstored.service DESTINATION /lib/systemd/system)
install(FILES etc/nasctrld.conf ${PROJECT_SOURCE_DIR}/examples/node1/storage.json DESTINATION /etc/nasctrl)
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/conffiles "/etc/nasctrl/nasctrld.conf\n/etc/nasctrl/storage.json\n")
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_BINARY_DIR}/conffiles
    ${CMAKE_CURRENT_SOURCE_DIR}/debian/postinst ${CMAKE_CURRENT_SOURCE_DIR}/debian/prerm
    ${CMAKE_CURRENT_SOURCE_DIR}/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

include(CPack)
