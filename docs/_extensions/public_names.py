# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What pages show of the package: public addresses, an op's rules, the generated ops.

Names in docstrings, and public names in the code of running text, become links.
"""

from __future__ import annotations

import ast
import functools
import inspect
import pathlib
import re
import textwrap
from typing import Any

import arithmetic_rules
from docutils import nodes
from sphinx.addnodes import pending_xref
from sphinx.application import Sphinx
from sphinx.domains.python import PyXRefRole
from sphinx.environment import BuildEnvironment
from sphinx.util.docutils import SphinxDirective

import bitfold

_MODULES = ("data", "detection", "fpx", "ops", "resize", "tables", "training")


@functools.cache
def _public_addresses() -> dict[str, str]:
    """Return the public address of each function and class that lives at another one."""
    from bitfold import network, studies

    addresses = {}
    for module in (*(getattr(bitfold, name) for name in _MODULES), network, studies, bitfold):
        for name in getattr(module, "__all__", ()):
            value = getattr(module, name)
            if inspect.isclass(value) or inspect.isfunction(value):
                own = f"{value.__module__}.{value.__qualname__}"
                addresses[own] = f"{module.__name__}.{name}"
    return addresses


class Name(PyXRefRole):
    """`words` in a docstring: a link where they name something public, else plain code."""

    def process_link(self, env, refnode, has_explicit_title, title, target):  # noqa: D102
        refnode["refdomain"], refnode["reftype"] = "py", "obj"
        refnode["bitfold_name"] = True
        return super().process_link(env, refnode, has_explicit_title, title, target)


def _must_resolve(target: str) -> bool:
    """Whether a name in a docstring is meant to be one of the package's."""
    first, _, rest = target.partition(".")
    return first == "bitfold" or (bool(rest) and first in bitfold.__all__)


def _candidates(target: str) -> list[str]:
    """Return the public addresses that a name may stand for."""
    found = [
        public + target.removeprefix(own)
        for own, public in _public_addresses().items()
        if target == own or target.startswith(f"{own}.")
    ]
    if not found and target[:1].isupper():
        found = [f"bitfold.{target}"] + [f"bitfold.{name}.{target}" for name in _MODULES]
        found.append(f"bitfold.studies.records.{target}")
    return found


def _resolve(app: Sphinx, env: BuildEnvironment, node: pending_xref, content: nodes.Node) -> Any:
    """Lead references to where a class lives to its public address."""
    if node.get("refdomain") != "py":
        return None
    target = node.get("reftarget", "")
    domain = env.domains.python_domain
    for public in _candidates(target):
        if public in domain.objects:
            return domain.resolve_xref(
                env, node["refdoc"], app.builder, "obj", public, node, content
            )
    is_internal = node.get("reftype") == "class" and target.startswith("bitfold.")
    is_plain = node.get("bitfold_name") and not _must_resolve(target)
    return content if is_internal or is_plain else None


@functools.cache
def _sections(source: str) -> dict[str, arithmetic_rules.Section]:
    text = (pathlib.Path(source) / "arithmetic.md").read_text()
    return {op: section for section in arithmetic_rules.sections(text) for op in section.ops}


def _generated(function: Any) -> list[str]:
    """Return the generated ops that a function of bitfold.ops calls."""
    tree = ast.parse(textwrap.dedent(inspect.getsource(function)))
    return [
        node.attr
        for node in ast.walk(tree)
        if isinstance(node, ast.Attribute) and ast.unparse(node.value) == "raw_ops"
    ]


def _registered(source: str, generated: str) -> str | None:
    """Return the registered name of a generated op."""
    plain = generated.replace("_", "")
    return next((op for op in _sections(source) if op.lower() == plain), None)


def _add_rules(
    app: Sphinx, what: str, name: str, obj: Any, _options: Any, lines: list[str]
) -> None:
    """End an op's docstring with its registered name and the rules that define its bits."""
    if what != "function" or not name.startswith("bitfold.ops."):
        return
    for generated in _generated(obj):
        op = _registered(str(app.srcdir), generated)
        if op is None:
            continue
        section = _sections(str(app.srcdir))[op]
        rules = f", rules {', '.join(section.rules)}" if section.rules else ""
        known = _sections(str(app.srcdir))
        others = [f":arithmetic:`{o} <{known[o].title}>`" for o in section.others if o in known]
        rules += f", and those of {', '.join(others)}" if others else ""
        lines += ["", f"Registered as ``{op}``: :arithmetic:`{section.title}`{rules}.", ""]


# What begins the part of a docstring that has a form of its own.
_SECTION = re.compile(r"(Args|Attributes|Example|Raises|Returns|Yields):$")


def _show_formulas(
    _app: Sphinx, _what: str, _name: str, _obj: Any, _options: Any, lines: list[str]
) -> None:
    """Show as they are the lines of a docstring that stand further in: formulas and layouts."""
    shown: list[str] = []
    in_text = True
    for line in lines:
        in_text = in_text and not _SECTION.match(line)
        begins = in_text and line.startswith("    ") and not (shown and shown[-1].strip())
        if begins and not line.lstrip().startswith((">>>", "- ")):
            shown += ["::", ""]
        formula = in_text and line.startswith("    ")
        shown.append(line if formula else re.sub(r"\|(\w+)\|", r"\\|\1\\|", line))
    lines[:] = shown


class GeneratedOps(SphinxDirective):
    """A list of the generated ops: registered name, signature, the function that calls it."""

    def run(self) -> list[nodes.Node]:
        """Return the list."""
        source = str(self.env.srcdir)
        callers = {
            generated: name
            for name in bitfold.ops.__all__
            for generated in _generated(getattr(bitfold.ops, name))
        }
        plain = {name.replace("_", ""): name for name in dir(bitfold.raw_ops)}
        lines = []
        for op in sorted(op for op in _sections(source) if op.lower() in plain):
            generated = plain[op.lower()]
            signature = inspect.signature(getattr(bitfold.raw_ops, generated))
            names = ", ".join(n for n in signature.parameters if n != "name")
            caller = callers.get(generated)
            lines += [
                f":arithmetic:`{op} <{_sections(source)[op].title}>`",
                f"   ``{generated}({names})``",
                "",
            ]
            if caller:
                lines += [f"   Called by :py:func:`~bitfold.ops.{caller}`.", ""]
        return self.parse_text_to_nodes("\n".join(lines))


# A name of the package as running text has it: `bitfold.ops.add`, `Network.evaluate(...)`.
_NAME = re.compile(r"((?:bitfold|[A-Z]\w+)(?:\.\w+)+)(\(.*\))?")


def _link_names(app: Sphinx, doctree: nodes.document, docname: str) -> None:
    """Link the public names that documents have as code."""
    shown = app.env.domains.python_domain.objects
    for literal in list(doctree.findall(nodes.literal)):
        match = _NAME.fullmatch(literal.astext())
        if match is None or isinstance(literal.parent, nodes.reference):
            continue
        name = next((n for n in (match[1], f"bitfold.{match[1]}") if n in shown), None)
        if name is None:
            continue
        page = app.builder.get_relative_uri(docname, shown[name].docname)
        link = nodes.reference("", "", internal=True, refuri=f"{page}#{shown[name].node_id}")
        literal.replace_self(link)
        link += literal


def setup(app: Sphinx) -> dict[str, bool]:
    """Add the extension."""
    app.add_role("name", Name(lowercase=False))
    app.connect("missing-reference", _resolve)
    app.connect("doctree-resolved", _link_names)
    # Before napoleon takes the sections apart, and after it.
    app.connect("autodoc-process-docstring", _show_formulas, priority=400)
    app.connect("autodoc-process-docstring", _add_rules, priority=600)
    app.add_directive("generated-ops", GeneratedOps)
    return {"parallel_read_safe": True, "parallel_write_safe": True}
