# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""A trained, quantised network, computed as the accelerator computes it."""

from __future__ import annotations

import base64
import functools
import logging
import os
from collections.abc import Callable, Collection, Mapping
from concurrent.futures import Executor
from typing import Any, TextIO

import keras
import numpy as np

from bitfold._frame.compiling import refuse_xla
from bitfold.network import archive, evaluation, naming, selection
from bitfold.network.arithmetic import Arithmetic
from bitfold.network.assemble import Assembly, assemble
from bitfold.network.converter import convert_keras, convert_trained
from bitfold.network.execution import Observe, Program
from bitfold.network.graph import Node
from bitfold.network.inference import Inference
from bitfold.network.keras_layer import NetworkLayer
from bitfold.network.model_file import read
from bitfold.network.operators import Step, step_of, unit_layer_norm
from bitfold.network.operators._layer_norm_pattern import find_patterns
from bitfold.network.records import Layer, Port
from bitfold.network.shards import evaluating
from bitfold.network.shards.data import Data
from bitfold.network.summary import print_summary
from bitfold.network.trained import integers_for_floats, is_trained, known_names

_LOGGER = logging.getLogger("bitfold.converter")


@keras.saving.register_keras_serializable("bitfold")
class Network:
    """A quantised network, on the accelerator's bits.

    Without further ado sums are exact, and every quantised tensor is that of the mobile runtime's
    reference kernels, bit for bit. `with_arithmetic` gives the same network in another arithmetic:
    with accumulators of so many bits, with shifts, in half precision, through the accelerator's
    units. A network does not change; weights are shared.

    Make one by `from_tflite`, `from_keras` or `load`.

    Attributes:
        inputs: what a call takes, a tuple of `Port`.
        outputs: what a call gives, a tuple of `Port`.
        layers: the operators in the file's order, a tuple of `Layer`.

    Example:
        >>> import bitfold, keras, numpy as np
        >>> model = keras.Sequential([keras.Input((4,)), keras.layers.Dense(2, name="dense")])
        >>> x = np.linspace(-1, 1, 80, dtype=np.float32).reshape(20, 4)
        >>> network = bitfold.Network.from_keras(model, calibration=x)
        >>> network(x[:3]).shape
        TensorShape([3, 2])
        >>> narrow = network.with_arithmetic(bitfold.Arithmetic(accumulator_size=16))
        >>> sums = narrow.accumulators(x)[0]
        >>> sums.shape, sums.dtype
        ((20, 2), dtype('int32'))
    """

    def __init__(
        self,
        model: bytes,
        *,
        arithmetics: Mapping[int, Arithmetic] | None = None,
        known_names: Collection[str] = (),
    ) -> None:
        """Read a model file's bytes; `from_tflite` and its like are the ways to call.

        Args:
            model: the file.
            arithmetics: by the operator's position, where they are not exact.
            known_names: the names of the layers of the model that the file was made of.
        """
        assembly = assemble(read(model))
        self._model = model
        self._known_names = tuple(known_names)
        self._build(assembly, {}, arithmetics or {})

    # ---- Making one ------------------------------------------------------------------------------

    @classmethod
    def from_tflite(
        cls, source: str | os.PathLike[str] | bytes | bytearray | memoryview
    ) -> Network:
        """Import a quantised model file.

        Args:
            source: its path, or its bytes.

        Returns:
            The network, all sums exact.

        Raises:
            OSError: for a path that cannot be read.
            TypeError: for neither a path nor bytes.
            ValueError: for a file that is damaged or of another kind.
            bitfold.UnsupportedModelError: for a sound file with what Bitfold does not compute,
                listing every operator concerned.

        Example:
            >>> import bitfold, keras, numpy as np
            >>> model = keras.Sequential([keras.Input((4,)), keras.layers.Dense(2, name="dense")])
            >>> x = np.linspace(-1, 1, 80, dtype=np.float32).reshape(20, 4)
            >>> network = bitfold.Network.from_keras(model, calibration=x)
            >>> bitfold.Network.from_tflite(network.model_file)
            <bitfold.Network of 1 operators, 8 multiply-adds>
        """
        if isinstance(source, bytes | bytearray | memoryview):
            return cls(bytes(source))
        if not isinstance(source, str | os.PathLike):
            raise TypeError(
                f"Need the path of a .tflite file, or its bytes, got {type(source).__name__}; "
                "Network.from_keras quantises a Keras model"
            )
        with open(source, "rb") as file:
            return cls(file.read())

    @classmethod
    def from_keras(
        cls, model: Any, calibration: Any = None, *, activation_bits: int = 8
    ) -> Network:
        """Quantise a Keras model by the runtime's converter, and import the result.

        Batch normalisation is folded, activations are fused, weights get 8 bits and a scale for
        each output channel. A model that `bitfold.training.emulate` made brings its scales and
        integers with it, and its arithmetic. Layers that it trained in floats stay in floats, or,
        between layers whose scales are known, are stored in integers by the converter: the logger
        "bitfold.converter" has a warning for each of these.

        Args:
            model: a functional or sequential model; it is not changed.
            calibration: examples of inputs, from which the ranges of all tensors are taken: an
                array (a list or dictionary of them for several inputs), files as `bitfold.data`
                names them, a `tf.data.Dataset` or an iterable of batches. A few hundred that look
                like what will come. None for a model that was trained in integers.
            activation_bits: 8, or 16 for tensors of 16 bits and weights of 8.

        Returns:
            The network, all sums exact, or in the arithmetic that it was trained in.

        Raises:
            ValueError: for calibration data or a number of bits that cannot be used.
            RuntimeError: where the converter fails.
            bitfold.UnsupportedModelError: for layers that Bitfold does not compute.

        Example:
            >>> import bitfold, keras, numpy as np
            >>> model = keras.Sequential([keras.Input((4,)), keras.layers.Dense(2, name="dense")])
            >>> x = np.linspace(-1, 1, 80, dtype=np.float32).reshape(20, 4)
            >>> network = bitfold.Network.from_keras(model, calibration=x)
            >>> [(layer.name, layer.operator, layer.filter.dtype.name) for layer in network.layers]
            [('dense', 'FULLY_CONNECTED', 'int8')]
        """
        if not is_trained(model):
            file = convert_keras(model, calibration, activation_bits=activation_bits)
            return cls(file, known_names=[layer.name for layer in model.layers])
        if calibration is not None or activation_bits != 8:
            raise ValueError(
                "Need no calibration and activation_bits=8 for a model that was trained in "
                f"integers of 8 bits, got activation_bits={activation_bits}"
                + (" and calibration data" if calibration is not None else "")
            )
        file, trained = convert_trained(model)
        network = cls(file, known_names=known_names(model, trained))
        for name in integers_for_floats(model, network.layers):
            _LOGGER.warning("layer %r was trained in floats and is stored in integers", name)
        return network.with_arithmetic({record.name: record.arithmetic for record in trained})

    @classmethod
    def load(cls, path: str | os.PathLike[str]) -> Network:
        """Read what `save` wrote.

        Args:
            path: of the file.

        Returns:
            The network, in the arithmetic that it was saved in.

        Raises:
            OSError: for a path that cannot be read.
            ValueError: for a file that is damaged or of another kind.

        Example:
            >>> import tempfile
            >>> import bitfold, keras, numpy as np
            >>> model = keras.Sequential([keras.Input((4,)), keras.layers.Dense(2, name="dense")])
            >>> x = np.linspace(-1, 1, 80, dtype=np.float32).reshape(20, 4)
            >>> network = bitfold.Network.from_keras(model, calibration=x)
            >>> narrow = network.with_arithmetic(bitfold.Arithmetic(accumulator_size=16))
            >>> with tempfile.TemporaryDirectory() as folder:
            ...     narrow.save(f"{folder}/narrow.bitfold")
            ...     bitfold.Network.load(f"{folder}/narrow.bitfold").layers[0].arithmetic
            Arithmetic(accumulator_size=16)
        """
        with open(path, "rb") as file:
            return cls(**archive.unpack(file.read(), os.fspath(path)))

    def save(self, path: str | os.PathLike[str]) -> None:
        """Write the model file and the arithmetic of every layer into one file.

        Args:
            path: of the file; one that is there is replaced as a whole.

        Raises:
            OSError: for a path that cannot be written.

        Example:
            >>> import tempfile
            >>> import bitfold, keras, numpy as np
            >>> model = keras.Sequential([keras.Input((4,)), keras.layers.Dense(2, name="dense")])
            >>> x = np.linspace(-1, 1, 80, dtype=np.float32).reshape(20, 4)
            >>> network = bitfold.Network.from_keras(model, calibration=x)
            >>> with tempfile.TemporaryDirectory() as folder:
            ...     network.save(f"{folder}/dense.bitfold")
            ...     again = bitfold.Network.load(f"{folder}/dense.bitfold")
            >>> bool((again(x).numpy() == network(x).numpy()).all())
            True
        """
        archive.write(path, self._packed())

    def _packed(self) -> bytes:
        return archive.pack(
            model=self._model,
            arithmetics={layer.position: layer.arithmetic for layer in self.layers},
            known_names=self._known_names,
        )

    def get_config(self) -> dict[str, str]:
        """Return what `from_config` needs, as Keras keeps it: what `save` writes, as text.

        Example:
            >>> import bitfold, keras, numpy as np
            >>> model = keras.Sequential([keras.Input((4,)), keras.layers.Dense(2, name="dense")])
            >>> x = np.linspace(-1, 1, 80, dtype=np.float32).reshape(20, 4)
            >>> network = bitfold.Network.from_keras(model, calibration=x)
            >>> list(network.get_config())
            ['file']
        """
        return {"file": base64.b64encode(self._packed()).decode()}

    @classmethod
    def from_config(cls, config: Mapping[str, str]) -> Network:
        """Make the network from `get_config`'s result.

        Args:
            config: that result.

        Example:
            >>> import bitfold, keras, numpy as np
            >>> model = keras.Sequential([keras.Input((4,)), keras.layers.Dense(2, name="dense")])
            >>> x = np.linspace(-1, 1, 80, dtype=np.float32).reshape(20, 4)
            >>> network = bitfold.Network.from_keras(model, calibration=x)
            >>> bitfold.Network.from_config(network.get_config())
            <bitfold.Network of 1 operators, 8 multiply-adds>
        """
        return _unpacked(base64.b64decode(config["file"]))

    def __reduce__(self) -> tuple[Callable, tuple[bytes]]:
        """Pickle as what `save` writes, for copies and other processes."""
        return _unpacked, (self._packed(),)

    def with_arithmetic(self, arithmetic: Arithmetic | Mapping[str, Arithmetic]) -> Network:
        """Return the same network in another arithmetic.

        Args:
            arithmetic: for all layers; or by layer, a dictionary whose keys are names of layers,
                patterns of such ("block1*") or operators ("CONV_2D"). Of several keys that mean a
                layer a name goes before a pattern, a pattern before an operator, and of equals the
                last holds. Layers that no key means stay as they are.

        Returns:
            A network of the same layers; those whose arithmetic stays are shared.

        Raises:
            TypeError: for anything but an `Arithmetic`.
            ValueError: for a key that means no layer, and for an arithmetic that a layer has not,
                naming the layer.

        Example:
            >>> import bitfold, keras, numpy as np
            >>> model = keras.Sequential([keras.Input((4,)), keras.layers.Dense(2, name="dense")])
            >>> x = np.linspace(-1, 1, 80, dtype=np.float32).reshape(20, 4)
            >>> network = bitfold.Network.from_keras(model, calibration=x)
            >>> narrow = network.with_arithmetic({"den*": bitfold.Arithmetic(accumulator_size=12)})
            >>> narrow.layers[0].arithmetic, network.layers[0].arithmetic
            (Arithmetic(accumulator_size=12), Arithmetic())
        """
        layers = self.layers
        names, operators = [layer.name for layer in layers], [layer.operator for layer in layers]
        chosen = selection.by_layer(arithmetic, Arithmetic, "an Arithmetic", names, operators)
        result = object.__new__(Network)
        result._model, result._known_names = self._model, self._known_names
        arithmetics = {
            layer.position: layer.arithmetic if found is None else found
            for layer, found in zip(layers, chosen, strict=True)
        }
        steps = {step.node.operator.position: step for step in self._steps}
        result._build(self._program.assembly, steps, arithmetics)
        return result

    def _build(
        self, assembly: Assembly, steps: Mapping[int, Step], arithmetics: Mapping[int, Arithmetic]
    ) -> None:
        """Make the steps, those that have the arithmetic already taken over."""
        names = naming.layer_names(assembly.nodes, self._known_names)
        made = []
        for node, name in zip(assembly.nodes, names, strict=True):
            position = node.operator.position
            arithmetic = arithmetics.get(position, Arithmetic())
            step = steps.get(position)
            if step is None or step.arithmetic != arithmetic:
                step = _step(node, arithmetic, name)
            made.append(step)
        graph = assembly.graph
        self._steps = tuple(made)
        self.layers = tuple(map(Layer.of, names, made))
        self.inputs = tuple(map(Port.of, graph.input_names, assembly.inputs))
        self.outputs = tuple(map(Port.of, graph.output_names, assembly.outputs))
        run = unit_layer_norm.fused(made, find_patterns(assembly.nodes, graph.outputs))
        called = {layer.position: layer.name for layer in self.layers}
        run_names = [called[step.node.operator.position] for step in run]
        self._program = Program(assembly, run, run_names)
        self._inference = Inference(self._program, graph.input_names)

    # ---- Computing -------------------------------------------------------------------------------

    def __call__(self, x: Any) -> Any:
        """Compute a batch of any size.

        Args:
            x: floats, which are quantised by the input's scale, or integers of the stored type. Of
                several inputs a list in the file's order, or a dictionary by name.

        Returns:
            The output, of floats real numbers, of integers stored ones; of several outputs a list
            in the file's order, or a dictionary by name where `x` is one.

        Raises:
            TypeError: for elements of another type.
            ValueError: for inputs of another shape or name.
            tf.errors.UnimplementedError: in a function that XLA is to compile.
        """
        refuse_xla()
        results = self._inference.outputs(x)
        if len(results) == 1:
            return results[0]
        names = [port.name for port in self.outputs]
        return dict(zip(names, results, strict=True)) if isinstance(x, Mapping) else list(results)

    def trace(self, x: Any) -> dict[int, np.ndarray]:
        """Compute a batch and return what every operator writes.

        Args:
            x: as for a call.

        Returns:
            By the index in the file, in the stored type, every quantised tensor that an operator
            writes and whose first dimension is the batch.

        Raises:
            TypeError: as for a call.
            ValueError: as for a call.

        Example:
            >>> import bitfold, keras, numpy as np
            >>> model = keras.Sequential([keras.Input((4,)), keras.layers.Dense(2, name="dense")])
            >>> x = np.linspace(-1, 1, 80, dtype=np.float32).reshape(20, 4)
            >>> network = bitfold.Network.from_keras(model, calibration=x)
            >>> [(stored.shape, stored.dtype.name) for stored in network.trace(x).values()]
            [((20, 2), 'int8')]
        """
        return self._inference.trace(x)

    def accumulators(self, x: Any) -> dict[int, np.ndarray]:
        """Compute a batch and return the sums of every operator with an accumulator.

        Args:
            x: as for a call.

        Returns:
            By the operator's position in the file, the sums with their bias before requantisation:
            int32; int64 where exact sums need it; float32 in half precision.

        Raises:
            TypeError: as for a call.
            ValueError: as for a call.

        Example:
            >>> import bitfold, keras, numpy as np
            >>> model = keras.Sequential([keras.Input((4,)), keras.layers.Dense(2, name="dense")])
            >>> x = np.linspace(-1, 1, 80, dtype=np.float32).reshape(20, 4)
            >>> network = bitfold.Network.from_keras(model, calibration=x)
            >>> [(sums.shape, sums.dtype.name) for sums in network.accumulators(x).values()]
            [((20, 2), 'int32')]
        """
        return self._inference.accumulators(x)

    def predict(self, x: Any, batch_size: int | None = None) -> Any:
        """Compute arrays of any length, files or a dataset, batch by batch, with progress.

        Args:
            x: as for a call; or files as `bitfold.data` names them, or a `tf.data.Dataset` of
                batches, of which labels are left aside.
            batch_size: images at once; by default what keeps memory modest. A dataset has its own.

        Returns:
            What a call gives, as numpy arrays.

        Raises:
            TypeError: as for a call.
            ValueError: as for a call.

        Example:
            >>> import bitfold, keras, numpy as np
            >>> model = keras.Sequential([keras.Input((4,)), keras.layers.Dense(2, name="dense")])
            >>> x = np.linspace(-1, 1, 80, dtype=np.float32).reshape(20, 4)
            >>> network = bitfold.Network.from_keras(model, calibration=x)
            >>> outputs = network.predict(x, batch_size=8)
            >>> outputs.shape, outputs.dtype.name
            ((20, 2), 'float32')
        """
        size = self.batch_size(batch_size)
        with evaluation.progress("predict", evaluation.count_images(x)) as advance:
            return evaluation.predict(self, x, size, advance)

    def evaluate(
        self,
        x: Any,
        y: Any = None,
        *,
        metric: Any = None,
        batch_size: int | None = None,
        executor: Executor | None = None,
    ) -> float:
        """Measure how well the network does.

        Args:
            x: as for `predict`; a `tf.data.Dataset` of pairs (x, y).
            y: labels, an element for each image; None with files and datasets, which have theirs.
            metric: None for the share of images whose largest output is the label's, labels being
                integers or one-hot; or a Keras metric, its name, or a function of labels and
                outputs.
            batch_size: as for `predict`.
            executor: who computes, as for `bitfold.study`; by default this process. Workers add up
                what a metric counts by parts of the data, so that numbers in floating point may be
                rounded elsewhere than here, however many workers there are.

        Returns:
            The metric.

        Raises:
            TypeError: for an executor that is none, and a metric that cannot be sent to its
                workers.
            ValueError: for labels that do not fit, and data that cannot be sent to workers.
            bitfold.WorkerError: for a part of the work that an executor cannot do.

        Example:
            >>> import bitfold, keras, numpy as np
            >>> model = keras.Sequential([keras.Input((4,)), keras.layers.Dense(2, name="dense")])
            >>> x = np.linspace(-1, 1, 80, dtype=np.float32).reshape(20, 4)
            >>> network = bitfold.Network.from_keras(model, calibration=x)
            >>> labels = network.predict(x).argmax(axis=1)
            >>> network.evaluate(x, labels), network.evaluate(x, 1 - labels)
            (1.0, 0.0)
            >>> network.evaluate(x, np.zeros([20, 2]), metric="mean_absolute_error") > 0
            True
        """
        size = self.batch_size(batch_size)
        if executor is not None:
            data = Data(x, y, size, rows=self.inputs[0].shape[0])
            return evaluating.evaluate(self, self._anew, data, metric, executor)
        with evaluation.progress("evaluate", evaluation.count_images(x)) as advance:
            return evaluation.evaluate(self, evaluation.pairs(x, y, size), metric, advance)

    def warnings(self) -> dict[str, dict[str, int]]:
        """Return what lines the ops of this network would have printed, by layer.

        Networks print nothing: they count. Of a float sum outside of 24 bits, and of a depthwise
        layer or a matrix product whose weights the accelerator reads with another sign, because
        they need more than half the accumulator's width. ``docs/warnings.md`` explains both.

        Returns:
            By the name of a layer the number of lines of each kind, ``"out_of_bounds"``,
            ``"corrected_weights"`` and ``"softmax_overflows"``, of all calls until now; a layer
            without lines is left out.

        Example:
            >>> import bitfold, keras, numpy as np
            >>> layer = keras.layers.DepthwiseConv2D(1, depthwise_initializer="ones", name="scale")
            >>> model = keras.Sequential([keras.Input((2, 2, 3)), layer])
            >>> x = np.linspace(-1, 1, 60, dtype=np.float32).reshape(5, 2, 2, 3)
            >>> network = bitfold.Network.from_keras(model, calibration=x)
            >>> narrow = network.with_arithmetic(bitfold.Arithmetic(accumulator_size=8))
            >>> outputs = narrow(x)  # weights of 127 need more than 4 bits: a line for each image
            >>> narrow.warnings()["scale"]["corrected_weights"]
            5
        """
        return self._program.warnings()

    @property
    def model_file(self) -> bytes:
        """The model file that the network was read from."""
        return self._model

    @property
    def steps(self) -> tuple[Step, ...]:
        """The operators as they compute, in the order of `layers`."""
        return self._steps

    def observed(self, observe: Observe) -> Callable[..., Any]:
        """Return a call in which somebody computes the layers with an accumulator, and looks on.

        Args:
            observe: from a step, its inputs and its state to its outputs and what was seen, a
                dictionary of tensors. It becomes part of a graph.

        Returns:
            A function of a batch, as a call takes it, and of the states by the position of the
            operator, as text, of one shape at each call; an operator without one gets None. It
            returns what a call does, of several outputs a list, and what was seen by the position,
            as arrays.

        Example:
            >>> import bitfold, keras, numpy as np, tensorflow as tf
            >>> model = keras.Sequential([keras.Input((4,)), keras.layers.Dense(2, name="dense")])
            >>> x = np.linspace(-1, 1, 80, dtype=np.float32).reshape(20, 4)
            >>> network = bitfold.Network.from_keras(model, calibration=x)
            >>> def observe(step, inputs, state):
            ...     sums = step.sums(inputs)
            ...     return step.finish(sums), {"largest": tf.reduce_max(tf.abs(sums))}
            >>> outputs, seen = network.observed(observe)(x, {})
            >>> int(seen["0"]["largest"]) == int(np.abs(network.accumulators(x)[0]).max())
            True
        """
        return self._inference.observed(observe)

    def batch_size(self, batch_size: int | None = None) -> int:
        """Return how many images to compute at once: as given, or what keeps memory modest.

        Args:
            batch_size: as `predict` and its like take it, at least 1; or None.

        Returns:
            `batch_size`; of None as many as keep the largest tensor to some 32 MB, at most 256.

        Raises:
            ValueError: for a number below 1.

        Example:
            >>> import bitfold, keras, numpy as np
            >>> model = keras.Sequential([keras.Input((4,)), keras.layers.Dense(2, name="dense")])
            >>> x = np.linspace(-1, 1, 80, dtype=np.float32).reshape(20, 4)
            >>> network = bitfold.Network.from_keras(model, calibration=x)
            >>> network.batch_size(), network.batch_size(8)
            (256, 8)
        """
        if batch_size is None:
            shapes = [shape for layer in self.layers for shape in layer.output_shapes]
            size = evaluation.default_batch_size(max((int(np.prod(s)) for s in shapes), default=1))
            rows = self.inputs[0].shape[0]
            return max(size // rows, 1) * rows
        if batch_size < 1:
            raise ValueError(f"Need batch_size >= 1, got {batch_size}")
        return batch_size

    def as_layer(self, name: str | None = None) -> NetworkLayer:
        """Return a Keras layer that computes this network; it has no weights to train.

        Args:
            name: of the layer; by default Keras makes one.

        Example:
            >>> import bitfold, keras, numpy as np
            >>> model = keras.Sequential([keras.Input((4,)), keras.layers.Dense(2, name="dense")])
            >>> x = np.linspace(-1, 1, 80, dtype=np.float32).reshape(20, 4)
            >>> network = bitfold.Network.from_keras(model, calibration=x)
            >>> inputs = keras.Input((4,))
            >>> model = keras.Model(inputs, keras.layers.Softmax()(network.as_layer()(inputs)))
            >>> model.predict(x, verbose=0).shape
            (20, 2)
        """
        return NetworkLayer(self, name=name)

    def summary(self, file: TextIO | None = None) -> None:
        """Print the layers: operator, shape, multiply-adds, arithmetic.

        Args:
            file: where to; standard output by default.

        Example:
            >>> import bitfold, keras, numpy as np
            >>> model = keras.Sequential([keras.Input((4,), name="data")])
            >>> model.add(keras.layers.Dense(2, kernel_initializer="ones", name="dense"))
            >>> x = np.linspace(-1, 1, 80, dtype=np.float32).reshape(20, 4)
            >>> network = bitfold.Network.from_keras(model, calibration=x)
            >>> network.summary()  # doctest: +NORMALIZE_WHITESPACE
            input 'data': int8 1x4, scale 0.00784314, zero point -1
            output 'dense': int8 1x2, scale 0.0301812, zero point -1
            position  layer  operator         output  multiply-adds  arithmetic
                   0  dense  FULLY_CONNECTED  1x2                 8  exact
            1 operators, 8 multiply-adds for one image
        """
        print_summary(self, file)

    def __repr__(self) -> str:
        """Return the number of layers and multiply-adds."""
        products = sum(layer.multiply_adds for layer in self.layers)
        return f"<bitfold.Network of {len(self.layers)} operators, {products:,} multiply-adds>"

    @property
    def _anew(self) -> Callable[[], Network]:
        """What makes a network of this one's file, sums exact; the same for each arithmetic."""
        return functools.partial(Network, self._model, known_names=self._known_names)


def _unpacked(content: bytes) -> Network:
    """Return the network that an archive holds."""
    return Network(**archive.unpack(content))


def _step(node: Node, arithmetic: Arithmetic, name: str) -> Step:
    """Make an operator's step; a refusal names the layer."""
    kind = step_of(node, arithmetic)
    try:
        for problem in kind.problems(node):
            raise ValueError(problem)
        return kind(node, arithmetic)
    except ValueError as error:
        place = f"operator {node.operator.position} {node.kind}"
        raise ValueError(f"layer {name!r} ({place}) in {arithmetic}: {error}") from None
