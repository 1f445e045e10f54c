# SPDX-License-Identifier: Apache-2.0
# ctest reads this before it runs the tests. Whatever they draw at random comes from the commit, so that a failure is
# the commit's doing and comes again: SKORRA_SEED is the first 32 bits of its hash, or 1 where git knows no commit.
# A number in SKORRA_SEED takes its place; "fresh" draws one. Each test that draws prints the number. Any other text is
# an error: another seed than the one asked for would mislead.
if(NOT "$ENV{SKORRA_SEED}" MATCHES "^([0-9]+|fresh)?$")
  message(FATAL_ERROR "SKORRA_SEED must be a whole number from 0 to 18446744073709551615, or \"fresh\"")
endif()
if(NOT "$ENV{SKORRA_SEED}" MATCHES "^[0-9]+$")
  set(digits "")
  if("$ENV{SKORRA_SEED}" STREQUAL "fresh")
    string(RANDOM LENGTH 8 ALPHABET 0123456789abcdef digits)
  else()
    execute_process(
      COMMAND git -C ${CMAKE_CURRENT_LIST_DIR} rev-parse --short=8 HEAD
      OUTPUT_VARIABLE digits
      OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  endif()
  if(digits MATCHES "^([0-9a-f][0-9a-f][0-9a-f][0-9a-f][0-9a-f][0-9a-f][0-9a-f][0-9a-f])")
    math(EXPR seed "0x${CMAKE_MATCH_1}")
  else()
    set(seed 1)
  endif()
  set(ENV{SKORRA_SEED} ${seed})
endif()
# The codec's properties and the forks under load have variables of their own.
if("$ENV{RC_PARAMS}" STREQUAL "")
  set(ENV{RC_PARAMS} "seed=$ENV{SKORRA_SEED}")
endif()
if("$ENV{SKORRA_FORK_SEED}" STREQUAL "")
  set(ENV{SKORRA_FORK_SEED} $ENV{SKORRA_SEED})
endif()
