# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Lets the ops take Keras' symbolic tensors: each call becomes a layer of the functional model."""

from __future__ import annotations

import functools
import inspect
from collections.abc import Callable
from typing import Any

import keras
import tensorflow as tf

from bitfold._frame.array_text import is_packable, packed, unpacked
from bitfold._frame.compiling import refuse_xla

# What a layer calls, by the name that a saved model holds.
_OPS: dict[str, Callable] = {}


def accepts_symbolic(op: Callable) -> Callable:
    """Decorate an op so that a call with a symbolic tensor builds an `OpLayer` instead.

    The op is entered under its name, by which saved models find it again: two ops of one name
    would take each other's layers.
    """
    signature = inspect.signature(op)

    @functools.wraps(op)
    def call(*args, **kwargs):
        refuse_xla()
        if not any(isinstance(x, keras.KerasTensor) for x in (*args, *kwargs.values())):
            return op(*args, **kwargs)
        arguments = signature.bind(*args, **kwargs).arguments
        symbolic = {k: v for k, v in arguments.items() if isinstance(v, keras.KerasTensor)}
        constants = {k: v for k, v in arguments.items() if k not in symbolic}
        name = constants.pop("name", None)
        return OpLayer(op.__name__, constants, name=name)(symbolic)

    _OPS[op.__name__] = call
    return call


@keras.saving.register_keras_serializable("bitfold")
class OpLayer(keras.layers.Layer):
    """A call of a function of `bitfold.ops` in a Keras functional model.

    Args:
        op: the function's name.
        constants: its arguments other than the symbolic tensors; arrays are saved with the model.
        **kwargs: as for every Keras layer.
    """

    def __init__(self, op: str, constants: dict[str, Any], **kwargs):
        kwargs.setdefault("dtype", "float32")
        super().__init__(trainable=False, autocast=False, **kwargs)
        self.supports_jit = False  # the ops have no XLA kernels
        self.op = op
        self.constants = dict(constants)

    def call(self, tensors):
        """Run the op on its tensor arguments, a dictionary by argument name."""
        return _OPS[self.op](**tensors, **self.constants)

    def get_config(self):
        """Return what `from_config` needs to build the layer again: arrays as packed bytes."""
        config = super().get_config()
        config.pop("trainable", None)
        known = {name: _known(value) for name, value in self.constants.items()}
        arrays = {name: value for name, value in known.items() if is_packable(value)}
        others = {name: value for name, value in known.items() if name not in arrays}
        return {
            **config,
            "op": self.op,
            "constants": keras.saving.serialize_keras_object(others),
            "arrays": {name: packed(value) for name, value in arrays.items()},
        }

    @classmethod
    def from_config(cls, config):
        """Build the layer from `get_config`'s result, or from one of before arrays were packed."""
        config = dict(config)
        constants = keras.saving.deserialize_keras_object(config.pop("constants"))
        arrays = {name: unpacked(text) for name, text in config.pop("arrays", {}).items()}
        return cls(constants=constants | arrays, **config)


def _known(value: Any) -> Any:
    """Return the array of a tensor whose values are known, and anything else as it is."""
    return value.numpy() if tf.is_tensor(value) and hasattr(value, "numpy") else value
