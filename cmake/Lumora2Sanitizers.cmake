# LUMORA2_SANITIZE=address,undefined instruments every target of the build. Undefined behaviour is
# made fatal so that a CTest run fails on the first report instead of printing and passing.
if(LUMORA2_SANITIZE)
  add_compile_options(-fsanitize=${LUMORA2_SANITIZE} -fno-omit-frame-pointer
                      -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${LUMORA2_SANITIZE})
endif()
