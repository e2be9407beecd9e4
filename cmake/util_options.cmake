# Warnings and sanitizers for the library's own targets.

function(util_own_code target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wshadow -Wnon-virtual-dtor)
  if(UTIL_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  # Checks the lock annotations (h/thread_annotations.h) in the library's
  # own sources; clang only. Tests take locks in deliberately odd ways.
  if(UTIL_THREAD_SAFETY AND CMAKE_CXX_COMPILER_ID MATCHES "Clang" AND target STREQUAL "util")
    target_compile_options(${target} PRIVATE -Wthread-safety)
  endif()
endfunction()

if(UTIL_SANITIZE)
  add_compile_options(-fsanitize=${UTIL_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${UTIL_SANITIZE})
endif()
