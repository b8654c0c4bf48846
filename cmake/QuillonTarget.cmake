# Settings that every target of the project shares.
#
#   quillon_target(NAME)   warnings as errors and, in a sanitizer build, the sanitizers

option(QUILLON_SANITIZE "Build with AddressSanitizer and UndefinedBehaviorSanitizer" OFF)

function(quillon_target name)
  target_compile_options(${name} PRIVATE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror)
  if(QUILLON_SANITIZE)
    target_compile_options(${name} PRIVATE
      -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(${name} PRIVATE -fsanitize=address,undefined)
  endif()
endfunction()
