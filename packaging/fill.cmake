# SPDX-License-Identifier: GPL-2.0-or-later
# Fills in the recipes of packages with what cmake/identity.cmake says. Used by package.sh in CMake's script mode:
#
#   cmake -DOUT=FOLDER [-DSUITE=trixie|forky] [-DDATE=TEXT] [-DCHECKSUM=SHA256] [-DTALVORA_...=...] -P packaging/fill.cmake
#
# SUITE and DATE (of the entry in Debian's change log) are needed for Debian's recipe, CHECKSUM (of the source archive) for
# the others; each is filled in where its own are given.
cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/../cmake/identity.cmake)
set(TALVORA_SERVICE_HOST "localhost" CACHE STRING "")
set(TALVORA_SIGN_IN_URL "https://localhost:3003/auth" CACHE STRING "")

# A line or a tag for what a publisher may leave empty.
function(optional variable value before after)
  if(value STREQUAL "")
    set(${variable} "" PARENT_SCOPE)
  else()
    set(${variable} "${before}${value}${after}" PARENT_SCOPE)
  endif()
endfunction()

# Recipes' options and XML cannot hold every character; nothing that is asked for needs these.
foreach(name IN ITEMS HOMEPAGE SUPPORT SERVICE_HOST SIGN_IN_URL)
  if(TALVORA_${name} MATCHES "[\"'<>&$`\\ \t\n;]")
    message(FATAL_ERROR "TALVORA_${name} is '${TALVORA_${name}}': an address has no blanks, quotes, or any of <>&$`\\;.")
  endif()
endforeach()

set(options "-DTALVORA_SERVICE_HOST=${TALVORA_SERVICE_HOST} -DTALVORA_SIGN_IN_URL=${TALVORA_SIGN_IN_URL}")
if(TALVORA_HOMEPAGE)
  string(APPEND options " -DTALVORA_HOMEPAGE=${TALVORA_HOMEPAGE}")
endif()
if(TALVORA_SUPPORT)
  string(APPEND options " -DTALVORA_SUPPORT=${TALVORA_SUPPORT}")
endif()
set(archive "${TALVORA_NAME}-${TALVORA_VERSION}.tar.gz")

if(DATE)
  # Grows from each suite to the next, so that a system that is upgraded takes the build for its new suite.
  set(releases_trixie deb13)
  set(releases_forky deb14)
  set(debian_version "${TALVORA_VERSION}+${releases_${SUITE}}")
  optional(maintainer_line "${TALVORA_MAINTAINER}" "Maintainer: " "\n")
  optional(homepage_line "${TALVORA_HOMEPAGE}" "Homepage: " "\n")
  # A change log names somebody in any case.
  set(signed "${TALVORA_MAINTAINER}")
  if(NOT signed)
    set(signed "${TALVORA_AUTHOR} <unknown>")
  endif()
  file(GLOB_RECURSE files RELATIVE ${CMAKE_CURRENT_LIST_DIR}/debian ${CMAKE_CURRENT_LIST_DIR}/debian/*)
  foreach(file IN LISTS files)
    string(REGEX REPLACE "\\.in$" "" filled "${file}")
    configure_file(${CMAKE_CURRENT_LIST_DIR}/debian/${file} ${OUT}/${filled} @ONLY)
  endforeach()
endif()

if(CHECKSUM)
  optional(homepage_tag "${TALVORA_HOMEPAGE}" "\n  <url type=\"homepage\">" "</url>")
  optional(support_tag "${TALVORA_SUPPORT}" "\n  <url type=\"help\">" "</url>")
  optional(spec_url "${TALVORA_HOMEPAGE}" "\nURL:            " "")
  optional(maintainer_comment "${TALVORA_MAINTAINER}" "# Maintainer: " "\n")
  set(extension com.obsproject.Studio.Plugin.Talvora)
  foreach(file IN ITEMS flatpak/${extension}.yaml flatpak/${extension}.metainfo.xml arch/PKGBUILD fedora/talvora-obs.spec)
    configure_file(${CMAKE_CURRENT_LIST_DIR}/${file}.in ${OUT}/${file} @ONLY)
  endforeach()
endif()
