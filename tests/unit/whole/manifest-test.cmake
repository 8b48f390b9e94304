# SPDX-License-Identifier: GPL-2.0-or-later
# What the module tells OBS's plug-in manager, with and without what only a publisher can say.
cmake_minimum_required(VERSION 3.25)

function(expect json wanted)
  string(JSON value ERROR_VARIABLE error GET "${json}" ${ARGN})
  if(NOT value STREQUAL wanted)
    message(FATAL_ERROR "${ARGN} is '${value}' where '${wanted}' was expected in\n${json}")
  endif()
endfunction()

include(${CMAKE_CURRENT_LIST_DIR}/../../../cmake/identity.cmake)

talvora_manifest(json)
expect("${json}" "Talvora" display_name)
expect("${json}" "org.talvora.talvora-obs" id)
expect("${json}" "1.0.6" version)
expect("${json}" "talvora-obs" name)
expect("${json}" "OFF" has_icon)
expect("${json}" "urls-website-NOTFOUND" urls website)
expect("${json}" "urls-support-NOTFOUND" urls support)

set(TALVORA_HOMEPAGE "https://example.org/talvora")
set(TALVORA_SUPPORT "https://example.org/\"help\"\\")
talvora_manifest(json)
expect("${json}" "https://example.org/talvora" urls website)
expect("${json}" "https://example.org/\"help\"\\" urls support)
