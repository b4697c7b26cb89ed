# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""A browser without a window, spoken to over a pipe: JSON messages that end with a zero byte."""

from __future__ import annotations

import base64
import io
import json
import os
import pathlib
import shutil
import subprocess
from typing import Any

import numpy as np
from PIL import Image

_NAMES = ("chromium", "chromium-browser")
# The browser's sandbox cannot be had as root; what it shows here is our own file.
_OPTIONS = ("--headless", "--disable-gpu", "--hide-scrollbars", "--remote-debugging-pipe")


class Page:
    """A file in a browser."""

    def __init__(self, file: pathlib.Path, profile: pathlib.Path) -> None:
        """Start a browser with a profile of its own and open a file."""
        program = next((found for name in _NAMES if (found := shutil.which(name))), None)
        if program is None:
            raise FileNotFoundError(f"Need {' or '.join(_NAMES)}: scripts/setup.sh browser")
        options = [*_OPTIONS, f"--user-data-dir={profile}"]
        options += ["--no-sandbox"] if os.getuid() == 0 else []
        theirs_in, self._out = os.pipe()
        self._in, theirs_out = os.pipe()
        # The browser reads from descriptor 3 and writes to 4.
        shell = f'exec "$0" "$@" 3<&{theirs_in} 4>&{theirs_out}'
        self._process = subprocess.Popen(
            ["bash", "-c", shell, program, *options, "about:blank"],
            pass_fds=(theirs_in, theirs_out),
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
        )
        os.close(theirs_in)
        os.close(theirs_out)
        self._number, self._rest, self._session = 0, b"", None
        self.events: list[dict[str, Any]] = []
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        attached = self.call("Target.attachToTarget", targetId=target, flatten=True)
        self._session = attached["sessionId"]
        for domain in ("Page", "Runtime", "Network", "Log"):
            self.call(f"{domain}.enable")
        self.call("Page.navigate", url=file.as_uri())
        self._wait("Page.loadEventFired")

    def close(self) -> None:
        """End the browser."""
        self._session = None
        self.call("Browser.close")
        self._process.wait(60)
        os.close(self._in)
        os.close(self._out)

    def call(self, method: str, **parameters: Any) -> dict[str, Any]:
        """Call a method of the browser's protocol."""
        self._number += 1
        message: dict[str, Any] = {"id": self._number, "method": method, "params": parameters}
        if self._session:
            message["sessionId"] = self._session
        os.write(self._out, json.dumps(message).encode() + b"\0")
        while True:
            answer = self._receive()
            if answer.get("id") == self._number:
                if "error" in answer:
                    raise RuntimeError(f"{method}: {answer['error']}")
                return answer["result"]
            self.events.append(answer)

    def _wait(self, method: str) -> None:
        while not any(event.get("method") == method for event in self.events):
            self.events.append(self._receive())

    def _receive(self) -> dict[str, Any]:
        while b"\0" not in self._rest:
            more = os.read(self._in, 1 << 16)
            if not more:
                raise RuntimeError("The browser ended")
            self._rest += more
        message, self._rest = self._rest.split(b"\0", 1)
        return json.loads(message)

    def evaluate(self, script: str) -> Any:
        """Return what an expression of JavaScript gives; the page itself has none."""
        answer = self.call("Runtime.evaluate", expression=script, returnByValue=True)
        if "exceptionDetails" in answer:
            raise RuntimeError(str(answer["exceptionDetails"]))
        return answer["result"].get("value")

    def show(self, width: int, scheme: str = "light", media: str = "screen") -> None:
        """Set the width of the window and what the reader prefers."""
        self.call(
            "Emulation.setDeviceMetricsOverride",
            width=width,
            height=900,
            deviceScaleFactor=1,
            mobile=width < 500,
        )
        features = [{"name": "prefers-color-scheme", "value": scheme}]
        self.call("Emulation.setEmulatedMedia", media=media, features=features)

    def picture(self, file: pathlib.Path) -> np.ndarray:
        """Return the whole page as pixels [height, width, 3], and write it to a file."""
        answer = self.call("Page.captureScreenshot", format="png", captureBeyondViewport=True)
        content = base64.b64decode(answer["data"])
        file.write_bytes(content)
        return np.asarray(Image.open(io.BytesIO(content)).convert("RGB"))

    def printed(self, file: pathlib.Path) -> bytes:
        """Return the page on paper as a PDF, and write it to a file."""
        answer = self.call(
            "Page.printToPDF", printBackground=True, paperWidth=8.27, paperHeight=11.7
        )
        content = base64.b64decode(answer["data"])
        file.write_bytes(content)
        return content
