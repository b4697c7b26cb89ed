# Sanitizers over everything in the build, as a list such as "address;undefined".

set(BITFOLD_SANITIZE
    ""
    CACHE STRING "Sanitizers to build with")

if(BITFOLD_SANITIZE)
  string(REPLACE ";" "," names "${BITFOLD_SANITIZE}")
  add_compile_options(-fsanitize=${names} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  # Names and lines, which reports show, and no more; and little optimisation: together they compile
  # in half the time and run as fast. What ships is what the other builds test.
  add_compile_options(-g1 -Og)
  add_link_options(-fsanitize=${names})
  if("undefined" IN_LIST BITFOLD_SANITIZE)
    add_compile_options(-fsanitize=float-cast-overflow) # not part of the group
  endif()
endif()
