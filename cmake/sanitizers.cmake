# SPDX-License-Identifier: GPL-2.0-or-later
# Builds everything with the sanitizers of the compiler that TALVORA_SANITIZE names, and gives the tests their settings.
set(TALVORA_SANITIZE "" CACHE STRING "Sanitizers to build with: address,undefined or thread")

if(TALVORA_SANITIZE)
  # Lightly optimised and with line numbers only: much sooner built, and as telling.
  add_compile_options(-fsanitize=${TALVORA_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -O1 -g1)
  add_link_options(-fsanitize=${TALVORA_SANITIZE})
  # What the standard library and Qt ask of their callers is checked, too: an index that is out of range, for one.
  add_compile_definitions(_GLIBCXX_ASSERTIONS QT_FORCE_ASSERTS)
  if(TALVORA_SANITIZE MATCHES undefined)
    # Not part of "undefined": a number that does not fit the integer it is made.
    add_compile_options(-fsanitize=float-cast-overflow)
    add_link_options(-fsanitize=float-cast-overflow)
  endif()
  if(TALVORA_SANITIZE MATCHES thread)
    # A copy that the compiler writes out itself is checked; one in the C library is, too, but is seen as part of it.
    add_compile_options(-fno-builtin-memcpy)
  endif()
  set(sanitizer_environment
    "ASAN_OPTIONS=detect_stack_use_after_return=1:strict_string_checks=1:check_initialization_order=1:strict_init_order=1"
    "UBSAN_OPTIONS=print_stacktrace=1"
    # What Qt's and OBS's libraries do is not looked at: they are built without the sanitizer, which does not see how
    # they keep their threads apart. Neither are the C library's copies then, see below.
    "TSAN_OPTIONS=ignore_noninstrumented_modules=1:second_deadlock_stack=1")
endif()

# For every test of the calling folder.
function(talvora_sanitizer_settings)
  get_property(tests DIRECTORY PROPERTY TESTS)
  foreach(test IN LISTS tests)
    set_property(TEST ${test} APPEND PROPERTY ENVIRONMENT ${sanitizer_environment})
    if(test STREQUAL audio-ring-test)
      # Threads, atomics and copies without any of these libraries: all of it is looked at.
      set_property(TEST ${test} APPEND PROPERTY ENVIRONMENT "TSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/tests/sanitizers/thread.supp:print_suppressions=0:second_deadlock_stack=1")
    endif()
  endforeach()
endfunction()

# For a target whose lines and branches are to be counted. Not optimised, and without the watch over variables that are out of
# scope, which has branches of its own: each that is counted is one of a line's.
option(TALVORA_COVERAGE "Count which lines and branches of the plug-in are reached" OFF)
function(talvora_count target)
  if(TALVORA_COVERAGE)
    target_compile_options(${target} PRIVATE -O0 --coverage -fprofile-update=atomic
                                             -fno-sanitize-address-use-after-scope)
    target_link_options(${target} PUBLIC --coverage)
  endif()
endfunction()
