# Where OBS looks for modules and for their data: in the library folder that libobs is in, which is Debian's own whatever
# the prefix is, and in the data folder of the same prefix. (The folders of libobs.pc are not always true, those of its
# CMake package are: the linker uses them.)
get_target_property(libobs OBS::libobs LOCATION)
cmake_path(GET libobs PARENT_PATH obs_libraries)
string(REGEX REPLACE "/lib[^/]*(/[^/]*-linux-[^/]*)?$" "" obs_prefix "${obs_libraries}")
set(TALVORA_MODULE_DIR "${obs_libraries}/obs-plugins" CACHE PATH "Folder in which OBS looks for modules")
set(TALVORA_DATA_DIR "${obs_prefix}/share/obs/obs-plugins" CACHE PATH "Folder in which OBS looks for the modules' data")

install(TARGETS talvora-obs LIBRARY DESTINATION "${TALVORA_MODULE_DIR}")
install(DIRECTORY "${PROJECT_SOURCE_DIR}/data/" DESTINATION "${TALVORA_DATA_DIR}/talvora-obs")

add_custom_target(uninstall
  COMMAND ${CMAKE_COMMAND} "-DMANIFEST=${CMAKE_BINARY_DIR}/install_manifest.txt" -P ${CMAKE_CURRENT_LIST_DIR}/uninstall.cmake
  VERBATIM)
