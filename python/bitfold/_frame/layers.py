# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Lets the ops take Keras' symbolic tensors: each call becomes a layer of the functional model."""

from __future__ import annotations

import functools
import inspect
from collections.abc import Callable
from typing import Any

import keras

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
        """Return what `from_config` needs to build the layer again."""
        config = super().get_config()
        config.pop("trainable", None)
        return {
            **config,
            "op": self.op,
            "constants": keras.saving.serialize_keras_object(self.constants),
        }

    @classmethod
    def from_config(cls, config):
        """Build the layer from `get_config`'s result."""
        config = dict(config)
        constants = keras.saving.deserialize_keras_object(config.pop("constants"))
        return cls(constants=constants, **config)
