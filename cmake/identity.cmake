# SPDX-License-Identifier: GPL-2.0-or-later
# What the module, OBS's plug-in manager and every package say about the project. Read by the build and, in CMake's script
# mode, by what makes packages.
set(TALVORA_NAME "talvora-obs")
set(TALVORA_VERSION "1.0.6")
set(TALVORA_TITLE "Talvora")
set(TALVORA_ID "org.talvora.${TALVORA_NAME}")
set(TALVORA_AUTHOR "The Talvora authors")
set(TALVORA_LICENCE "GPL-2.0-or-later")
set(TALVORA_SUMMARY "Real-time AI dubbing and captions for OBS")
set(TALVORA_DESCRIPTION "Listens to one audio source while you are live, sends it to a translation service, and puts captions and dubbed speech in up to 31 languages into your scene.")

# Whoever publishes a package says who they are. What is left empty costs only the fields that would name it.
set(TALVORA_MAINTAINER "" CACHE STRING "Who looks after the packages: Name <address>")
set(TALVORA_HOMEPAGE "" CACHE STRING "Address of the project's web page")
set(TALVORA_SUPPORT "" CACHE STRING "Address of a web page where users get help")

# What OBS 32's plug-in manager reads in the module's data folder. Older versions of OBS leave it unread. Without a
# "display_name" OBS would show an empty one in place of the module's own.
function(talvora_manifest result)
  set(json "{\"urls\": {}, \"has_banner\": false, \"has_icon\": false}")
  talvora_set_text(json "${TALVORA_TITLE}" display_name)
  talvora_set_text(json "${TALVORA_ID}" id)
  talvora_set_text(json "${TALVORA_VERSION}" version)
  talvora_set_text(json "${TALVORA_NAME}" name)
  talvora_set_text(json "${TALVORA_SUMMARY}" description)
  talvora_set_text(json "${TALVORA_DESCRIPTION}" long_description)
  talvora_set_text(json "${TALVORA_HOMEPAGE}" urls website)
  talvora_set_text(json "${TALVORA_SUPPORT}" urls support)
  set(${result} "${json}\n" PARENT_SCOPE)
endfunction()

# Sets a member of the JSON in the variable to a text. An empty text leaves it out.
function(talvora_set_text variable text)
  if(NOT text STREQUAL "")
    string(REPLACE "\\" "\\\\" text "${text}")
    string(REPLACE "\"" "\\\"" text "${text}")
    string(JSON json SET "${${variable}}" ${ARGN} "\"${text}\"")
    set(${variable} "${json}" PARENT_SCOPE)
  endif()
endfunction()
