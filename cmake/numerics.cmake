# Every compiler flag that can change a bit of a result, with its reason. Nothing outside this file
# may set one; tests/python/test_repository.py and tests/cpp/numerics_test.cc fail when one is lost.

add_library(bitfold_numerics INTERFACE)

target_compile_options(
  bitfold_numerics
  INTERFACE
    # A product and a sum are two roundings, also where the machine has a fused instruction.
    -ffp-contract=off
    # Undoes a -ffast-math that came in through CXXFLAGS: it would reorder sums, turn divisions into
    # multiplications, drop NaN and the sign of zero, and link code that flushes subnormals.
    -fno-fast-math
    # The part of it that has a switch of its own.
    -fno-unsafe-math-optimizations
    # Rounding to nearest is what the compiler may assume when it folds constants; the ops set that
    # mode before they compute.
    -fno-rounding-math)

# When linking, too: otherwise such a flag adds start-up code that makes the thread which loads the
# library flush subnormals.
target_link_options(bitfold_numerics INTERFACE -fno-fast-math -fno-unsafe-math-optimizations)

# Device code gets the flags above for its host side (clang takes them for the device, too), and for
# the device these.
set(BITFOLD_DEVICE_NUMERICS_CLANG
    # A subnormal stays what it is.
    -fno-gpu-flush-denormals-to-zero
    # No approximations for functions of the library.
    -fno-gpu-approx-transcendentals)
# Clang divides with correct rounding unless unsafe optimisations are on. No flag makes its sqrtf on
# the device more than an approximation: __fsqrt_rn or __builtin_sqrtf is.

set(BITFOLD_DEVICE_NUMERICS_NVCC
    # A product and a sum are two roundings.
    --fmad=false
    # Quotients and roots are correctly rounded,
    --prec-div=true
    --prec-sqrt=true
    # and a subnormal stays what it is.
    --ftz=false)

# Not -fwrapv: integer wrap is written in unsigned arithmetic, and the sanitizers must see any that
# is not.

if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(i[3-6]86)$")
  # The x87 unit keeps excess precision.
  target_compile_options(bitfold_numerics INTERFACE -msse2 -mfpmath=sse)
endif()
