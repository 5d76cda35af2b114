# Debian packages, one per component. `script/package` makes them with the prefix /usr.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kav-statistics)
set(CPACK_PACKAGE_VENDOR "KAV statistics")
set(CPACK_PACKAGE_CONTACT "KAV statistics maintainers <maintainers@kav.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# text: the long description, with lines of at most 78 characters.
set(CPACK_COMPONENTS_ALL)
function(kav_debian_package component name section summary text)
    string(TOUPPER ${component} key)
    set(components ${CPACK_COMPONENTS_ALL} ${component})
    set(CPACK_COMPONENTS_ALL ${components} PARENT_SCOPE)
    set(CPACK_DEBIAN_${key}_PACKAGE_NAME ${name} PARENT_SCOPE)
    set(CPACK_DEBIAN_${key}_PACKAGE_SECTION ${section} PARENT_SCOPE)
    set(CPACK_COMPONENT_${key}_DESCRIPTION "${summary}\n${text}" PARENT_SCOPE)

    install(FILES ${CMAKE_CURRENT_SOURCE_DIR}/debian/copyright
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${component})
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${component})
    set(overrides ${CMAKE_CURRENT_SOURCE_DIR}/debian/${component}.lintian-overrides)
    if(EXISTS ${overrides})
        install(FILES ${overrides}
            DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides RENAME ${name} COMPONENT ${component})
    endif()
endfunction()

# A package's changelog names its version and refers to CHANGELOG.md.
string(TIMESTAMP KAV_BUILD_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(debian/changelog.in changelog @ONLY)
if(KAV_GZIP)
    execute_process(COMMAND ${KAV_GZIP} -9nc ${CMAKE_CURRENT_BINARY_DIR}/changelog
        OUTPUT_FILE ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz COMMAND_ERROR_IS_FATAL ANY)
endif()

set(core_text "\
Live statistics in shared memory, saved statistics files, top-application
logs and the auto-bypass table: what an engine publishes with and what
viewers read.
")

kav_debian_package(viewer kav-statistics net "statistics viewer of the KAV redundancy-elimination engine" "\
Shows what KAV, the redundancy-elimination engine of a WAN-optimization
appliance, is doing: how much it saves and on what, which peer is degraded,
which connection is stuck, what was refused and why.

One plain-text report per run, from the running engine or from a file saved
earlier.")
kav_debian_package(core libkav-core${KAV_ABI_VERSION} libs "engine core library of KAV statistics" "${core_text}
This package holds the shared library.")
kav_debian_package(devel libkav-core-dev libdevel "engine core library of KAV statistics: development files" "${core_text}
This package holds headers, static libraries, an example, and files for
CMake and pkg-config.")
kav_debian_package(demo kav-demo-engine net "small redundancy-elimination engine that publishes KAV statistics" "\
Removes redundancy from real files and publishes true statistics of it, so
that the reports of KAV viewers can be tried on any machine.")
if(TARGET kavstat)
    kav_debian_package(kavstat kavstat net "companion viewer of KAV statistics" "\
Shows the statistics of a KAV engine in forms for people and for machines,
from the running engine or from a file saved earlier.")
endif()

set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_CORE_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_SOURCE_DIR}/debian/triggers)
set(CPACK_DEBIAN_DEVEL_PACKAGE_DEPENDS "libkav-core${KAV_ABI_VERSION} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEMO_PACKAGE_RECOMMENDS kav-statistics)
set(CPACK_DEBIAN_VIEWER_PACKAGE_SUGGESTS kav-demo-engine)
include(CPack)
