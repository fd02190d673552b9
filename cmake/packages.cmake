# What `cmake --install` copies into a prefix, and the two Debian packages that CPack makes of it. The
# component "tools" is the package muxz-tools, "sim" is quarn-sim. The files find each other by
# relative paths, so that any prefix works.

# quarn-run, quarn-inbox and their parts have the folders of the checkout, below lib/quarn.
set(home lib/quarn)
file(GLOB sim_files CONFIGURE_DEPENDS sim/*)
list(FILTER sim_files EXCLUDE REGEX "\\.(cpp|h)$|/(layout\\.sh|scenarios)$")
set(sim_parts ${sim_files})
list(FILTER sim_parts INCLUDE REGEX "\\.sh$")
list(REMOVE_ITEM sim_files ${sim_parts})

install(TARGETS muxz DESTINATION bin COMPONENT tools)
install(TARGETS simctl quarnctl DESTINATION bin COMPONENT sim)
install(TARGETS quarn DESTINATION ${home} COMPONENT sim)
install(PROGRAMS run DESTINATION ${home} COMPONENT sim)
install(PROGRAMS ${sim_files} DESTINATION ${home}/sim COMPONENT sim)
configure_file(packaging/layout.sh packaging/layout.sh @ONLY)
install(FILES ${sim_parts} ${CMAKE_CURRENT_BINARY_DIR}/packaging/layout.sh
        DESTINATION ${home}/sim COMPONENT sim)
install(DIRECTORY sim/scenarios DESTINATION ${home}/sim COMPONENT sim)
install(FILES android/quarn_default.cfg DESTINATION ${home} COMPONENT sim)
foreach(command run inbox)
    set(target run)
    if(command STREQUAL inbox)
        set(target sim/inbox)
    endif()
    set(link ${CMAKE_CURRENT_BINARY_DIR}/packaging/quarn-${command})
    file(CREATE_LINK ../${home}/${target} ${link} SYMBOLIC)
    install(FILES ${link} DESTINATION bin COMPONENT sim)
endforeach()

# Compresses a file as Debian's policy wants it, and installs it as NAME.gz.
function(install_compressed component file destination name)
    set(compressed ${CMAKE_CURRENT_BINARY_DIR}/packaging/${component}/${name}.gz)
    install(CODE "
        file(MAKE_DIRECTORY \"${CMAKE_CURRENT_BINARY_DIR}/packaging/${component}\")
        execute_process(COMMAND gzip -9nc \"${file}\" OUTPUT_FILE \"${compressed}\"
                        COMMAND_ERROR_IS_FATAL ANY)
        file(INSTALL \"${compressed}\" DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${destination}\"
             TYPE FILE)" COMPONENT ${component})
endfunction()

# The pages and completions of muxz are in muxz-tools, all others in quarn-sim.
file(GLOB for_users CONFIGURE_DEPENDS man/*.[1-8] completions/bash/* completions/zsh/*)
foreach(file ${for_users})
    get_filename_component(name ${file} NAME)
    set(component sim)
    if(name MATCHES "^_?muxz")
        set(component tools)
    endif()
    if(file MATCHES "/man/.*\\.([1-8])$")
        install_compressed(${component} ${file} share/man/man${CMAKE_MATCH_1} ${name})
    elseif(file MATCHES "/bash/")
        install(FILES ${file} DESTINATION share/bash-completion/completions COMPONENT ${component})
    else()
        install(FILES ${file} DESTINATION share/zsh/vendor-completions COMPONENT ${component})
    endif()
endforeach()

set(maintainer "quarn maintainers <quarn@example.org>")
set(debian_revision 1)
set(changelog ${CMAKE_CURRENT_BINARY_DIR}/packaging/changelog.Debian)
foreach(component tools sim)
    set(package muxz-tools)
    if(component STREQUAL sim)
        set(package quarn-sim)
        install(FILES packaging/quarn-sim.lintian-overrides DESTINATION share/lintian/overrides
                RENAME quarn-sim COMPONENT sim)
    endif()
    install(FILES packaging/copyright DESTINATION share/doc/${package} COMPONENT ${component})
    install(CODE "
        execute_process(COMMAND \"${CMAKE_SOURCE_DIR}/packaging/debian_changelog\"
                                ${PROJECT_VERSION} ${debian_revision} \"${maintainer}\"
                        OUTPUT_FILE \"${changelog}\" COMMAND_ERROR_IS_FATAL ANY)"
            COMPONENT ${component})
    install_compressed(${component} ${changelog} share/doc/${package} changelog.Debian)
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_PACKAGE_CONTACT ${maintainer})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL tools sim)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${debian_revision})
set(CPACK_DEBIAN_PACKAGE_SOURCE quarn)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME muxz-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "reader of quarn's modem log files
muxz reads the log files that the quarn daemon keeps of a phone's cellular
modem. It checks and lists captures, prints their raw stream, recovers blocks
of damaged files, and makes report pages for a browser. It reads log trees,
single files, archives and pipes.")
set(CPACK_DEBIAN_SIM_PACKAGE_NAME quarn-sim)
set(CPACK_DEBIAN_SIM_PACKAGE_SECTION devel)
# What else the scripts call belongs to essential packages.
set(CPACK_DEBIAN_SIM_PACKAGE_DEPENDS
    "bubblewrap, muxz-tools (= ${PROJECT_VERSION}-${debian_revision})")
set(CPACK_DEBIAN_SIM_DESCRIPTION "quarn daemon on a simulated phone
quarn is a daemon for Android phones that keeps the diagnostic log of the
cellular modem as compressed files. quarn-run runs it in a sandbox, on a
simulated phone whose modem sends a log stream. simctl steers the phone,
quarnctl the daemon.")
include(CPack)
