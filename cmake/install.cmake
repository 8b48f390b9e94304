# SPDX-License-Identifier: GPL-2.0-or-later
# Where OBS looks for modules and for their data: in the library folder that libobs is in, which is Debian's own whatever
# the prefix is, and in the data folder of the same prefix. (The folders of libobs.pc are not always true, those of its
# CMake package are: the linker uses them.)
get_target_property(libobs OBS::libobs LOCATION)
cmake_path(GET libobs PARENT_PATH obs_libraries)
string(REGEX REPLACE "/lib[^/]*(/[^/]*-linux-[^/]*)?$" "" obs_prefix "${obs_libraries}")
set(TALVORA_MODULE_DIR "${obs_libraries}/obs-plugins" CACHE PATH "Folder in which OBS looks for modules")
set(TALVORA_DATA_DIR "${obs_prefix}/share/obs/obs-plugins" CACHE PATH "Folder in which OBS looks for the modules' data")

function(talvora_install module_dir data_dir)
  install(TARGETS talvora-obs LIBRARY DESTINATION "${module_dir}" ${ARGN})
  install(DIRECTORY "${PROJECT_SOURCE_DIR}/data/" DESTINATION "${data_dir}" ${ARGN})
  install(FILES "$<TARGET_FILE_DIR:talvora-obs>/manifest.json" DESTINATION "${data_dir}" ${ARGN})
endfunction()

talvora_install("${TALVORA_MODULE_DIR}" "${TALVORA_DATA_DIR}/talvora-obs" COMPONENT plugin)
# The same for one user, below whatever folder is given as --prefix: OBS looks in ~/.config/obs-studio/plugins.
talvora_install(talvora-obs/bin/64bit talvora-obs/data COMPONENT user EXCLUDE_FROM_ALL)

add_custom_target(uninstall
  COMMAND ${CMAKE_COMMAND} "-DMANIFEST=${CMAKE_BINARY_DIR}/install_manifest.txt" -P ${CMAKE_CURRENT_LIST_DIR}/uninstall.cmake
  VERBATIM)
