# lumora2_warnings(<target>): the project's warning set, as errors unless LUMORA2_WERROR is off.
# Third-party headers (LibTorch, OpenCV, FFmpeg) come in through imported targets, whose include
# directories CMake marks as system headers, so their warnings never reach -Werror.
function(lumora2_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor
                                           -Wold-style-cast -Wcast-align -Wimplicit-fallthrough)
  if(LUMORA2_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
