# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""A network where only the wheel is installed: exact as the interpreter, narrow, studied, saved.

python network_run.py FOLDER
"""

import pathlib
import sys

import keras
import numpy as np
import tensorflow as tf
from keras import layers

import bitfold

folder = pathlib.Path(sys.argv[1])
random = np.random.default_rng(1)
images = random.normal(size=(24, 9, 9, 3)).astype(np.float32)
labels = random.integers(0, 5, 24)

keras.utils.set_random_seed(1)
picture = keras.Input((9, 9, 3))
x = layers.Conv2D(8, 3, strides=2, padding="same", activation="relu", name="first")(picture)
x = layers.DepthwiseConv2D(3, padding="same", name="depthwise")(x)
x = layers.Dense(5, name="last")(layers.Flatten()(x))
network = bitfold.Network.from_keras(keras.Model(picture, x), calibration=images)

model = folder / "model.tflite"
model.write_bytes(network.model_file)
interpreter = tf.lite.Interpreter(
    str(model), experimental_op_resolver_type=tf.lite.experimental.OpResolverType.BUILTIN_REF
)
interpreter.allocate_tensors()
(entry,), (end,) = interpreter.get_input_details(), interpreter.get_output_details()
stored = random.integers(-128, 128, (6, 9, 9, 3), np.int8)
for image, result in zip(stored, network(stored).numpy(), strict=True):
    interpreter.set_tensor(entry["index"], image[None])
    interpreter.invoke()
    wanted = interpreter.get_tensor(end["index"])[0]
    assert result.dtype == wanted.dtype
    assert result.tobytes() == wanted.tobytes(), (result, wanted)

narrow = network.with_arithmetic(bitfold.Arithmetic(accumulator_size=12))
assert narrow(stored).numpy().tobytes() != network(stored).numpy().tobytes()
study = bitfold.study(network, images, labels, arithmetics=[bitfold.Arithmetic(12)])
study.save(folder / "report.html")
np.savez(folder / "images.npz", images=images, labels=labels)
print("network:", pathlib.Path(bitfold.__file__).parent)
