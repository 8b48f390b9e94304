# Builds that are made for one check and thrown away spend most of their time on the same headers of Qt and OBS. They
# may be read once instead; the usual build does not do so, because it would hide an include that is missing.
option(TALVORA_PRECOMPILE "Precompile the headers of Qt and OBS" OFF)

# With a second target its headers are taken over: it must be compiled in the same way.
function(talvora_precompile target)
  if(NOT TALVORA_PRECOMPILE)
    return()
  endif()
  if(target MATCHES "test")
    # Nearly always empty in a test, and then sooner compiled than the headers are loaded.
    set_source_files_properties(${CMAKE_CURRENT_BINARY_DIR}/${target}_autogen/mocs_compilation.cpp
                                PROPERTIES SKIP_PRECOMPILE_HEADERS ON)
  endif()
  if(ARGC GREATER 1)
    target_precompile_headers(${target} REUSE_FROM ${ARGV1})
    return()
  endif()
  set(headers <QtCore> <QtNetwork> <QtWebSockets>)
  if(NOT target MATCHES "service")
    list(APPEND headers <QtWidgets> <obs.hpp>)
  endif()
  if(target MATCHES "test")
    list(APPEND headers <QtTest>)
  endif()
  target_precompile_headers(${target} PRIVATE ${headers})
endfunction()
