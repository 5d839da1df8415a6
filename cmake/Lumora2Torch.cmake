# lumora2_torch_sources(<file>…): marks source files of the calling directory that include
# LibTorch's headers (call it from the CMakeLists.txt that adds them to a target).
#
# Debian's LibTorch 1.13 headers do not compile as C++20 under clang 14 (c10::IValue is used
# while still incomplete inside ATen/core/ivalue_inl.h); they do as C++17, the standard that
# LibTorch release supports. Under clang these files are therefore compiled as C++17 and must
# keep to it; GCC compiles them as C++20 like the rest of the project.
function(lumora2_torch_sources)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    set_property(SOURCE ${ARGN} APPEND PROPERTY COMPILE_OPTIONS -std=c++17)
  endif()
endfunction()
