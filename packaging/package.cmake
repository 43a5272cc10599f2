# The two Debian packages that cpack makes of a build: zynrexec, the command with its installation, and
# zynrehearse, the rehearsal server. Included last, since a tool is packaged if it is built.
#
# Nothing of it belongs to `cmake --install`, which knows no packages: every rule is of a component that is
# installed on demand only, below "/" in place of the prefix.

set(opt ${ZYN_INSTALL_DIR})
string(REGEX REPLACE "^/" "" opt "${opt}")
# Debian wants configuration in /etc; the name by which the command finds it is a link to there.
string(REGEX REPLACE "^opt/" "etc/opt/" etc_opt "${opt}")
if(NOT etc_opt MATCHES "^etc/opt/")
  message(STATUS "No packages: they are laid out for an install directory below /opt, not ${ZYN_INSTALL_DIR}.")
  return()
endif()
set(package_data ${CMAKE_CURRENT_LIST_DIR})
set(package_work ${PROJECT_BINARY_DIR}/packaging)
set(read_only PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)

# zyn_packaged(PACKAGE DIRECTORY FILE...)
function(zyn_packaged package directory)
  install(FILES ${ARGN} DESTINATION ${directory} ${read_only} COMPONENT ${package} EXCLUDE_FROM_ALL)
endfunction()

# zyn_packaged_conffiles(PACKAGE DIRECTORY FILE...): files that dpkg keeps as the operator changed them.
function(zyn_packaged_conffiles package directory)
  zyn_packaged(${package} ${directory} ${ARGN})
  foreach(file IN LISTS ARGN)
    cmake_path(GET file FILENAME name)
    set_property(GLOBAL APPEND_STRING PROPERTY zyn_conffiles_${package} "/${directory}/${name}\n")
  endforeach()
endfunction()

# zyn_packaged_link(PACKAGE LINK TARGET)
function(zyn_packaged_link package link target)
  cmake_path(GET link PARENT_PATH directory)
  install(CODE "file(MAKE_DIRECTORY \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${directory}\")
file(CREATE_LINK \"${target}\" \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${link}\" SYMBOLIC)"
          COMPONENT ${package} EXCLUDE_FROM_ALL)
endfunction()

# zyn_packaged_compressed(PACKAGE DIRECTORY FILE...): without name and time of the original, so that the
# same file always gives the same bytes.
function(zyn_packaged_compressed package directory)
  foreach(file IN LISTS ARGN)
    cmake_path(GET file FILENAME name)
    set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
    set(compressed ${package_work}/${package}/${name}.gz)
    file(MAKE_DIRECTORY ${package_work}/${package})
    execute_process(COMMAND gzip -9nc ${file} OUTPUT_FILE ${compressed} COMMAND_ERROR_IS_FATAL ANY)
    zyn_packaged(${package} ${directory} ${compressed})
  endforeach()
endfunction()

# zyn_packaged_program(PACKAGE TARGET DIRECTORY): without debug information.
function(zyn_packaged_program package target directory)
  install(TARGETS ${target} RUNTIME DESTINATION ${directory} COMPONENT ${package} EXCLUDE_FROM_ALL)
  install(CODE "execute_process(COMMAND \"${CMAKE_STRIP}\" --remove-section=.comment --remove-section=.note
  \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${directory}/${target}\" COMMAND_ERROR_IS_FATAL ANY)"
          COMPONENT ${package} EXCLUDE_FROM_ALL)
endfunction()

# zyn_packaged_command(TARGET): where the installation has its programs, and in everybody's path: the command
# takes no right of root, and monitoring systems run it without sbin.
function(zyn_packaged_command target)
  zyn_packaged_program(zynrexec ${target} ${opt}/bin)
  zyn_packaged_link(zynrexec usr/bin/${target} /${opt}/bin/${target})
endfunction()

# zyn_packaged_completions(PACKAGE COMMAND)
function(zyn_packaged_completions package command)
  set(from ${PROJECT_SOURCE_DIR}/completions)
  set(bash usr/share/bash-completion/completions ${command})
  set(zsh usr/share/zsh/vendor-completions _${command})
  set(fish usr/share/fish/vendor_completions.d ${command}.fish)
  foreach(shell IN ITEMS bash zsh fish)
    list(GET ${shell} 0 directory)
    list(GET ${shell} 1 name)
    if(EXISTS ${from}/${shell}/${name})
      zyn_packaged(${package} ${directory} ${from}/${shell}/${name})
    endif()
  endforeach()
endfunction()

function(zyn_packaged_command_configuration)
  set(path_filled ${package_work}/zynrexec/all.pol)
  file(READ ${PROJECT_SOURCE_DIR}/etc/policy/all.pol text)
  set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/etc/policy/all.pol)
  string(REPLACE "${ZYN_PATH_PLACEHOLDER}" "/${opt}" text "${text}")
  file(WRITE ${path_filled} "${text}")
  set(policies ${ZYN_POLICIES})
  list(REMOVE_ITEM policies all)
  list(TRANSFORM policies REPLACE "(.+)" "${PROJECT_SOURCE_DIR}/etc/policy/\\1.pol")
  set(catalogues ${ZYN_CATALOGUES})
  list(TRANSFORM catalogues REPLACE "(.+)" "${PROJECT_SOURCE_DIR}/etc/messages/\\1.msg.us")

  zyn_packaged_conffiles(zynrexec ${etc_opt} ${PROJECT_SOURCE_DIR}/etc/zyn.conf)
  zyn_packaged_conffiles(zynrexec ${etc_opt}/policy ${path_filled} ${policies})
  zyn_packaged_conffiles(zynrexec ${etc_opt}/messages ${catalogues})
  zyn_packaged_link(zynrexec ${opt}/etc /${etc_opt})
  zyn_packaged_link(zynrexec ${opt}/messages /${etc_opt}/messages)
  zyn_packaged(zynrexec usr/share/doc/zynrexec/examples ${PROJECT_SOURCE_DIR}/etc/zyn.conf.sample)
  zyn_packaged_link(zynrexec ${etc_opt}/zyn.conf.sample /usr/share/doc/zynrexec/examples/zyn.conf.sample)
endfunction()

# The command. The directories of other modules stay below /opt, unlike what is configured: the event daemon
# follows no link below the install directory. What the library link would lead to is left out: there is no
# such link in the built-in directory.
zyn_packaged_command(zynrexec)
zyn_packaged_completions(zynrexec zynrexec)
if(TARGET zynconfig)
  zyn_packaged_command(zynconfig)
  zyn_packaged_completions(zynrexec zynconfig)
endif()
zyn_packaged_command_configuration()
install(DIRECTORY DESTINATION ${opt}/tmp COMPONENT zynrexec EXCLUDE_FROM_ALL)
install(DIRECTORY DESTINATION ${opt}/work/ipc COMPONENT zynrexec EXCLUDE_FROM_ALL)

# The rehearsal server. It is no part of an installation.
zyn_packaged_program(zynrehearse zynrehearse usr/bin)
zyn_packaged_completions(zynrehearse zynrehearse)
configure_file(${PROJECT_SOURCE_DIR}/tools/rehearsal/cluster.xml ${package_work}/zynrehearse/sample.xml COPYONLY)
zyn_packaged_conffiles(zynrehearse etc/zynrehearse ${package_work}/zynrehearse/sample.xml)
zyn_packaged(zynrehearse usr/share/doc/zynrehearse/examples ${PROJECT_SOURCE_DIR}/tools/rehearsal/cluster.xml)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/tools/rehearsal/scripts DESTINATION usr/share/doc/zynrehearse/examples
        USE_SOURCE_PERMISSIONS COMPONENT zynrehearse EXCLUDE_FROM_ALL)
zyn_packaged(zynrehearse lib/systemd/system ${package_data}/zynrehearse/zynrehearse@.service)

file(GLOB pages CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/doc/man/*.[1-9])
foreach(page IN LISTS pages)
  cmake_path(GET page EXTENSION LAST_ONLY section)
  string(REPLACE "." "usr/share/man/man" directory "${section}")
  if(page MATCHES "/zynrehearse\\.")
    zyn_packaged_compressed(zynrehearse ${directory} ${page})
  else()
    zyn_packaged_compressed(zynrexec ${directory} ${page})
  endif()
endforeach()

foreach(package IN ITEMS zynrexec zynrehearse)
  zyn_packaged(${package} usr/share/doc/${package} ${package_data}/${package}/copyright)
  zyn_packaged_compressed(${package} usr/share/doc/${package} ${package_data}/changelog)
  if(EXISTS ${package_data}/${package}/lintian-overrides)
    install(FILES ${package_data}/${package}/lintian-overrides DESTINATION usr/share/lintian/overrides
            RENAME ${package} ${read_only} COMPONENT ${package} EXCLUDE_FROM_ALL)
  endif()
  get_property(conffiles GLOBAL PROPERTY zyn_conffiles_${package})
  file(WRITE ${package_work}/${package}/conffiles "${conffiles}")
  file(GLOB scripts ${package_data}/${package}/*.in)
  set(control ${package_work}/${package}/conffiles)
  foreach(script IN LISTS scripts)
    cmake_path(GET script STEM name)
    configure_file(${script} ${package_work}/${package}/${name} @ONLY FILE_PERMISSIONS
                   OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
    list(APPEND control ${package_work}/${package}/${name})
  endforeach()
  string(TOUPPER ${package} PACKAGE)
  set(CPACK_DEBIAN_${PACKAGE}_PACKAGE_CONTROL_EXTRA "${control}")
  set(CPACK_DEBIAN_${PACKAGE}_PACKAGE_NAME ${package})
  set(CPACK_DEBIAN_${PACKAGE}_FILE_NAME DEB-DEFAULT)
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL zynrexec zynrehearse)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_PACKAGE_NAME zynrexec)
set(CPACK_PACKAGE_VENDOR "zynrexec")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX "/")
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "zynrexec maintainers <maintainers@zynrexec.invalid>")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_ZYNREXEC_PACKAGE_SUGGESTS zynrehearse)
set(CPACK_DEBIAN_ZYNREHEARSE_PACKAGE_RECOMMENDS zynrexec)
set(CPACK_COMPONENT_ZYNREXEC_DESCRIPTION
    "send one request to many servers of a cluster at once
zynrexec asks the data transfer servers of a cluster to fail a group over, to
run a script, to treat a monitored resource as failed, or to end the error
state of a monitor, and tells what each of them answered.

The package holds the command, its policies, message catalogues and
configuration, zynconfig, which looks into them, and manuals.")
set(CPACK_COMPONENT_ZYNREHEARSE_DESCRIPTION
    "rehearsal server for the requests of zynrexec
zynrehearse answers like the data transfer servers of a pretended cluster,
with the faults that are asked for, and plays the cluster's event daemon and
a metrics collector, so that a drill needs no real cluster.

The package holds the server and a systemd service template, of which no
instance is enabled or started.")
include(CPack)
