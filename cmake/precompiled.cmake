# SPDX-License-Identifier: GPL-2.0-or-later
# Most of the time of a build goes into reading the same headers of Qt and OBS for every file. They may be read once
# instead, as ./dev does. It is not the default, because it would hide an include that is missing: ./dev lint reads the
# code without, and so does who builds the plug-in alone.
option(TALVORA_PRECOMPILE "Precompile the headers of Qt and OBS" OFF)

# With a second target its precompiled headers are taken over: it must be compiled in the same way.
function(talvora_precompile target)
  if(NOT TALVORA_PRECOMPILE)
    return()
  endif()
  if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
    # ccache takes what was made with such headers only with this.
    target_compile_options(${target} PRIVATE -fpch-preprocess)
  endif()
  if(ARGC GREATER 1)
    target_precompile_headers(${target} REUSE_FROM ${ARGV1})
    return()
  endif()
  # What most files read, and no more: the compiler loads all of it for every file.
  set(headers <QByteArray> <QJsonArray> <QJsonDocument> <QJsonObject> <QObject> <QPointer> <QString> <QStringList> <QTimer>
              <QWebSocket>
              <algorithm> <array> <atomic> <chrono> <functional> <map> <memory> <mutex> <optional> <thread> <vector>)
  if(NOT target MATCHES "service")
    list(APPEND headers <QComboBox> <QLabel> <QWidget> <obs.hpp>)
  endif()
  if(target MATCHES "test")
    list(APPEND headers <QSignalSpy> <QTest>)
  endif()
  target_precompile_headers(${target} PRIVATE ${headers})
endfunction()
