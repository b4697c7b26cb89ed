# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Data by reference: images in files, named here and read where and when they are needed.

What the functions here return is taken wherever data are: by `bitfold.study`, `Network.evaluate`,
`Network.predict` and, for its images, as calibration data. Nothing is read beforehand but how many
images each file has. ``source[1000:2000]`` is some of the images, and ``source.map(function)`` the
same images preprocessed.

Files are taken in the order in which they are listed, and those of a pattern in the order of their
names, so that the same files are the same data anywhere. Other processes read them by the same
paths: on several machines these lie in a folder that all of them share, or each has a copy.
"""

from bitfold.data.files import Files
from bitfold.data.image_folder import image_folder
from bitfold.data.images import EncodedImage, RawArray
from bitfold.data.npy import npy
from bitfold.data.npz import npz
from bitfold.data.tfrecord import tfrecord

__all__ = ["EncodedImage", "Files", "RawArray", "image_folder", "npy", "npz", "tfrecord"]
