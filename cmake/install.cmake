# What `cmake --install` lays out, in this order: the checks first, so that a refused installation leaves
# nothing behind, and the library link last, so that it never names a half-made one.

# What the library link leads to. Nothing is ever loaded from it, but ldconfig, which the package manager
# runs all the time, removes a link to nothing from the library directories.
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/link_target.cpp CONTENT "// Nothing.\n")
add_library(zyn_link_target SHARED ${PROJECT_BINARY_DIR}/link_target.cpp)
set_target_properties(zyn_link_target PROPERTIES OUTPUT_NAME zynxml VERSION 1.0.0 SOVERSION 1.0
                                                 LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
target_link_options(zyn_link_target PRIVATE -nostdlib)
add_dependencies(zynrexec zyn_link_target) # whoever built the command can install it

string(JOIN " " ZYN_POLICY_ITEMS ${ZYN_POLICIES})
string(JOIN " " ZYN_CATALOGUE_ITEMS ${ZYN_CATALOGUES})
set(ZYN_PATH_PLACEHOLDER "@INSTALL_DIR@") # stands in all.pol for the install directory
configure_file(cmake/install_check.cmake.in install_check.cmake @ONLY)
configure_file(cmake/install_tree.cmake.in install_tree.cmake @ONLY)

install(SCRIPT ${PROJECT_BINARY_DIR}/install_check.cmake)
install(TARGETS zynrexec RUNTIME DESTINATION bin)
install(TARGETS zynconfig RUNTIME DESTINATION bin OPTIONAL) # where it was built beside the command
install(FILES $<TARGET_FILE:zyn_link_target> DESTINATION lib)
# The manuals of what is installed: share/man below the prefix, which a PATH with its bin beside it leads man to, and
# where the distribution has them in a package (CMAKE_INSTALL_MANDIR).
include(GNUInstallDirs)
foreach(ZYN_PAGE zynrexec.8 zynconfig.8 zynrexec-results.7 zyn.conf.5)
  string(REGEX REPLACE ".*[.]" "man" ZYN_SECTION ${ZYN_PAGE})
  install(FILES doc/man/${ZYN_PAGE} DESTINATION ${CMAKE_INSTALL_MANDIR}/${ZYN_SECTION})
endforeach()
install(SCRIPT ${PROJECT_BINARY_DIR}/install_tree.cmake)
