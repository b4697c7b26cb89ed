# Asks the TensorFlow of the Python that builds for its paths and flags, so that the library is
# built for exactly the runtime that will load it. Defines the target bitfold_tensorflow and the
# variables BITFOLD_TENSORFLOW_VERSION and BITFOLD_TENSORFLOW_DIR.

find_package(Python3 3.11 REQUIRED COMPONENTS Interpreter)

execute_process(
  COMMAND
    ${CMAKE_COMMAND} -E env TF_CPP_MIN_LOG_LEVEL=3 ${Python3_EXECUTABLE} -c
    "import tensorflow as tf
print(tf.__version__, tf.sysconfig.get_include(), tf.sysconfig.get_lib(),
      ' '.join(f for f in tf.sysconfig.get_compile_flags() if f.startswith('-D')), sep=';', end='')"
  OUTPUT_VARIABLE answer
  ERROR_VARIABLE error
  RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(
    FATAL_ERROR
      "${Python3_EXECUTABLE} cannot import tensorflow, which the op library is built against.\n"
      "Install it (pip install tensorflow-cpu==2.21.0), or configure with "
      "-DBITFOLD_BUILD_LIBRARY=OFF.\n${error}")
endif()

list(GET answer 0 BITFOLD_TENSORFLOW_VERSION)
list(GET answer 1 include_dir)
list(GET answer 2 BITFOLD_TENSORFLOW_DIR)
list(GET answer 3 definitions)
separate_arguments(definitions)
message(STATUS "TensorFlow ${BITFOLD_TENSORFLOW_VERSION} in ${BITFOLD_TENSORFLOW_DIR}")

add_library(bitfold_tensorflow INTERFACE)
target_include_directories(bitfold_tensorflow SYSTEM INTERFACE ${include_dir})
target_compile_options(bitfold_tensorflow INTERFACE ${definitions})
# The framework library alone: it is what both the CPU and the GPU wheel load first.
target_link_libraries(bitfold_tensorflow
                      INTERFACE ${BITFOLD_TENSORFLOW_DIR}/libtensorflow_framework.so.2)

if("undefined" IN_LIST BITFOLD_SANITIZE)
  # The runtime's headers compare functions with null in constant expressions, which these checks
  # make no constants. They stay on wherever those headers are not seen.
  target_compile_options(
    bitfold_tensorflow
    INTERFACE -fno-sanitize=null,nonnull-attribute,returns-nonnull-attribute)
endif()
