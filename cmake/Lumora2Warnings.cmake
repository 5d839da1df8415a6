# lumora2_warnings(<target>): the project's warning set, as errors unless LUMORA2_WERROR is off.
# Third-party headers (LibTorch, OpenCV, FFmpeg) come in through imported targets, whose include
# directories CMake marks as system headers, so their warnings never reach -Werror.
function(lumora2_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor
                                           -Wold-style-cast -Wcast-align -Wimplicit-fallthrough)
  # clang checks every lock annotation (engine/include/engine/thread_annotations.h): a field read
  # without the lock that guards it does not build.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    target_compile_options(${target} PRIVATE -Wthread-safety)
  endif()
  if(LUMORA2_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
      # GCC 12 at -O2/-O3 reports -Wrestrict inside libstdc++'s own std::string concatenation
      # (GCC bug 105651), wherever it gets inlined. It stays visible as a warning, not an error.
      target_compile_options(${target} PRIVATE -Wno-error=restrict)
    endif()
  endif()
endfunction()
