# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The documentation site: `make docs` builds it in build/docs, without a network.

Warnings are errors there, so a name that leads nowhere, a broken link or a docstring that is not
well formed ends the build.
"""

from __future__ import annotations

import os
import pathlib
import subprocess
import sys

_DOCS = pathlib.Path(__file__).resolve().parent
_ROOT = _DOCS.parent
sys.path.insert(0, str(_DOCS / "_extensions"))
# The notebooks' processes take it, too: their outputs are what the package prints.
os.environ["TF_CPP_MIN_LOG_LEVEL"] = "3"

import bitfold  # noqa: E402

project = "Bitfold"
author = "The Bitfold Authors"
copyright = "2026 The Bitfold Authors, Apache-2.0"
release = version = bitfold.__version__

extensions = [
    "sphinx.ext.autodoc",
    "sphinx.ext.autosummary",
    "sphinx.ext.napoleon",
    "breathe",
    "myst_nb",
    "sphinx_copybutton",
    "sphinx_design",
    "public_names",
    "rule_links",
]
exclude_patterns = ["_extensions", "images"]
# Formulas stand in running text, so quotes and primes stay what they are: dashes alone.
smartquotes_action = "D"

# ---- Markdown and notebooks ----------------------------------------------------------------------

myst_enable_extensions = ["attrs_block", "colon_fence", "deflist"]
# The anchors of headings are those that a code host gives, so that links lead to the same place.
myst_heading_anchors = 4
highlight_language = "none"
nb_execution_mode = "force"
nb_execution_raise_on_error = True
nb_execution_timeout = 300
nb_merge_streams = True
# What the runtime logs as it starts; an error of a cell ends the build.
nb_output_stderr = "remove"

# ---- The package ---------------------------------------------------------------------------------

autodoc_member_order = "bysource"
autodoc_typehints_format = "short"
autodoc_preserve_defaults = True
autosummary_generate = False
napoleon_numpy_docstring = False
napoleon_use_ivar = True
napoleon_use_rtype = False
python_use_unqualified_type_names = True
python_maximum_signature_line_length = 90
default_role = "name"

nitpicky = True
# What others document: no addresses of theirs, so that the site builds the same without a network.
nitpick_ignore_regex = [
    (r"py:.*", r"(collections|numpy|np|tensorflow|tf|keras|pathlib|os|typing)\b.*"),
    (r"py:.*", r"(abc|dataclasses|concurrent)\b.*"),
    (r"c(pp)?:identifier", r"u?int\d+_t|size_t"),
]

# ---- The C headers -------------------------------------------------------------------------------

_DOXYGEN = _ROOT / "build" / "docs" / "doxygen"
breathe_projects = {"bitfold": str(_DOXYGEN / "xml")}
breathe_default_project = "bitfold"
breathe_domain_by_extension = {"h": "c"}
breathe_show_include = False


def _read_headers() -> None:
    """Have doxygen read the headers that C programs include."""
    headers = [
        header
        for header in sorted((_ROOT / "include" / "bitfold").glob("*.h"))
        if 'extern "C" {' in header.read_text()
    ]
    _DOXYGEN.mkdir(parents=True, exist_ok=True)
    settings = {
        "INPUT": " ".join(map(str, headers)),
        "STRIP_FROM_PATH": _ROOT / "include",
        "OUTPUT_DIRECTORY": _DOXYGEN,
        "INPUT_FILTER": f"{sys.executable} {_DOCS / '_extensions' / 'header_comments.py'}",
        "FILTER_SOURCE_FILES": "YES",
        "MARKDOWN_SUPPORT": "NO",
        "AUTOLINK_SUPPORT": "NO",
        "OPTIMIZE_OUTPUT_FOR_C": "YES",
        "TYPEDEF_HIDES_STRUCT": "YES",
        "EXTRACT_ALL": "YES",
        "GENERATE_HTML": "NO",
        "GENERATE_LATEX": "NO",
        "GENERATE_XML": "YES",
        "QUIET": "YES",
        "WARN_IF_DOC_ERROR": "YES",
        "WARN_AS_ERROR": "FAIL_ON_WARNINGS",
    }
    text = "\n".join(f"{name} = {value}" for name, value in settings.items())
    try:
        subprocess.run(["doxygen", "-"], input=text, text=True, check=True)
    except FileNotFoundError:
        raise FileNotFoundError("Need doxygen: scripts/setup.sh docs") from None


_read_headers()

# ---- Pages ---------------------------------------------------------------------------------------

html_theme = "furo"
html_title = f"Bitfold {release}"
html_static_path = ["_static"]
html_css_files = ["site.css"]
html_copy_source = False
html_show_sphinx = False
html_theme_options = {
    "light_css_variables": {
        "color-brand-primary": "#0b5f8a",
        "color-brand-content": "#0b5f8a",
    },
    "dark_css_variables": {
        "color-brand-primary": "#6cc4f0",
        "color-brand-content": "#6cc4f0",
    },
}
pygments_style = "friendly"
pygments_dark_style = "native"
copybutton_prompt_text = r">>> |\.\.\. |\$ "
copybutton_prompt_is_regexp = True
