# Warnings for our own code; the runtime's headers are included as system headers.

option(BITFOLD_WARNINGS_AS_ERRORS "Fail the build on a warning" OFF)

add_library(bitfold_warnings INTERFACE)
target_compile_options(bitfold_warnings INTERFACE -Wall -Wextra -Wshadow -Wcast-align -Wundef)
if(BITFOLD_WARNINGS_AS_ERRORS)
  target_compile_options(bitfold_warnings INTERFACE -Werror)
  # Says that a loop was not vectorised: worth knowing, but below -O2 none is.
  target_compile_options(bitfold_warnings INTERFACE $<$<CXX_COMPILER_ID:Clang>:-Wno-error=pass-failed>)
endif()
