# Builds everything with the sanitizers of the compiler that TALVORA_SANITIZE names, and gives the tests their settings.
set(TALVORA_SANITIZE "" CACHE STRING "Sanitizers to build with: address,undefined or thread")

if(TALVORA_SANITIZE)
  # Lightly optimised and with line numbers only: much sooner built, and as telling.
  add_compile_options(-fsanitize=${TALVORA_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -O1 -g1)
  add_link_options(-fsanitize=${TALVORA_SANITIZE})
  if(TALVORA_SANITIZE MATCHES thread)
    # A copy that the compiler writes out itself is checked; one in the C library is, too, but is seen as part of it.
    add_compile_options(-fno-builtin-memcpy)
  endif()
  set(suppressions ${PROJECT_SOURCE_DIR}/tests/sanitizers)
  set(sanitizer_environment
    "ASAN_OPTIONS=detect_stack_use_after_return=1:strict_string_checks=1:check_initialization_order=1:strict_init_order=1"
    "LSAN_OPTIONS=suppressions=${suppressions}/leak.supp:print_suppressions=0"
    "UBSAN_OPTIONS=print_stacktrace=1"
    "TSAN_OPTIONS=suppressions=${suppressions}/thread.supp:print_suppressions=0:second_deadlock_stack=1")
endif()

# For every test of the calling folder.
function(talvora_sanitizer_settings)
  get_property(tests DIRECTORY PROPERTY TESTS)
  foreach(test IN LISTS tests)
    set_property(TEST ${test} APPEND PROPERTY ENVIRONMENT ${sanitizer_environment})
  endforeach()
endfunction()

option(TALVORA_COVERAGE "Count which lines and branches are reached" OFF)
if(TALVORA_COVERAGE)
  add_compile_options(-O0 --coverage -fprofile-update=atomic)
  add_link_options(--coverage)
endif()
