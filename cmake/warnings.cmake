# SPDX-License-Identifier: GPL-2.0-or-later
# The warnings every target of the project is held to. Presets ending in -ci turn them into errors.
function(talvora_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wconversion -Wshadow -Wformat=2 -Wno-format-nonliteral
                                           $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>)
  # Results of the sample arithmetic are the same on every machine only when no product and sum are fused.
  target_compile_options(${target} PRIVATE -ffp-contract=off)
endfunction()
