# SPDX-License-Identifier: GPL-2.0-or-later
# Removes what 'cmake --install' has put somewhere, by the list that it wrote, and the folders of the module's own that are
# empty then.
cmake_minimum_required(VERSION 3.25)

if(NOT EXISTS "${MANIFEST}")
  message(FATAL_ERROR "Nothing has been installed from this build: there is no ${MANIFEST}.")
endif()
file(STRINGS "${MANIFEST}" files)
foreach(file IN LISTS files)
  set(path "$ENV{DESTDIR}${file}")
  message(STATUS "Removing ${path}")
  file(REMOVE "${path}")
  cmake_path(GET path PARENT_PATH folder)
  while(folder MATCHES "/talvora-obs(/|$)")
    file(GLOB content "${folder}/*")
    if(content)
      break()
    endif()
    file(REMOVE_RECURSE "${folder}")
    cmake_path(GET folder PARENT_PATH folder)
  endwhile()
endforeach()
file(REMOVE "${MANIFEST}")
