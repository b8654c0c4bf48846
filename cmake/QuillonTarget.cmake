# Settings that every target of the project shares.
#
#   quillon_target(NAME)   warnings as errors and, in a sanitizer build, the sanitizers; for the fuzzer,
#                          what tells it which code was reached, in place of the warnings

set(QUILLON_SANITIZE "" CACHE STRING "What -fsanitize= gets: address,undefined or thread; empty for none")
option(QUILLON_FUZZ "Build for the fuzzer, with clang and the sanitizers" OFF)

# The C libraries hand out callbacks of other types than they call.
set(quillon_fuzz_flags -fsanitize=address,undefined -fno-sanitize=vptr,function
    -fno-sanitize-recover=all)

function(quillon_target name)
  if(QUILLON_FUZZ)
    target_compile_options(${name} PRIVATE
      -O1 -fno-omit-frame-pointer -fsanitize=fuzzer-no-link ${quillon_fuzz_flags})
    target_link_options(${name} PRIVATE ${quillon_fuzz_flags})
    return()
  endif()
  target_compile_options(${name} PRIVATE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror)
  if(QUILLON_SANITIZE)
    target_compile_options(${name} PRIVATE
      -fsanitize=${QUILLON_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(${name} PRIVATE -fsanitize=${QUILLON_SANITIZE})
    target_compile_definitions(${name} PRIVATE QUILLON_SANITIZED)
  endif()
endfunction()
