# Device code: finds a compiler for .cu files and defines bitfold_add_device_sources(). Not by
# enable_language(CUDA): with clang that insists on an nvcc of its own choice.
#
# Sets BITFOLD_DEVICE_COMPILER to the compiler's path, empty where no device code is built.

set(BITFOLD_GPU
    AUTO
    CACHE STRING "Build device code: AUTO (where a compiler for it is found), ON or OFF")
set_property(CACHE BITFOLD_GPU PROPERTY STRINGS AUTO ON OFF)
set(BITFOLD_CUDA_COMPILER
    ""
    CACHE STRING "Compiler of device code, an nvcc or a clang++; empty: search")
set(BITFOLD_CUDA_TREE
    ""
    CACHE PATH "CUDA tree for clang++, empty: .cuda of the checkout; nvcc uses its own")
set(BITFOLD_CUDA_ARCHITECTURES
    ""
    CACHE STRING "Compute capabilities to compile for, such as 61;75; empty: 61, or 75 for nvcc 13")

# --- the compiler ---------------------------------------------------------------------------------

# Sets, for the caller: BITFOLD_DEVICE_COMPILER, device_is_clang, device_version, device_tree and
# device_architectures.
function(bitfold_find_device_compiler)
  set(tree "${BITFOLD_CUDA_TREE}")
  if(NOT tree)
    set(tree "${PROJECT_SOURCE_DIR}/.cuda")
  endif()
  if(BITFOLD_CUDA_COMPILER)
    find_program(compiler NAMES "${BITFOLD_CUDA_COMPILER}" PATHS /usr/local/cuda/bin NO_CACHE)
  else()
    if(EXISTS "${tree}/bin/ptxas")
      find_program(compiler NAMES clang++-19 NO_CACHE)
    endif()
    find_program(compiler NAMES nvcc PATHS /usr/local/cuda/bin NO_CACHE)
  endif()
  if(NOT compiler)
    return()
  endif()

  execute_process(COMMAND "${compiler}" --version OUTPUT_VARIABLE text ERROR_QUIET)
  set(is_clang FALSE)
  set(architectures 61)
  if(text MATCHES "clang version ([0-9.]+)")
    set(is_clang TRUE)
    set(version ${CMAKE_MATCH_1})
  elseif(text MATCHES "Cuda compilation tools, release ([0-9.]+)")
    set(version ${CMAKE_MATCH_1})
    if(version VERSION_GREATER_EQUAL 13)
      set(architectures 75)
    endif()
    # Its path does not tell: an nvcc on PATH may be a link or a script.
    execute_process(COMMAND "${compiler}" --dryrun -c x.cu OUTPUT_QUIET ERROR_VARIABLE text)
    if(text MATCHES "#\\$ TOP=([^\n]+)")
      file(REAL_PATH "${CMAKE_MATCH_1}" tree)
    endif()
  else()
    return()
  endif()
  if(BITFOLD_CUDA_ARCHITECTURES)
    set(architectures ${BITFOLD_CUDA_ARCHITECTURES})
  endif()

  set(BITFOLD_DEVICE_COMPILER "${compiler}" PARENT_SCOPE)
  set(device_is_clang ${is_clang} PARENT_SCOPE)
  set(device_version ${version} PARENT_SCOPE)
  set(device_tree "${tree}" PARENT_SCOPE)
  set(device_architectures ${architectures} PARENT_SCOPE)
endfunction()

# Sets device_flags, all but the optimisation and the files. Images are not compressed: old drivers
# cannot read the default compression, and a test can then read the library's device code.
function(bitfold_set_device_flags)
  get_target_property(numerics bitfold_numerics INTERFACE_COMPILE_OPTIONS)
  get_target_property(warnings bitfold_warnings INTERFACE_COMPILE_OPTIONS)
  list(FILTER warnings EXCLUDE REGEX "^\\$<") # for one host compiler only
  set(flags -std=c++17 "-I${PROJECT_SOURCE_DIR}/include" "-I${PROJECT_SOURCE_DIR}/src")
  if(device_is_clang)
    # The tree's headers first: a machine may have others in /usr/local/include.
    list(APPEND flags -x cuda "--cuda-path=${device_tree}" -isystem "${device_tree}/include")
    list(APPEND flags -Wno-unknown-cuda-version -Xcuda-fatbinary --compress=false -fPIC)
    foreach(architecture IN LISTS device_architectures)
      list(APPEND flags --cuda-gpu-arch=sm_${architecture})
    endforeach()
    list(APPEND flags --cuda-include-ptx=all)
    list(SORT device_architectures COMPARE NATURAL)
    list(GET device_architectures -1 newest)
    if(newest LESS_EQUAL 75)
      # The oldest form of the PTX that these devices allow, for the drivers of their time.
      list(APPEND flags --cuda-feature=+ptx63)
    endif()
    list(APPEND flags ${numerics} ${BITFOLD_DEVICE_NUMERICS_CLANG} ${warnings})
  else()
    list(APPEND flags -ccbin "${CMAKE_CXX_COMPILER}" --no-compress -Wno-deprecated-gpu-targets)
    foreach(architecture IN LISTS device_architectures)
      set(virtual compute_${architecture})
      list(APPEND flags -gencode=arch=${virtual},code=sm_${architecture}
                        -gencode=arch=${virtual},code=${virtual})
    endforeach()
    list(APPEND flags ${BITFOLD_DEVICE_NUMERICS_NVCC})
    # Its own headers have what this warns of, and it does not include them as system headers.
    list(REMOVE_ITEM warnings -Wundef)
    if(BITFOLD_WARNINGS_AS_ERRORS)
      list(APPEND flags --Werror=all-warnings)
    endif()
    foreach(flag IN ITEMS -fPIC ${numerics} ${warnings})
      list(APPEND flags -Xcompiler=${flag})
    endforeach()
  endif()
  set(device_flags "${flags}" PARENT_SCOPE)
endfunction()

# Compiles a kernel, once per command: a compiler and a CUDA version, or a host compiler, may not go
# together. Sets, for the caller, device_error to what went wrong, empty where nothing did.
function(bitfold_try_device_compiler)
  set(command "${BITFOLD_DEVICE_COMPILER}" ${device_flags})
  if(NOT "${command}" STREQUAL "${BITFOLD_DEVICE_TRIED}")
    set(source ${CMAKE_BINARY_DIR}/CMakeFiles/bitfold_device_trial.cu)
    file(WRITE ${source} "__global__ void Kernel(float* x) { *x = 0; }\n"
                         "void Launch(float* x) { Kernel<<<1, 1>>>(x); }\n")
    execute_process(
      COMMAND ${command} -c ${source} -o ${source}.o
      RESULT_VARIABLE result
      OUTPUT_VARIABLE output
      ERROR_VARIABLE output)
    if(NOT result EQUAL 0)
      set(device_error "${output}" PARENT_SCOPE)
      return()
    endif()
    set(BITFOLD_DEVICE_TRIED "${command}" CACHE INTERNAL "The device compilation that worked")
  endif()
  set(device_error "" PARENT_SCOPE)
endfunction()

set(BITFOLD_DEVICE_COMPILER "")
if(BITFOLD_GPU)
  bitfold_find_device_compiler()
  set(advice
      "Run scripts/cuda_toolchain.sh and install clang-19, or give an nvcc of version 12 or newer "
      "with -DBITFOLD_CUDA_COMPILER=..., or build without device code: -DBITFOLD_GPU=OFF.")
  string(CONCAT advice ${advice})
  if(NOT BITFOLD_DEVICE_COMPILER)
    if(NOT BITFOLD_GPU STREQUAL "AUTO")
      message(FATAL_ERROR "No compiler for device code. ${advice}")
    endif()
    message(STATUS "Device code: none, for want of a compiler. ${advice}")
  else()
    bitfold_set_device_flags()
    bitfold_try_device_compiler()
    string(JOIN "," for ${device_architectures})
    set(found "${BITFOLD_DEVICE_COMPILER} ${device_version} with ${device_tree} for ${for}")
    if(NOT device_error)
      message(STATUS "Device code: ${found}")
    elseif(BITFOLD_GPU STREQUAL "AUTO")
      message(WARNING "Device code: none, as ${found} fails. ${advice}\n${device_error}")
      set(BITFOLD_DEVICE_COMPILER "")
    else()
      message(FATAL_ERROR "Device code: ${found} fails. ${advice}\n${device_error}")
    endif()
  endif()
endif()

if(NOT BITFOLD_DEVICE_COMPILER)
  return()
endif()

# --- the runtime ----------------------------------------------------------------------------------

find_library(
  device_runtime
  NAMES libcudart_static.a
  HINTS "${device_tree}"
  PATH_SUFFIXES lib64 lib targets/${CMAKE_SYSTEM_PROCESSOR}-linux/lib
  NO_CACHE REQUIRED)

# Static, and hidden: TensorFlow's GPU wheel exports a CUDA runtime of its own, to which ours must
# not bind.
add_library(bitfold_cuda_runtime INTERFACE)
target_link_libraries(bitfold_cuda_runtime INTERFACE "${device_runtime}" Threads::Threads
                                                     ${CMAKE_DL_LIBS} rt)
target_link_options(bitfold_cuda_runtime INTERFACE -Wl,--exclude-libs,ALL -Wl,-z,defs)

# --- the function ---------------------------------------------------------------------------------

# bitfold_add_device_sources(TARGET source.cu...): compiles device code and links it into TARGET.
# Call it after the target's other libraries are linked.
function(bitfold_add_device_sources target)
  set(debug $<CONFIG:Debug>)
  set(level
      $<IF:${debug},-O0,$<IF:$<CONFIG:Release>,-O3,-O2>>
      $<$<NOT:${debug}>:-DNDEBUG>
      $<$<OR:${debug},$<CONFIG:RelWithDebInfo>>:-g>)
  foreach(name IN LISTS ARGN)
    cmake_path(ABSOLUTE_PATH name OUTPUT_VARIABLE source)
    cmake_path(GET source FILENAME stem)
    set(object "${CMAKE_CURRENT_BINARY_DIR}/${target}.device/${stem}.o")
    file(MAKE_DIRECTORY "${CMAKE_CURRENT_BINARY_DIR}/${target}.device")
    add_custom_command(
      OUTPUT "${object}"
      COMMAND "${BITFOLD_DEVICE_COMPILER}" ${device_flags} ${level} -MD -MF "${object}.d" -MT
              "${object}" -c "${source}" -o "${object}"
      DEPENDS "${source}" "${PROJECT_SOURCE_DIR}/cmake/cuda.cmake"
              "${PROJECT_SOURCE_DIR}/cmake/numerics.cmake"
      DEPFILE "${object}.d"
      COMMENT "Compiling device code ${stem}"
      COMMAND_EXPAND_LISTS VERBATIM)
    set_source_files_properties("${object}" PROPERTIES EXTERNAL_OBJECT TRUE GENERATED TRUE)
    target_sources(${target} PRIVATE "${object}")
  endforeach()
  # Ahead of the framework library, so that the linker takes the runtime from the archive.
  get_target_property(libraries ${target} LINK_LIBRARIES)
  set_property(TARGET ${target} PROPERTY LINK_LIBRARIES bitfold_cuda_runtime ${libraries})
endfunction()
